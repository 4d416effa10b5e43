"""The operator's desk: what hubctl makes of a board and of its log, and what the shells offer for its arguments."""
import contextlib, json, os, pathlib, random, re, shutil, signal, subprocess, sys

import pytest
import sysv_ipc
from board import EXTRA_THREAD, KEYS, PATIENCE, TOP, Hub, put, queue, shell, take, text, until
from hubctl_test import play, see, start

LOG = pathlib.Path("/media/data/messages.log")
BACKUP = pathlib.Path("/media/data/messages.log.1")
AT = "22 Nov 2026 21:51:0"
# What may stand in the place of a value; the others take any text, also what looks like the rest of the message.
VALUES = {"bytes": 16384, "id": 0, "length": 65535, "opcode": 0x2F, "path": "/etc/os-release", "remaining": 3, "result": -1,
          "reason": "No such file or directory", "version": "1.0.2"}
# Lines of a log, \n within a message included, with the blank that ends each.
BOARD = f"""ERROR {AT}0 HubKeeper Netsteward msg queue size is :16384 
INFO {AT}0 Linux board
 
INFO {AT}1 key: 
service value: /a 
INFO {AT}1 RemoteCommand: Executing command [echo \33[31m
ERROR {AT}1 bad opcode: 99
msgget: forged] 
ERROR {AT}2 bad opcode: 29 
WARN {AT}3 Clocksteward application has been disabled 
ERROR {AT}4 HubKeeper: Failed sen"""
JOURNAL = f"""Nov 22 21:51:04 board systemd[1]: Started x
Nov 22 21:51:04 board hubkeeper[57]: ERROR {AT}4 HubKeeper failed to open outbound queue
Nov 22 21:51:04 board hubkeeper[57]: In From Ridgelink queue setup failed: No space left on device
Nov 22 21:51:05 board hubkeeper[57]: INFO {AT}5 RemoteCommand: Executing command [a
Nov 22 21:51:05 board hubkeeper[57]: b] 
Nov 22 21:51:05 board cron[8]: b]
"""


def log(*words, text=None):
    command = ["hubctl", "log", "--json", *words, *(["-"] if text is not None else [])]
    done = subprocess.run(command, input=text, capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    return [json.loads(line) for line in done.stdout.splitlines()]


def rows():
    """The text and the priority of each row of the catalogue."""
    return re.findall(r"(?m)^\| `([^`]+)` \| (\w+) \|", (TOP / "docs/messages.md").read_text())


def sample(text):
    return re.sub("<(.*?)>", lambda one: "2f" if one[1] == "opcode" else str(VALUES.get(one[1], "some of size [x] value: y")), text)


def test_every_row_of_the_catalogue():
    """Each message is of its own row's kind, not of one that is vaguer, with its values taken out, and is explained."""
    lines = "".join(f"{sample(text)}: {VALUES['reason']}\n" if kind == "perror" else f"{kind} {AT}4 {sample(text)} \n"
                    for text, kind in rows())
    found = log(text=lines)
    assert [(line["kind"], line["priority"]) for line in found] == rows()
    for line, (text, kind) in zip(found, rows()):
        names = re.findall("<(.*?)>", text) + ["reason"] * (kind == "perror")
        assert {name: VALUES[name] for name in names if name in VALUES}.items() <= line["values"].items(), line
        assert line["values"].keys() - {"queue"} == set(names) and (line["error"] or "queue size is" in text or kind in ("INFO", "WARN"))
    assert {line["values"].get("queue") for line in found if " key 10" in line["message"] or "Failed sending to C" in line["message"]} == {
        "chronicler", "clocksteward"}
    explained = subprocess.run(["hubctl", "log", "--explain", "-"], input=lines, capture_output=True, text=True).stdout
    assert explained.count("\n      means  ") == explained.count("\n      to do  ") == len(rows()) > 100
    assert not re.search(r"(?i)\bas above|[^ ]the line above [^\"]|`|\*|\]\(", explained.replace("[", ""))


def test_messages_of_several_lines():
    """A message goes on over lines; another program's lines, forged and cut ones are nobody else's."""
    def ends(text):
        return [(line["kind"] or "")[:13] + "|" + line["message"][-9:] for line in log(text=text)]

    assert ends(BOARD) == ["HubKeeper Net|is :16384", "|ux board\n", "key: <key> va|value: /a", "RemoteCommand|cho \x1b[31m",
                           "|: forged]", "bad opcode: <|pcode: 29", "Clocksteward | disabled", "|ailed sen"]
    assert ends(JOURNAL) == ["|Started x", "HubKeeper fai|und queue", "In From Ridge|on device", "RemoteCommand|and [a\nb]", "|on[8]: b]"]
    assert ends(JOURNAL.replace("] \n", "]\n")) == ends(JOURNAL)
    long, = log(text=f"ERROR {AT}4 bad opcode: {'x' * 3_000_000} \n")
    assert len(long["message"]) + long["leftOut"] == 3_000_013 and len(long["message"]) < 70_000 and long["kind"] is None


def test_shown():
    BACKUP.write_text(f"INFO {AT}0 the backup \n" * 3)
    LOG.write_text(BOARD)
    pathlib.Path("/tmp/journal").write_text(JOURNAL)
    pathlib.Path("/tmp/loop").write_text("".join(f"ERROR {AT}{i} service /{i % 2} \n" for i in range(9)) + f"INFO {AT}9 end \n")
    pathlib.Path("/tmp/services").write_text("".join(f"ERROR {AT}{4 + number} HubKeeper: service /{name} has stopped running \n"
                                                     for number, name in enumerate([2, 1, 1])) + f"INFO {AT}9 end \n")
    pathlib.Path("/tmp/bytes").write_bytes(random.Random(1).randbytes(1_000_000))
    play(r"""
0 | ^(INFO \S+ \S+ \S+ \S+ the backup\n){3}ERROR.*:16384\nINFO .*Linux board\n\nINFO .*echo \.\[31m\n.*Failed sen\n$ | hubctl log
0 | \x1b\[2mERROR[^\n]*:16384\r?\n?\x1b\[0m.*\x1b\[31mERROR[^\n]*: 29\r?\n?\x1b\[0m.*\x1b\[33mWARN | TERM=xterm script -qec 'hubctl log' /dev/null
0 | ^ERROR.*/0\nERROR.*/1\nERROR.*/0\nERROR.*/1\n +these 2 lines 2 times more, 22 Nov 2026 21:51:04 to 21:51:07\nERROR.*/0\nINFO[^\n]*end\n$ | hubctl log loop
0 | 4 times more, 22 Nov 2026 21:51:02 to 21:51:05\n$ | for i in 0 1 2 3 4 5; do printf 'ERROR 22 Nov 2026 21:51:0%d x \ncomplaint\n' $i; done | hubctl log -
0 | ^perror +msgget                      | hubctl explain 'Nov 22 21:51:04 board hubkeeper[57]: msgget: No space left on device'
0 | ^WARN[^\n]*\nERROR[^\n]*sen\n$       | hubctl log --since "22 Nov 2026 21:51:03"
0 | ^ERROR[^\n]*16384\nERROR[^\n]*99\nmsgget: forged\]\nERROR[^\n]*29\nWARN[^\n]*\n$ | hubctl log --priority warn | grep -v sen$
0 | ^3\n0\n1\n                           | hubctl log --since 2026-11-22T21:51:02 | wc -l; sed s/2026/2019/ /media/data/messages.log | hubctl log --since 1m - | wc -l; LC_ALL=C date '+INFO %d %b %Y %T now ' | hubctl log --since 1m - | wc -l
0 | ^1\n$                                | hubctl log loop loop | grep -c end
0 | ^[^\n]*16384\n[^\n]*\[31m\n[^\n]*99\n[^\n]*\n[^\n]*29\n$ | hubctl log --grep '16384|echo|bad opcode|forged$'
0 | ^Nov[^\n]*outbound queue\nNov[^\n]*No space left on device\n$ | hubctl log --priority ERROR - <journal
0 | 2  ERROR .*:51:05 .*:51:06  HubKeeper: service /1 has stopped.*1  ERROR .*service /2 has.*1  INFO .*not in the cat | hubctl log --summary services
0 | ^0\n0\n                              | hubctl log bytes | LC_ALL=C grep -cP '[^\t\n -~\x80-\xFF]'; hubctl log bytes | iconv -f utf8 >x && echo $?
0 | ^ +199934464 bytes more\n$            | head -c 200000000 /dev/zero | ([ $SANITIZED ] || ulimit -v 200000; hubctl log -) | tail -n 1
1 | cannot read /nowhere: No such        | hubctl log /nowhere
1 | cannot read /media: Is a directory   | hubctl log /media
2 | "yesterday" is no time               | hubctl log --since yesterday
2 | "2026-02-30" is no time              | hubctl log --since 2026-02-30
2 | no priority "LOUD"                   | hubctl log --priority loud
2 | --grep \(: Unmatched                 | hubctl log --grep '('
2 | --explain is for people              | hubctl log --explain --json
0 | ^ERROR  bad opcode: <opcode>\n  means  No route.*\n  to do  Mend the sender | hubctl explain bad opcode: 29
0 | ^perror  fopen\n                     | hubctl explain 'fopen: Permission denied'
0 | ^INFO  Ridgelink --> HubKeeper       Q | hubctl explain INFO 22 Nov 2026 21:51:04 Ridgelink '-->' HubKeeper Queue ID: 7
0 | ^ERROR  HubKeeper failed to open outb | sed -n 2p journal | hubctl explain
1 | no message of the catalogue          | hubctl explain INFO 22 Nov 2026 21:51:04 bad opcode: 29
1 | no message of the catalogue          | hubctl explain <bytes
2 | LINE is required                     | script -qec 'hubctl explain' /dev/null
2 | --bogus is no option                 | hubctl explain --bogus
""")


def test_follows_over_rolls():
    with start("log", "-f") as follower:
        due = []
        for number in range(4):
            due += [f"INFO {AT}{number} first\n", f"INFO {AT}{number} half of {number}\n"]
            LOG.write_text(f"INFO {AT}{number} first \nINFO {AT}{number} half")
            if number == 1:
                assert follower.stdout.readline() == due.pop(0)
            with LOG.open("a") as more:
                more.write(f" of {number} \n")
            while due and number != 2:  # rolled twice, faster than anybody looks
                assert follower.stdout.readline() == due.pop(0)
            LOG.rename(BACKUP)
        for line in f"INFO {AT}8 a long line \n", f"INFO {AT}9 emptied \n":
            LOG.write_text(line)
            assert follower.stdout.readline() == line.replace(" \n", "\n")
        follower.terminate()


WATCHED = ("netsteward", "clocksteward")
CONFIG = pathlib.Path("/etc/qd/svcmanager.conf")
ENTRIES = "".join(f"service=/usr/local/bin/{name}\n" for name in WATCHED)
READER = "import sys, sysv_ipc; queue = sysv_ipc.MessageQueue(int(sys.argv[1]))\nwhile queue.receive(): pass"
TOOL = shutil.which("promtool", path=f"{os.environ['PATH']}:{TOP}/.cache/prometheus/usr/bin")
ALL_USERS = open("/proc/self/uid_map").read().split()[2] != "1"


class Board:
    """A board that is well, but for what `prepare`, a shell command, has done before the start of its service."""

    def __init__(self, prepare, left):
        CONFIG.write_text(ENTRIES)
        self.left = left
        for letter in "ICLSR":
            sysv_ipc.MessageQueue(KEYS[letter], sysv_ipc.IPC_CREX, 0o644)
        pathlib.Path("/proc/sys/kernel/msgmnb").write_text("10485760")  # for Netsteward's queue, which is made now
        shell(prepare)
        self.others = {name: self.run(left, f"/usr/local/bin/{name}") for name in WATCHED
                       if shutil.copy(os.environ["IDLE_SERVICE"], f"/usr/local/bin/{name}")}
        self.hub = left.enter_context(Hub("10", ready=False))
        until(lambda: any("--> Ridgelink" in line for line in self.hub.console()))
        self.others.update({letter: self.run(left, "/usr/bin/python3", "-c", READER, str(KEYS[letter])) for letter in "NCLSR"})
        put(b"".join(map(text, ("01", "20", "30"))))  # Stagehand alone has never read anything
        until(lambda: all(who["waiting"] and (who["reader"] or who["name"] == "stagehand") for who in self.status()[1]["queues"]))

    def run(self, left, *words):
        process = left.enter_context(subprocess.Popen(words, stderr=subprocess.DEVNULL))  # a reader complains when its queue goes
        left.callback(process.kill)
        return process

    def status(self):
        done = subprocess.run(["hubctl", "status", "--json"], capture_output=True, text=True, timeout=60)
        assert not done.stderr, done.stderr
        return done.returncode, json.loads(done.stdout)

    def end(self, name, how=signal.SIGKILL):
        self.others[name].send_signal(how)
        os.waitid(os.P_PID, self.others[name].pid, os.WEXITED | os.WSTOPPED | os.WNOWAIT)

    def fill(self, letter):
        self.end(letter, signal.SIGSTOP)
        for _ in range(3):
            put(text('30"x{500}"') * 16)

    def off(self):
        """Lines that a command forges change nothing, also where they look like a new start."""
        put(text("75"))
        self.end("C")  # as the service has it killed, which looks for its name
        put(text(f'63"true\\0aINFO {AT}0 HubKeeper version: 9 \\0aINFO {AT}0 Clocksteward application has been enabled \\00"'))
        put(text('63"true' + f"\\0aERROR {AT}0 HubKeeper: service /usr/local/bin/netsteward has stopped running " * 3 + '\\00"'))

    def disown(self):
        one = queue("L")
        if ALL_USERS:
            one.uid = 1234
        one.mode = 0o644 if ALL_USERS else 0o666


# What status finds, a part of the next step, what is done before the service starts, and to the board that is well.
TROUBLES = (
    ("", "", "", None),
    ("peer-gone chronicler", "start Chronicler", "", lambda board: board.end("L")),
    ("peer-gone ridgelink", "start Ridgelink", "", lambda board: board.end("R")),
    ("queue-full chronicler", "kill -CONT", "", lambda board: board.fill("L")),
    ("service-loop /usr/local/bin/ends", "by hand .*bin/ends", f"cp /bin/true /usr/local/bin/ends; echo service=/usr/local/bin/ends >>{CONFIG}", None),
    ("entry-trap 4", "check-config", f"printf '# x\\nservice=/x\\n' >>{CONFIG}", None),
    ("directory-missing /media/data", "mkdir", "rmdir /media/data", None),
    ("directory-missing /media/data", "mkdir", "", lambda board: shell("rm -r /media/data")),
    ("log-not-open", "restart", "rmdir /media/data", lambda board: os.mkdir("/media/data")),
    ("disk-full /media/data", "du -ax /media/data", "rmdir /media/data; ln -s /media/small /media/data",
     lambda board: shell("cat /dev/zero >/media/small/rest")),
    ("hub-stopped", "start hubkeeper", "", lambda board: (board.hub.process.kill(), board.hub.wait())),
    ("hub-busy note", "kill -9 [0-9]+, if", "", lambda board: put(text('63"sleep 100\\00"'))),
    ("hub-rival", "ps -o", "", lambda board: board.run(board.left, *os.environ["HUBKEEPER"].split())),
    ("hub-frozen", "kill -CONT [0-9]", "", lambda board: board.hub.stop()),
    ("clocksteward-off", "hubctl clocksteward on", "", lambda board: board.off()),
    ("queue-owner chronicler", "ipcrm -q [0-9]", "", lambda board: board.disown()),
    ("queue-small stagehand", "ipcrm -q [0-9]", "", lambda board: setattr(queue("S"), "max_size", 500)),
    ("queue-removed stagehand", "restart hubkeeper", "", lambda board: queue("S").remove()),
    ("no-configuration", "man svcmanager.conf", f"rm {CONFIG}", None),
    ("debug-on", "remove that line", f"echo debug=true >>{CONFIG}", None),
    ("limits-low", "sysctl -w kernel.msgmnb=10485760", "echo 16384 >/proc/sys/kernel/msgmnb", None),
    ("log-start-unknown", "restart hubkeeper", "", lambda board: LOG.write_text("")),
)


def differences(metrics, facts):
    """Between what was printed for Prometheus and what status said a moment before."""
    if TOOL:
        done = subprocess.run([TOOL, "check", "metrics"], input=metrics, capture_output=True, text=True)
        assert done.returncode == 0 and not done.stdout + done.stderr, done.stdout + done.stderr
    found = dict(line.rsplit(" ", 1) for line in metrics.splitlines() if not line.startswith("#"))
    same = [(found["hubkeeper_well"], int(facts["verdict"] == "well")),
            (found["hubkeeper_up"], int(facts["service"]["doing"] in ("waiting", "working"))),
            (found.get("hubkeeper_busy", 0), int(facts["service"]["command"] is not None))]
    for one in facts["queues"]:
        same.append((found.get('hubkeeper_queue_messages{queue="%s"}' % one["name"]), one["messages"] if one["exists"] else None))
        if one["name"] == "chronicler" and one["exists"]:
            same.append((found.get('hubkeeper_send_failures_total{queue="chronicler"}', 0), one["lost"]["atLeast"]))
    same.append(([line for line in found if line.startswith("hubkeeper_trouble")], [
        'hubkeeper_trouble{name="%s",subject="%s"}' % (one["name"], one["subject"])
        for one in facts["findings"] if one["grade"] == "trouble"]))
    return [(metric, fact) for metric, fact in same if str(metric) != str(fact)]


def test_who_sees_less():
    """A plain user sees what he may; in a container it is not said that the service is gone."""
    with contextlib.ExitStack() as left:
        Board("", left)
        shutil.copy(os.environ["HUBCTL"], "/run/hubctl")
        if ALL_USERS:
            see(0, "^HubKeeper is well, as far as this user .*Only root sees", "setpriv --reuid=1234 /run/hubctl status")
            see(0, r"^HubKeeper is well, as far as .* no more is seen.*\nclock .* is not seen.*netsteward  not seen.*Only root sees",
                "mount -t proc -o hidepid=2 none /proc && setpriv --reuid=1234 --regid=1234 --clear-groups /run/hubctl status; s=$?; umount /proc; exit $s")
        CONFIG.unlink()
        see(1, r"^HubKeeper is unknown\n! .*in another PID namespace", "unshare --user --map-root-user --pid --fork /run/hubctl status")


def test_alert_rules():
    if not TOOL:
        pytest.skip("no promtool: scripts/prometheus promtool fetches it")
    assert "SUCCESS" in shell(f"cd {TOP}/packaging/fleet && {TOOL} test rules hubkeeper.test.yml")
    known = set(re.findall(r'"([a-z_]+)", "(?:gauge|counter)"', (TOP / "tools/hubctl/commands/metrics.cpp").read_text()))
    used = set(re.findall(r"\bhubkeeper_([a-z_]+)", (TOP / "packaging/fleet/hubkeeper.rules.yml").read_text()))
    assert used and used <= known


@pytest.mark.parametrize("due, step, prepare, harm", TROUBLES, ids=[row[0] or "well" for row in TROUBLES])
def test_status_names_the_trouble(due, step, prepare, harm):
    if EXTRA_THREAD and due == "hub-busy note":
        pytest.skip("the sanitizer's thread stands where the one with the command would")
    with contextlib.ExitStack() as left:
        board = Board(prepare, left)
        if harm:
            harm(board)
        note = due.endswith(" note")
        due = [due.removesuffix(" note")] if due else []
        seen = [None]

        def found():
            seen[:] = board.status()
            return [f"{one['name']} {one['subject']}".strip() for one in seen[1]["findings"]] == due and seen

        try:
            status, facts = until(found)
        except AssertionError as error:
            raise AssertionError(seen[1]["findings"]) from error
        assert (status, facts["verdict"]) == ((0, "well") if note or not due else (1, "not well"))
        assert all(re.search(step, one["step"]) for one in facts["findings"]), facts["findings"]
        screen = see(status, f"^HubKeeper is {'not well: 1 trouble' if status else 'well'}\r\n",
                     "NO_COLOR=1 script -qec 'stty cols 80; hubctl status' /dev/null").split("\r\n")
        assert max(map(len, screen)) <= 80 and len(screen) < 25 and len([line for line in screen if "->" in line]) == len(due), screen
        until(lambda: not differences(shell("hubctl metrics --write /tmp/hub.prom; cat /tmp/hub.prom"), board.status()[1]))


def test_completion():
    """bash offers what the help shows."""
    def offered(*words):
        return shell(f"""bash -c '. {TOP}/packaging/completion/hubctl.bash; COMP_WORDS=(hubctl {" ".join(words)}) COMP_CWORD={len(words)}
            _hubctl hubctl; printf "%s\\n" "${{COMPREPLY[@]}}"'""").split()

    names = offered('""')
    assert set(names) == set(re.findall(r"(?m)^  ([a-z]\S+)  ", shell("hubctl help"))) | {"help"} and len(names) > 14
    for name in set(names) - {"help"}:
        shown = set(re.findall(r"(?:^ +|, ?| or )(--?[a-z]\S*?)(?=[ ,\n])", shell(f"hubctl help {name}"), re.M))
        assert set(offered(name, "-")) == shown != set(), name
    for words, reply in (("trace --queue = n", "netsteward"), ("log --priority E", "ERROR"), ("help expl", "explain"),
                         ("clocksteward o", "on off"), ("peers -n 3 r", "")):
        assert offered(*words.split()) == reply.split(), words
