"""Harm done to the unmodified service, one after the other: what still holds stands in docs/reliability.md.

Those marked long are left out unless asked for: pytest -m long.
"""
import contextlib, ctypes, glob, os, time
from resource import RLIMIT_AS, RLIMIT_NOFILE, prlimit

import pytest, sysv_ipc
from board import KEYS, Hub, mounted, put, queue, shell, take, text, until

REQUESTS = {"N": "01", "C": "20", "L": "30", "S": "72", "R": "04"}
PTRACE_ATTACH, PTRACE_DETACH, WALL = 16, 17, 0x40000000
LOG = "/media/data/messages.log"
BAD, CHUNK, END = text("ff"), text('71"x{3000}"'), text("72")
START = text(r'70"tmp/file\00"')


def serves(hub):
    """A heartbeat is answered, each peer gets its Packet, and nothing is left over from before."""
    put(b"".join(map(text, ("04", "01", "20", "30"))))
    hub.settle()
    for letter in KEYS:
        take(letter)
    hub.play(r'04 01"ok" 20"ok" 30"ok" | .04 80"\00{507}" .01 .20 .30 N 01"ok" C 20"ok" L 30"ok"')


def harm(*rows, long=()):
    """A harm with each row of arguments; it is given a hub that serves, which has to serve again at the end."""
    def bind(check):
        def test(row):
            with Hub() as hub:
                serves(hub)
                check(hub, *row)
                serves(hub)
        marks = [pytest.param(row, id=" ".join(map(str, row)) or "-") for row in rows or [()]]
        return pytest.mark.parametrize("row", marks + [pytest.param(row, id=str(row[0]), marks=pytest.mark.long) for row in long])(test)
    return bind


@harm(*KEYS)
def test_queue_removed_while_blocked(hub, letter):
    queue(letter).remove()
    if letter != "I":
        put(text(REQUESTS[letter]))
    until(lambda: any("Failed" in line or line.endswith("sizeReceived = -1") for line in hub.console()))


@harm()
def test_all_queues_removed_in_use(hub):
    for letter in [*KEYS] * 200:
        with contextlib.suppress(sysv_ipc.Error):
            queue("I").send(b"".join(map(text, "04 04 01 20 30".split())), block=False)
        with contextlib.suppress(sysv_ipc.ExistentialError):
            queue(letter).remove()
    until(lambda: any(row.split()[0] == "1002" for row in open("/proc/sysvipc/msg")))


@harm(*((letter, 40, 0) for letter in "NCLR"), long=[(letter, 1200, 0.1) for letter in "NCLR"])
def test_queue_full(hub, letter, packets, pause):
    with contextlib.suppress(sysv_ipc.BusyError):
        while True:
            queue(letter).send(b"x", block=False)
    other = "L" if letter == "N" else "N"
    for _ in range(packets):
        put(text(REQUESTS[letter]) + text(REQUESTS[other]))
        take(other, 1)
        take("R") if letter != "R" else None
        time.sleep(pause)
    assert sum("last logged occurance" in line for line in hub.console()) == 1
    take(letter)
    serves(hub)
    assert sum("estored" in line or "recovered" in line for line in hub.console()) == 1


@harm(("R", "In From Ridgelink queue setup failed"), ("I", "Failed recreating the que"))
def test_no_queue_left(hub, letter, line):
    shell(f"echo {len(KEYS) - 1} >/proc/sys/kernel/msgmni")
    queue(letter).remove()
    put(text("04")) if letter != "I" else None
    until(lambda: any(line in one for one in hub.console()))
    shell(f"echo {len(KEYS)} >/proc/sys/kernel/msgmni")
    until(lambda: len(open("/proc/sysvipc/msg").readlines()) == 1 + len(KEYS) or put(text("04")))


@pytest.mark.parametrize("options, repair", [("", ""), ("ro", ""), ("size=16k", "mount -o remount,size=1m none /media/data")])
def test_log_directory(options, repair):
    with mounted(options, "/media/data") if options else contextlib.nullcontext(os.rmdir("/media/data")):
        with Hub() as hub:
            put(BAD * 1600)
            serves(hub)
            shell(repair)
            put(text("fd"))
            serves(hub)
            assert hub.console().count("ERROR bad opcode: ff") == 1600
            assert not repair or "bad opcode: fd" in open(LOG).read()


@pytest.mark.parametrize("descriptors", [[1], [0, 1, 2]], ids=str)
def test_standard_descriptors_closed(descriptors):
    with Hub(log=LOG, preexec_fn=lambda: [os.close(number) for number in descriptors]) as hub:
        put(END + START + BAD + END)
        take("S", 3)
        hub.settle()
        assert os.path.getsize("/tmp/file") == os.path.getsize("/run/bad_file") == 0 and open(LOG).read().count("opcode: ff") == 1
        assert {os.readlink(f"/proc/{hub.pid}/fd/{number}") for number in descriptors} == {"/dev/null"}
        assert {hub.flags(number) & (os.O_ACCMODE | os.O_CLOEXEC) for number in descriptors} == {os.O_RDWR}
        take("R")
        serves(hub)


def test_standard_output_unread():
    read, write = os.pipe()
    with Hub(log=LOG, stdout=write) as hub:
        for _ in range(60):
            put(BAD * 40)
        until(lambda: any("pipe_write" in open(path).read() for path in glob.glob(f"/proc/{hub.pid}/task/*/wchan")))
        os.set_blocking(read, False)  # the thread waits for the reader, who now comes
        with contextlib.suppress(BlockingIOError):
            until(lambda: os.read(read, 65536) and hub.console().count("ERROR bad opcode: ff") == 2400)
        serves(hub)
        assert hub.console().count("ERROR bad opcode: ff") == 2400


@harm()
def test_tmp_full(hub):
    with mounted("size=8k", "/tmp"):
        shell("head -c 1M /dev/zero >/tmp/filler")
        hub.play(r'63"echo ok\00" | .63 90 | I ..echo ok] | E ..read /tmp/cmdresp.txt')
        os.remove("/tmp/filler")
        hub.play(r'63"echo ok\00" | .63 90"ok\0a" | I ..echo ok]')


def resident(hub):
    return int(open(f"/proc/{hub.pid}/statm").read().split()[1]) * os.sysconf("SC_PAGESIZE")


@harm((10,), long=[(1024,)])
def test_command_that_prints_megabytes(hub, megabytes):
    before = resident(hub)
    hub.play(rf'63"head -c {megabytes}M /dev/zero\00" | .63 90"\00{{507}}" | I ..head -c {megabytes}M /dev/zero]')
    assert resident(hub) < before + (1 << 20)


@harm()
def test_descriptor_limit(hub):
    prlimit(hub.pid, RLIMIT_NOFILE, (len(os.listdir(f"/proc/{hub.pid}/fd")), 4096))
    hub.play("60 | .60 88 | E ..open /etc/build-version | E ..open /etc/os-release | E ..Sending empty packet")
    put(text(r'63"true\00"'))
    assert hub.settle()[-1] == "ERROR HubKeeper: unable to open /tmp/cmdresp.txt"
    prlimit(hub.pid, RLIMIT_NOFILE, (4096, 4096))


@harm()
def test_memory_limit(hub):
    size = int(open(f"/proc/{hub.pid}/statm").read().split()[0]) * os.sysconf("SC_PAGESIZE")
    prlimit(hub.pid, RLIMIT_AS, (size, size))
    put(BAD * 1600 + text(r'63"true\00"'))


def attach(hub):
    for thread in map(int, os.listdir(f"/proc/{hub.pid}/task")):
        assert ctypes.CDLL(None).ptrace(PTRACE_ATTACH, thread, 0, 0) == 0 and os.waitpid(thread, WALL)


def detach(hub):
    for thread in map(int, os.listdir(f"/proc/{hub.pid}/task")):
        assert ctypes.CDLL(None).ptrace(PTRACE_DETACH, thread, 0, 0) == 0


@harm((Hub.stop, Hub.go_on), (attach, detach))
def test_interrupted(hub, halt, resume):
    for _ in range(50):
        halt(hub)
        put(text("04") * 4)
        resume(hub)
        serves(hub)


@pytest.mark.parametrize("packets", [[], [START], [START, CHUNK * 2, CHUNK], [START, CHUNK, END], [START, CHUNK, END, text("01")]],
                         ids=["before", "started", "chunks", "second of the end", "ended"])
def test_killed_in_a_transfer(packets):
    with Hub() as hub:
        serves(hub)
        for one in packets:
            put(one)
            take("R", 1)
    for letter in "RSN":
        take(letter)
    put(CHUNK + text('01"queued"'))
    with Hub() as hub:
        assert take("N") == [text('01"queued"')] and any("Tried to write bad app file" in line for line in hub.console())
        put(START + text('71"new"') + END)
        take("S", 2)
        hub.settle()
        assert open("/tmp/file").read() == "new"
        serves(hub)


@harm()
def test_two_instances(hub):
    take("R")
    with Hub(ready=False) as other:
        until(lambda: any("--> Ridgelink" in line for line in other.console()))
        for _ in range(400):
            put(text("04") + text("01"))
            take("R", 3), take("N", 1)
        assert take("R") == take("N") == []
