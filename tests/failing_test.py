"""Calls of the unmodified service that fail: which lines tell of it, and that it ends or goes on with nothing left over.

strace(1) makes the n-th call of one thread fail. Behind the rules, "CALL:ERROR[:N]" each, stands a row as Hub.play takes it.
"""
import contextlib, os, pathlib, re, subprocess

import pytest
from board import PATIENCE, Hub, like, mounted, put, shell, take, text, texts, until

LOG, BACKUP, FULL = pathlib.Path("/media/data/messages.log"), pathlib.Path("/media/data/messages.log.1"), 10485760

INBOUND = r"""
msgsnd:EAGAIN:1                | 04 | 80"\00{507}" | E ..Failed bouncing to Ridgelink
msgsnd:EIDRM:1 msgget:ENOSPC:1 | 04 |              | E ..Failed bouncing to Ridgelink | E ..: In From Ridgelink queue setup failed
                                                   | E ..: Send Heartbeat to ridgelink failed
msgsnd:EINVAL:2                | 04 | .04          | E ..: Send Heartbeat to ridgelink failed
msgsnd:EIDRM:2 msgget:ENOMEM:1 | 04 fd | .04       | E ..: Send Heartbeat to ridgelink failed | E ..: In From Ridgelink queue setup failed
                                                   | E ..: Failed bouncing to Ridgelink | E bad opcode: fd
msgsnd:EFAULT:2                | 30 | .30          | E ..: Failed sending to Chronicler
msgsnd:ENOMEM:2 msgget:EACCES:1 | 30 | .30         | E ..: Failed sending to Chronicler | E ..: Failed to recreate msgque to Chronicler
msgsnd:EINTR:2                 | 01 | .01          | E ..: Failed sending to Netsteward
msgsnd:EACCES:2 msgget:ENOMEM:1 | 01 | .01         | E ..: Failed sending to Netsteward | E ..: Failed msgget after comm error
msgsnd:EINTR:2 msgget:ENOSPC:1 | 20 01 | .20 .01 N 01 | E ..: Failed sending to Clocksteward | E ..: Failed getting message que handle for PTP
msgsnd:EAGAIN:2                | 60 | .60          | I ..: SD Card version: v1 of size 2
msgsnd:EAGAIN:2 msgget:EACCES:1 | 60 fd | .60         | I ..: SD Card version: v1 of size 2 | E In From Ridgelink queue setup failed
                                                   | E ..: failed sending to Ridgelink | msgsnd to Ridgelink: Permission denied
                                                   | E ..: Failed bouncing to Ridgelink | E bad opcode: fd
msgsnd:EAGAIN:2                | 63"echo a\00" | .63 | I ..[echo a] | E ..: Failed sending to Ridgelink
msgsnd:EIDRM:2 msgget:ENOENT:1 | 63"echo a\00" fd | .63 | I ..[echo a] | E ..: Failed sending to Ridgelink | E In From Ridgelink queue setup failed
                                                   | E ..: Failed bouncing to Ridgelink | E bad opcode: fd
msgsnd:EAGAIN:2 msgget:ENOSPC:1 | 70"tmp/f " 71"x" 72 | .70 .71 .72 | E ..: Failed sending to Stagehand | E ..: Out to stagehand queue setup failed
                                                   | E ..: Failed sending to Stagehand
msgsnd:EAGAIN:5 msgget:ENOSPC:1 | 70"tmp/f " 71"x" 72 | .70 .71 .72 S 70"tmp/f " | E ..: Failed sending to Stagehand | E Out to stagehand queue setup failed
msgrcv:EINTR:1                 | 04 | .04 80"\00{507}" | E ..msgrcv inbound failed, sizeReceived = -1
msgrcv:EACCES:1..3             | 04 | .04 80"\00{507}" | E ..sizeReceived = -1 | E ..sizeReceived = -1 | E ..sizeReceived = -1
msgrcv:EIDRM:1 msgget:ENOSPC:1 | 04 | .04 80"\00{507}" | E ..sizeReceived = -1 | E Failed recreating the que | E ..sizeReceived = -1
msgrcv:EINVAL:1 msgget:EMFILE:1..2 | 04 | .04 80"\00{507}" | E ..= -1 | E Failed recreating the que | E ..= -1 | E Failed recreating the que | E ..= -1
msgrcv:E2BIG:1                 | 04 | .04 80"\00{507}" | E ..sizeReceived = -1
msgrcv:E2BIG:1..2              | 04 | .04 80"\00{507}" | E ..sizeReceived = -1
msgrcv:ENOMEM:2                | 04 01 | .04 80"\00{507}" .01 N 01 | E ..sizeReceived = -1
openat:EACCES:1                | 70"tmp/f " | .70 exit | E ..: Failed to open file for transfer | fopen: Permission denied
openat:EMFILE:1                | 70"tmp/f " 71"x" | .70 exit | E ..: Failed to open file for transfer | fopen: Too many open files
openat:ENOSPC:1                | 04 70"tmp/f " | .04 80"\00{507}" .70 exit | E ..: Failed to open file for transfer | fopen: No space left on device
fcntl:EBADF:2                  | 70"tmp/f " 71"x" 72 | .70 .71 .72 S 70"tmp/f " 72 | E ..: Tried to write bad app file
fcntl:EBADF:3                  | 70"tmp/f " 71"x" 72 72 | .70 .71 .72 .72 S 70"tmp/f " 72 72 | E ..: Tried to close bad app file
write:ENOSPC:1                 | 70"tmp/f " 71"x{500}" 72 | .70 .71 .72 S 70"tmp/f " 72
write:EIO:2                    | 70"tmp/f " 71"x{5000}" 72 | .70 .71 .72 S 70"tmp/f " 72
close:EIO:1                    | 70"tmp/f " 71"x" 72 | .70 .71 .72 S 70"tmp/f " exit | E ..: Failed to close file
close:ENOSPC:1                 | 70"tmp/f " 72 04 | .70 .72 S 70"tmp/f " exit | E ..: Failed to close file
lseek:EIO:1                    | 70"tmp/f " 71"x" 72 | .70 .71 .72 S 70"tmp/f " 72
newfstatat:ENOMEM:1            | 70"tmp/f " 71"x" 72 | .70 .71 .72 S 70"tmp/f " 72
clock_nanosleep:EINTR:1        | 70"tmp/f " 72 | .70 .72 S 70"tmp/f " 72
clone3:EAGAIN:1 | 63"echo a\00" | .63 | I ..[echo a] | E ..: unable to open /tmp/cmdresp.txt
mmap:ENOMEM:1                  | 63"echo a\00" | .63 | I ..[echo a] | E ..: unable to open /tmp/cmdresp.txt
wait4:EINTR:1..3               | 63"echo a\00" | .63 90"a\0a" | I ..[echo a]
rt_sigaction:EINVAL:1          | 63"echo a\00" | .63 90"a\0a" | I ..[echo a]
rt_sigprocmask:EINVAL:1        | 63"echo a\00" | .63 90"a\0a" | I ..[echo a]
openat:ENFILE:1                | 63"echo a\00" | .63 | I ..[echo a] | E ..: unable to open /tmp/cmdresp.txt
newfstatat:EOVERFLOW:1         | 63"echo a\00" | .63 90"a\0a" | I ..[echo a]
read:EIO:1                     | 63"echo a\00" | .63 90 | I ..[echo a] | E ..: unable to read /tmp/cmdresp.txt
read:EISDIR:1                  | 60 | .60 88 | E ..: unable to read version file
openat:EMFILE:1..2             | 60 | .60 88 | E ..: unable to open /etc/build-version | E ..: unable to open /etc/os-release | E ..: Failed to open both /etc/os-release and /etc/build-version. Sending empty packet
clone3:ENOMEM:1 | 75 76 | .75 .76 | W ..disabled | W ..enabled
"""
# What a full log's backup and then the new file hold, with the Packet that finds it full as the first one.
ROLL = """
write:ENOSPC:1  | ff    | fd fc
write:EIO:2     |       | fd fc
lseek:EIO:1     | ff fd | fc
unlink:EROFS:1  | ff    | fd fc
rename:EACCES:1 | ff fd | fc
openat:EMFILE:1 | ff    |
"""
# Lines of a start, among others, which is its end or not.
START = """
msgget:ENOMEM:1                 | E ..failed to open inbound message queue | msgget: Cannot allocate memory | exit
msgget:EACCES:6                 | E ..failed to open outbound queue | In From Ridgelink queue setup failed: Permission denied | exit
msgctl:EPERM:2                  | E ..failed to be adjusted: Operation not permitted | I uname
msgctl:EIO:1                    | E ..failed to get Netsteward msg queue stats | I uname
sched_get_priority_max:EINVAL:1 | E ..thread priority failed | sched_get_priority_max failed: Invalid argument | exit
clone3:EAGAIN:1                 | E ..failed to create inbound thread | pthread_create inbound failed: Resource temporarily unavailable | exit
clone3:EAGAIN:2                 | E ..failed to create monitor thread | pthread_create monitor failed: Resource temporarily unavailable | exit
clock_nanosleep:EINVAL:3        | E ..clock_nanosleep failed for main | exit
pipe2:EMFILE:1                  | E ..Failed to run command uname -a | I fw_printenv
pipe2:ENFILE:2                  | I uname | E ..Failed to run command fw_printenv -n ver
openat@/media/data/messages.log:ENOSPC:1 | I uname | I fw_printenv
openat@/usr/local/bin/AppVersionFile.txt:EROFS:1 | E ..opening version file: /usr/local/bin/AppVersionFile.txt | I fw_printenv
openat@bad_file:EACCES:1     | I fw_printenv
"""


def injector(rules):
    words = ["strace", "-qq", "-o", "/tmp/strace"]
    for call, path, error, when in re.findall(r"(\w+)(?:@(\S+))?:(\w+):(\S+)", rules):
        words += ["-e", f"inject={call}:error={error}:when={when}"] + ["-P", path] * bool(path)
    return words


def held(hub):
    return sorted(os.listdir(f"/proc/{hub.pid}/fd")), shell(f"pgrep -P {hub.pid}")


def rows(table):
    lines = re.sub(r"\n +\|", " |", table).strip().split("\n")
    return pytest.mark.parametrize("rules, row", [re.split(r"\s*\|\s*", line, maxsplit=1) for line in lines])


@contextlib.contextmanager
def served(rules):
    """A hub; the calls of its inbound thread fail by these rules as long as it lasts, and then it answers."""
    with Hub() as hub:
        inbound = os.listdir(f"/proc/{hub.pid}/task")[1]
        tracer = subprocess.Popen([*injector(rules), "-p", inbound])
        until(lambda: f"TracerPid:\t{tracer.pid}\n" in open(f"/proc/{inbound}/status").read())
        yield hub
        tracer.terminate(), tracer.wait(), hub.said()
        hub.play(r'04 | .04 80"\00{507}"')


@rows(INBOUND)
def test_the_inbound_thread(rules, row):
    shell("printf v1 >/etc/build-version")
    with served(rules) as hub:
        before = held(hub)
        hub.play(row)
        assert "(INJECTED)" in open("/tmp/strace").read() and held(hub) == before


@rows(ROLL)
def test_a_full_log(rules, row):
    with served(rules) as hub:
        with open(LOG, "ab") as log:
            log.write(FULL * b"x")
        put(b"".join(texts("ff fd fc")))
        until(lambda: take("R")[-1:] == [b"\xfc"])
        for file, wanted in zip((BACKUP, LOG), row.split("|")):
            until(lambda: re.findall("bad opcode: (f[^e]) \n", open(file).read() if os.path.exists(file) else "") == wanted.split())


@rows(START)
def test_a_start(rules, row, monkeypatch):
    shell("cd /usr/local/bin; printf '#!/bin/sh\necho ${0##*/}\n' | tee uname >fw_printenv; chmod +x *")
    monkeypatch.setenv("HUBKEEPER", " ".join([*injector(rules), "-f", "-D", os.environ["HUBKEEPER"]]))
    *wanted, last = re.split(r"\s*\|\s*", row)
    wanted += [last] * (last != "exit")
    with Hub(ready=False) as hub:
        def found():
            return [line for line in hub.console() if any(like(line, want) for want in wanted)]
        assert last != "exit" or hub.wait(PATIENCE) == 1
        until(lambda: len(found()) >= len(wanted))
        assert all(map(like, found(), wanted)) and len(found()) == len(wanted), found()
        assert "(INJECTED)" in open("/tmp/strace").read()
        if last != "exit":
            hub.settle(), take("R")
            hub.play(r'04 | .04 80"\00{507}"')
            assert len(os.listdir(f"/proc/{hub.pid}/fd")) <= 5 and not shell(f"pgrep -P {hub.pid}")


@pytest.mark.parametrize("attempt", range(3))
def test_a_roll_from_both_threads(attempt):
    """The lines of each stand once and in their order in both files together, as on the console, which does not roll."""
    pathlib.Path("/etc/qd/svcmanager.conf").write_text("".join(f"service=/nowhere/{number}\n" for number in range(30)))
    LOG.write_bytes((FULL - 20000) * b"x" + b"\n")
    marks = b" bad opcode: ", b" service /nowhere/"

    def lines(file, mark):
        return [line for line in file.read_bytes().split(b"\n") if mark in line] if file.exists() else []

    with Hub("0", ready=False, stderr=subprocess.DEVNULL) as hub:  # where the shells complain
        until(lambda: put(b"".join(text(f"{opcode:02x}") for opcode in range(0x78, 0xA0))) or take("R")
              and all(lines(file, mark) for file in (BACKUP, LOG) for mark in marks))
        hub.settle()
    for mark in marks:  # the console has the last line a moment earlier
        once, wanted = lines(BACKUP, mark) + lines(LOG, mark), lines(pathlib.Path("/tmp/console"), mark)
        assert once in (wanted, wanted[:-1]) and len(once) > 20


@pytest.mark.parametrize("size, filled", [(-4096, -8192), (4096, 4096), (12288, 0)], ids=["before", "during", "after"])
def test_a_roll_on_a_full_disk(size, filled):
    """The console tells all, no answer is missing, and the log goes on where there is room again."""
    with mounted(f"size={FULL + size}", LOG.parent):
        LOG.write_bytes((FULL + filled) * b"x")
        with Hub() as hub:
            put(1600 * text("ff"))
            hub.play(r'04 | ' + 1600 * ".ff " + r'.04 80"\00{507}"' + 1600 * " | E bad opcode: ff")
            assert BACKUP.exists() == (filled >= 0) and open(LOG).read().count("opcode: ff") < 1600
            shell(f"mount -o remount,size=100m none {LOG.parent}")
            hub.play("fd | .fd | E bad opcode: fd")
            assert re.search(r"bad opcode: fd \n", open(LOG).read())
