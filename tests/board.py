"""The board as the tests see it from outside: the service as a process, both ends of its queues, and its lines.

Bytes and texts that a test expects are written out in its tables; the Python module alone reaches the queues.
"""
import contextlib, os, pathlib, re, signal, subprocess, time

import sysv_ipc
from hubkeeper.queues import Queue

assert os.path.ismount("/media/small"), "queues and files are thrown away here: run this in scripts/sandbox"
TOP = pathlib.Path(__file__).resolve().parents[1]
# The queues to Ridgelink, Netsteward, Clocksteward, Chronicler (L) and Stagehand, and the inbound one.
KEYS = {"R": 1003, "N": 1000, "C": 1011, "L": 1010, "S": 1006, "I": 1002}
LIMITS = {name: open(f"/proc/sys/kernel/{name}").read() for name in ("msgmax", "msgmnb", "msgmni")}
PATIENCE = float(os.environ.get("PATIENCE", 60))
os.umask(0o022)
os.environ["PATH"] = "/usr/local/bin:/usr/bin:/bin"
os.environ.pop("NO_COLOR", None)
SANITIZED = "SANITIZED" in os.environ  # its memory is its own
EXTRA_THREAD = os.environ.get("SANITIZED") == "thread"  # so hubctl takes another one for that which runs commands


def until(holds, *arguments):
    """Polls until it holds, and returns that; after a minute the test fails."""
    for _ in iter(lambda began=time.monotonic(): time.monotonic() - began > PATIENCE, True):
        if result := holds(*arguments):
            return result
        time.sleep(0.001)
    raise AssertionError("did not come about in time:\n" + shell("tail -n 30 /tmp/console"))


def shell(line):
    return subprocess.run(line, shell=True, capture_output=True, text=True, errors="surrogateescape").stdout


def text(word):
    """The bytes that a word of a table stands for: 21 is a Packet of that opcode with tag 7 and without payload, 21"ab" one
    with payload, 21@fffe one with that tag, 21:4 one with that length in its header, .21 a bounce, =ab these bytes. Inside,
    \\hh is the byte of that number, and x{9} nine times x."""
    opcode, tag, length, payload = re.fullmatch(r'([=.]|..)(?:@(\w+))?(?::(\d+))?"?(.*?)"?', word).groups()
    payload = re.sub(rb"\\(..)", lambda one: bytes.fromhex(one[1].decode()), payload.encode())
    payload = re.sub(rb"(?s)(.)\{(\d+)\}", lambda one: one[1] * int(one[2]), payload)
    if opcode in "=.":
        return payload if opcode == "=" else bytes.fromhex(payload.decode())
    header = int(length or len(payload) + 5), int(tag or "7", 16)
    return b"".join(number.to_bytes(2, "little") for number in header) + bytes.fromhex(opcode) + payload


def texts(words):
    return [text(word) for word in re.findall(r'(?:[^ "]|"[^"]*")+', words)]


def like(line, want):
    """As wanted, where a single letter stands for a priority, and .. for any beginning of the message."""
    if want[1:2] != " " or " " not in line:
        return line == want
    return line[0] == want[0] and (line.endswith(want[4:]) if want[2:4] == ".." else line.split(" ", 1)[1] == want[2:])


def queue(letter):
    return sysv_ipc.MessageQueue(KEYS[letter])


def put(bundle, letter="I"):
    Queue(KEYS[letter]).put(bundle, mtype=99)  # any is accepted


def take(letter, count=0):
    """`count` messages, awaited, or with 0 all that wait."""
    here, taken = Queue(KEYS[letter]), []
    while (message := here.take(PATIENCE if count else 0, mtype=1)) is not None:
        taken.append(message)
        if len(taken) == count:
            break
    assert len(taken) >= count, f"{taken} on {letter}"
    return taken


@contextlib.contextmanager
def mounted(options, where):
    assert shell(f"mount -t tmpfs -o {options} none {where} || echo refused") == ""
    try:
        yield
    finally:
        shell(f"umount -l {where}")


def clear_processes():
    """Ends all others of the sandbox."""
    for process in map(int, filter(str.isdigit, os.listdir("/proc"))):
        if process not in (1, os.getpid(), os.getppid()):
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, signal.SIGKILL)


def clear():
    """Ends all other processes, and brings queues, limits, mounts and files back to what they were."""
    clear_processes()
    for row in open("/proc/sysvipc/msg").readlines()[1:]:
        shell(f"ipcrm -q {row.split()[1]}")
    for name, value in LIMITS.items():
        pathlib.Path("/proc/sys/kernel", name).write_text(value)
    shell("test -h /media/data && rm /media/data;"  # or the small disk that it leads to would be unmounted
          "umount /tmp/on /media/data; rm -rf /tmp/* /run/* /opt /usr/local/bin/* /etc/qd /etc/build-version /etc/os-release"
          " /media/small/* /media/data /var/staging; mkdir -p /etc/qd /media/data /var/staging;"
          # Without it the shell would complain, in pieces, between the lines of others.
          "printf '#!/bin/sh\n' >/usr/local/bin/fw_printenv; chmod +x /usr/local/bin/fw_printenv")


class Hub:
    """The service as a process, ready, and killed at the end; its output and standard error stand in /tmp/console.

    `plan` takes the program whose sleeps are cut short, the monitor thread's to so many milliseconds a second, and in which
    one call fails from the n-th on: "[MILLISECONDS [CALL SKIP ERRNO]]".
    """

    def __init__(self, plan=None, ready=True, log="/tmp/console", **how):
        program = os.environ["HUBKEEPER" if plan is None else "HASTY"].split()
        how = {"env": {**os.environ, "HUB_PLAN": plan or ""}, "cwd": "/run", "stdin": subprocess.DEVNULL, **how}
        self.appended = open("/tmp/console", "ab")
        self.output, self.rest, self.lines = open(log, "a+b"), b"", []
        self.seen, self.start = 0, lambda console: subprocess.Popen(program, **{"stdout": console, "stderr": console, **how})
        self.plan = plan
        self.launch(ready)

    def launch(self, ready=True):
        self.process = self.start(self.appended)
        self.pid, self.wait = self.process.pid, self.process.wait
        if ready:
            until(lambda: self.plan is None or "slept 40" in self.console()[self.seen:])  # the other thread's last line
            self.settle()
            take("R")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill(), self.wait()

    def stop(self):
        os.kill(self.pid, signal.SIGSTOP), os.waitpid(self.pid, os.WUNTRACED)

    def go_on(self):
        os.kill(self.pid, signal.SIGCONT)

    def flags(self, descriptor):
        return int(re.search(r"flags:\s+(\d+)", open(f"/proc/{self.pid}/fdinfo/{descriptor}").read())[1], 8)

    def console(self):
        """The lines, without time and the blank at the end: PRIORITY message."""
        *lines, self.rest = (self.rest + self.output.read()).split(b"\n")
        self.lines += [re.sub(rb"\d\d \w{3} \d{4} [\d:]{8} | $", b"", line).decode(errors="surrogateescape") for line in lines]
        return self.lines

    def said(self):
        """The new lines since the last time."""
        lines = self.console()
        new, self.seen = lines[self.seen:], len(lines)
        return new

    def settle(self):
        """The lines of what was sent until now, once it is done: a Packet of no known opcode is logged last."""
        put(text("fe"))
        until(lambda: "ERROR bad opcode: fe" in self.console()[self.seen:])
        return [line for line in self.said() if line != "ERROR bad opcode: fe"]

    def play(self, table):
        """For each row: sends the Bundle in its first column, and compares what goes out with the second (to Ridgelink, or
        behind another queue's letter) and the lines with the others; at the word "exit" the service ends with status 1 and
        is started anew. "$ COMMAND | OUTPUT" runs a shell command, "$ COMMAND => BUNDLE | ..." both."""
        for row in filter(None, re.sub(r"\n +\|", " |", table).split("\n")):
            step, sent, *lines = re.split(r"\s*\|\s*", row.rstrip() + ("" if "|" in row else " |"))
            if step[0] == "$":
                command, _, step = step[2:].partition(" => ")
                printed = shell(command)
                if not step:
                    assert printed == text("=" + sent).decode(), (row, printed)
                    continue
            wanted, letter = {letter: [] for letter in KEYS}, "R"
            for word in re.findall(r'(?:[^ "]|"[^"]*")+', sent):
                if word in KEYS:
                    letter = word
                elif word != "exit":
                    wanted[letter].append(text(word))
            put(b"".join(texts(step)))
            if "exit" in sent:
                assert self.wait(PATIENCE) == 1, row
                said, got = self.said(), {letter: take(letter) for letter in KEYS}
                self.launch()
            else:
                said, got = self.settle(), {letter: take(letter) for letter in KEYS}
                assert got["R"].pop() == b"\xfe", row
            assert got == wanted, (row, got)
            assert len(said) == len(lines) and all(map(like, said, lines)), (row, said)
