#!/usr/bin/python3
"""Does one harm after the other to the unmodified executable, each in a sandbox of its own, and sees what still holds.

    tests/harms/harms.py HUBKEEPER [HARM …]     those that are named, or all but the long ones
"""
import ctypes, glob, os, struct, subprocess, sys, time
from resource import RLIMIT_AS, RLIMIT_NOFILE, getpagesize, prlimit
from signal import SIGCONT, SIGSTOP

libc = ctypes.CDLL(None)
IN, NETSTEWARD, CLOCKSTEWARD, CHRONICLER, STAGEHAND, RIDGELINK = KEYS = 1002, 1000, 1011, 1010, 1006, 1003
OPCODES = {NETSTEWARD: 1, CLOCKSTEWARD: 0x20, CHRONICLER: 0x30, STAGEHAND: 0x72, RIDGELINK: 4}
PEERS = NETSTEWARD, CLOCKSTEWARD, CHRONICLER
NOWAIT = 0o4000
ATTACH, DETACH = 16, 17  # requests of ptrace(2)


def packet(opcode, payload=b"", tag=7):
    return struct.pack("<HHB", len(payload) + 5, tag, opcode) + payload


BAD, START, CHUNK, END = packet(0xFF), packet(0x70, b"tmp/file\0"), packet(0x71, b"x" * 3000), packet(0x72)


def queue(key):
    return libc.msgget(key, 0o1644)


def remove(key):
    libc.msgctl(queue(key), 0, None)


def send(text, key=IN, flags=0):
    return libc.msgsnd(queue(key), struct.pack("l", 1) + text, len(text), flags)


def until(holds):
    deadline = time.monotonic() + 60
    while not (result := holds()):
        assert time.monotonic() < deadline, "did not come about in time"
        time.sleep(0.001)
    return result


def take_now(key):
    area = ctypes.create_string_buffer(8 + 8192)
    size = libc.msgrcv(queue(key), area, 8192, 0, NOWAIT)
    return area.raw[8:8 + size] if size >= 0 else None


def take(*keys):
    return [until(lambda: take_now(key)) for key in keys][-1]


def drain(*keys):
    return sum(1 for key in keys for _ in iter(lambda: take_now(key), None))


def logged(text, path="/media/data/messages.log"):
    return open(path).read().count(text)


def shell(line):
    subprocess.run(line, shell=True, check=True)


def statm(hub):
    return [int(pages) * getpagesize() for pages in open(f"/proc/{hub.pid}/statm").read().split()]


class Hub(subprocess.Popen):
    tag = 100

    def __init__(self, **how):
        super().__init__([os.environ["HUBKEEPER"]], **{"stdout": -3, "stderr": -3, **how})

    def answer(self, opcode=4, code=0x80, payload=b""):
        """Sends a request, and returns the payload of the reply with its tag."""
        Hub.tag += 1
        send(packet(opcode, payload, Hub.tag))
        while (got := take(RIDGELINK))[2:5] != struct.pack("<HB", Hub.tag, code):
            assert self.poll() is None
        return got[5:]

    def serves(self):
        """A heartbeat is answered, and each peer gets its Packet."""
        self.answer()
        drain(*PEERS)
        for key in PEERS:
            send(packet(OPCODES[key], b"ok"))
            assert take(key)[5:] == b"ok"
        return self


def removed_while_blocked(key):
    hub = Hub().serves()
    remove(key)
    if key == IN:
        until(lambda: logged("msgrcv inbound failed, sizeReceived = -1") == 1)
    else:
        send(packet(OPCODES[key]))
        until(lambda: logged("Failed") == 1)
    hub.serves()


def removed_in_use():
    hub = Hub().serves()
    for key in KEYS * 200:
        send(b"".join(packet(opcode) for opcode in (4, 4, 1, 0x20, 0x30)), flags=NOWAIT)
        remove(key)
    hub.serves()


def queue_full(key, packets, pause):
    hub = Hub().serves()
    drain(RIDGELINK)
    other = CHRONICLER if key == NETSTEWARD else NETSTEWARD
    while send(b"x", key, NOWAIT) == 0:
        pass
    for _ in range(packets):
        send(packet(OPCODES[key]) + packet(OPCODES[other]))
        take(other)
        drain(*{RIDGELINK} - {key})
        time.sleep(pause)
    assert logged("last logged occurance") == 1
    drain(key)
    hub.serves()
    until(lambda: logged("estored") + logged("recovered") == 1)


def no_queue_left(key, line):
    hub = Hub().serves()
    shell("echo 5 > /proc/sys/kernel/msgmni")
    remove(key)
    send(packet(4))
    until(lambda: logged(line))
    time.sleep(1)
    shell("echo 6 > /proc/sys/kernel/msgmni")
    hub.serves()
    return f"{logged(line)} lines in a second"


def log_directory(prepare, repair="true"):
    shell(prepare)
    hub = Hub(stdout=open("/console", "w")).serves()
    send(BAD * 1600)
    hub.serves()
    shell(repair)
    send(packet(0xFE))
    hub.serves()
    assert logged("bad opcode", "/console") == 1601 and (repair == "true" or logged("bad opcode: fe") == 1)


def output_closed(*descriptors):
    hub = Hub(stdout=None, stderr=None, preexec_fn=lambda: [os.close(number) for number in descriptors]).serves()
    send(END + START + BAD + END)
    take(STAGEHAND, STAGEHAND, STAGEHAND)
    assert os.path.getsize("/tmp/file") == os.path.getsize("bad_file") == 0 and logged("bad opcode: ff") == 1
    assert all(os.readlink(f"/proc/{hub.pid}/fd/{number}") == "/dev/null" for number in descriptors)


def output_unread():
    hub = Hub(stdout=-1).serves()
    for _ in range(60):
        send(BAD * 40)
    until(lambda: any("pipe_write" in open(path).read() for path in glob.glob(f"/proc/{hub.pid}/task/*/wchan")))
    os.set_blocking(hub.stdout.fileno(), False)  # the thread waits for the reader, who now comes
    until(lambda: (hub.stdout.read(), logged("bad opcode: ff") == 2400)[1])
    hub.serves()


def tmp_full():
    hub = Hub().serves()
    shell("mount -t tmpfs -o size=8k none /tmp; ! head -c 1M /dev/zero > /tmp/filler")
    assert hub.answer(0x63, 0x90, b"echo ok\0") == b""
    os.remove("/tmp/filler")
    assert hub.answer(0x63, 0x90, b"echo ok\0") == b"ok\n"


def large_output(megabytes):
    hub = Hub().serves()
    before = statm(hub)[1]
    assert hub.answer(0x63, 0x90, b"head -c %dM /dev/zero\0" % megabytes) == bytes(507)
    assert statm(hub.serves())[1] < before + (1 << 20)


def no_descriptors():
    hub = Hub().serves()
    prlimit(hub.pid, RLIMIT_NOFILE, (len(os.listdir(f"/proc/{hub.pid}/fd")), 4096))
    assert hub.answer(0x60, 0x88) == b"" and logged("Failed to open both") == 1
    send(packet(0x63, b"true\0"))
    until(lambda: logged("unable to open /tmp/cmdresp.txt") == 1)
    prlimit(hub.pid, RLIMIT_NOFILE, (4096, 4096))
    assert hub.serves().answer(0x63, 0x90, b"echo ok\0") == b"ok\n"


def no_memory():
    hub = Hub().serves()
    prlimit(hub.pid, RLIMIT_AS, statm(hub)[:1] * 2)
    send(BAD * 1600 + packet(0x63, b"true\0"))
    hub.serves()


def traced(request, hub):
    for thread in map(int, os.listdir(f"/proc/{hub.pid}/task")):
        assert libc.ptrace(request, thread, 0, 0) == 0
        request == ATTACH and os.waitpid(thread, 0x40000000)


def interrupted(stop, resume):
    hub = Hub().serves()
    for _ in range(50):
        stop(hub)
        send(packet(4) * 4)
        resume(hub)
        hub.serves()


def killed(*packets):
    hub = Hub().serves()
    drain(RIDGELINK)
    for one in packets:
        send(one)
        take(RIDGELINK)
    hub.kill(), hub.wait()
    drain(STAGEHAND, NETSTEWARD)
    send(CHUNK + packet(1, b"queued"))
    hub = Hub()
    assert take(NETSTEWARD)[5:] == b"queued" and logged("Tried to write bad app file") == 1
    kept = os.path.getsize("/tmp/file") if packets else 0
    send(START + packet(0x71, b"new") + END)
    take(STAGEHAND, STAGEHAND)
    assert open("/tmp/file").read() == "new"
    hub.serves()
    return f"{kept} of {3000 * packets.count(CHUNK)} bytes kept"


def two_instances():
    hub, other = Hub().serves(), Hub()
    drain(RIDGELINK)
    for _ in range(400):
        send(packet(4) + packet(1))
        take(RIDGELINK, RIDGELINK, RIDGELINK, NETSTEWARD)
    assert drain(RIDGELINK, NETSTEWARD) == 0
    other.kill(), other.wait()
    hub.serves()


HARMS = {
    **{f"queue {key} removed while blocked": (removed_while_blocked, key) for key in KEYS},
    "all queues removed in use": (removed_in_use,),
    **{f"queue {key} full": (queue_full, key, 40, 0) for key in (*PEERS, RIDGELINK)},
    **{f"long: queue {key} full for two minutes": (queue_full, key, 1200, 0.1) for key in (*PEERS, RIDGELINK)},
    "msgmni reached, 1003 gone": (no_queue_left, RIDGELINK, "In From Ridgelink queue setup failed"),
    "msgmni reached, 1002 gone": (no_queue_left, IN, "Failed recreating the que"),
    "log directory missing": (log_directory, "rmdir /media/data"),
    "log directory read-only": (log_directory, "mount -t tmpfs -o ro none /media/data"),
    "log disk full": (log_directory, "mount -t tmpfs -o size=16k none /media/data", "mount -o remount,size=1m /media/data"),
    "standard output closed": (output_closed, 1),
    "all three standard descriptors closed": (output_closed, 0, 1, 2),
    "standard output unread": (output_unread,),
    "/tmp full": (tmp_full,),
    "command that prints 10 MiB": (large_output, 10),
    "long: command that prints 1 GiB": (large_output, 1024),
    "descriptor limit": (no_descriptors,),
    "memory limit": (no_memory,),
    "SIGSTOP and SIGCONT": (interrupted, *(lambda hub, s=s: hub.send_signal(s) for s in (SIGSTOP, SIGCONT))),
    "debugger attached and detached": (interrupted, *(lambda hub, r=r: traced(r, hub) for r in (ATTACH, DETACH))),
    "kill -9 before a transfer": (killed,),
    "kill -9 after the start": (killed, START),
    "kill -9 after chunks": (killed, START, CHUNK, CHUNK, CHUNK),
    "kill -9 in the second of the end": (killed, START, CHUNK, END),
    "kill -9 after the end": (killed, START, CHUNK, END, packet(1)),
    "two instances": (two_instances,),
}

if sys.argv[1] == "--inside":
    check, *words = HARMS[sys.argv[2]]
    os.chdir("/run")  # for the placeholder of transfers
    print("holds", check(*words) or "")
    sys.exit()
sandbox = os.path.join(os.path.dirname(__file__), "../../scripts/sandbox")
os.environ["HUBKEEPER"] = os.path.abspath(sys.argv[1])
failed = []
for name in sys.argv[2:] or [name for name in HARMS if not name.startswith("long: ")]:
    if os.geteuid() != 0 and name in ("log directory read-only", "log disk full", "/tmp full"):
        print(f"{name:40} left out: only root can mount a file system in the sandbox")
        continue
    run = subprocess.run([sandbox, "python3", os.path.abspath(__file__), "--inside", name], capture_output=True, text=True)
    failed += [name] * (run.returncode != 0)
    print(f"{name:40} {run.stdout.strip() or run.stderr.strip()}", flush=True)
sys.exit(f"do not hold: {failed}" if failed else 0)
