"""The Python module, the golden vectors and the examples, against each other, the public header and the service."""
import json, os, pathlib, random, re, shutil, signal, subprocess, sys, time

import pytest, sysv_ipc
from hubkeeper import (Bounce, Bundle, CommandResult, Hub, Key, NoAnswer, NoQueue, Opcode, Packet, Peer,
                       PlaceTaken, Refused, TransferFailed, decode_message, protocol)

assert os.path.ismount("/media/small"), "queues are emptied and removed here: run this in scripts/sandbox"
TOP = pathlib.Path(__file__).resolve().parents[2]


def expand(text):
    words = [word.partition("*") for word in text.split()]
    return b"".join(bytes.fromhex(byte) * int(times or 1) for byte, _, times in words)


READERS = {"bytes": expand, "payload": expand, "opcode": lambda digits: int(digits, 16)}
VECTORS = json.loads((TOP / "docs/vectors.json").read_text(),
                     object_hook=lambda one: {key: READERS.get(key, lambda value: value)(one[key]) for key in one})


def python(*words):
    return subprocess.Popen([sys.executable, *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def stop(process):
    process.send_signal(signal.SIGSTOP), os.waitpid(process.pid, os.WUNTRACED)


def fails(kind, text, call, *arguments):
    with pytest.raises(kind, match=text):
        call(*arguments)


@pytest.fixture
def service():
    with subprocess.Popen(os.environ["HUBKEEPER"], cwd="/run", stdin=-1, stdout=subprocess.DEVNULL, stderr=-2) as hub:
        yield hub
        hub.kill()
    for row in open("/proc/sysvipc/msg").readlines()[1:]:
        sysv_ipc.MessageQueue(int(row.split()[0])).remove()


def test_vectors():
    for one in VECTORS["packets"] + VECTORS["builds"]:
        fields = one["opcode"], one["tag"], one["payload"]
        if "refused" in one:
            fails(ValueError, "is from 0 to|has at most 65530 bytes", Packet, *fields)
        else:
            packet = Packet(*fields)
            assert bytes(packet) == one["bytes"] and Packet.decode(one["bytes"]) == packet, one
            assert (packet.length, packet.name) == (one.get("length", packet.length), one.get("name", packet.name)), one
    for one in VECTORS["bundles"]:
        walk = [vars(piece) for piece in Bundle.walk(one["bytes"])]
        assert walk == [{"payload": b"", **piece} for piece in one["pieces"]], one
        if [piece["good"] for piece in walk] != [True]:
            fails(ValueError, "", Packet.decode, one["bytes"])


@pytest.mark.parametrize("program", ["VECTORS_C", "VECTORS_CXX"])
def test_header(program):
    chance = random.Random(1)
    rows = [(7, 4, one["bytes"]) for one in VECTORS["packets"] + VECTORS["bundles"]]
    rows += [(7, 4, bytes(chance.choices(range(12), [8] + [1] * 11, k=chance.randrange(60)))) for _ in range(3000)]
    builds = [one for one in VECTORS["builds"] if "bytes" in one or len(one["payload"]) == 65531]
    rows += [(one["tag"], one["opcode"], one["payload"]) for one in builds]
    asked = "".join(f"{tag} {opcode} {data.hex()}\n" for tag, opcode, data in rows)
    said = subprocess.run(os.environ[program], input=asked, capture_output=True, text=True, check=True).stdout
    for (tag, opcode, data), line in zip(rows, said.splitlines(), strict=True):
        walk = [f"{p.remaining} {p.length} {p.tag} {p.opcode} {p.good:d} {p.payload.hex()}" for p in Bundle.walk(data)]
        assert line.split(";") == walk + [bytes(Packet(opcode, tag, data)).hex() if len(data) <= 65530 else ""]


def test_constants():
    header = (TOP / "include/hubkeeper/protocol.h").read_text()
    defined = re.findall(r"^#define HUBKEEPER_(\w+) (\d\w*)", header, re.M)
    numbers = {name: int(digits, 8 if re.match("0[0-7]", digits) else 0) for name, digits in defined}
    here = {name: value for name, value in vars(protocol).items() if re.match("[A-Z]", name) and isinstance(value, int)}
    assert here | {f"{kind.__name__.upper()}_{one.name}": one for kind in (Key, Opcode) for one in kind} == numbers
    row = r'^    \{(?:HUBKEEPER_)?(\w+),\s(?:HUBKEEPER_)?(\w+),\sHUBKEEPER_ROUTE_\w+,\s+"(.*)"\},$'
    for words, here in zip(re.findall(row, header, re.M), protocol.OPCODES, strict=True):
        assert [numbers[word] if word in numbers else int(word, 0) for word in words[:2]] + [words[2]] == [*here]
    queues = re.findall(r'^    \{HUBKEEPER_(KEY_\w+), "(\w+)", "(\w+)", "(\w+)"\},$', header, re.M)
    assert [(numbers[key], *names) for key, *names in queues] == [tuple(vars(row).values()) for row in protocol.QUEUES]


def test_bundles_at_the_service(service):
    reply, last = Packet(0x80, 0xABCD, bytes(507)), Packet(0x1F, 0xABCD)
    with Hub(wait=30) as hub, Peer("netsteward") as netsteward:
        for one in VECTORS["bundles"]:
            hub.send(one["bytes"])
            hub.send(Packet(Opcode.HEARTBEAT, 0xABCD))
            bounces = [message.opcode for message in iter(hub.receive, reply) if isinstance(message, Bounce)]
            assert bounces == [*(piece["opcode"] for piece in one["pieces"]), 4], one
        hub.send(last)
        assert list(iter(netsteward.__next__, last)) == [Packet(0x1F, 3), Packet(0x10, 7, b"\xaa")]
        assert netsteward.skipped == 3  # forwards with a length of 0, 1 and 3


ANSWERS = [
    (True, lambda hub: 0 < (trip := hub.ping()).bounce <= trip.reply),
    (b"b\n", lambda hub: [hub.send(Packet(Opcode.COMMAND, 0, b"echo\0")), hub.run("echo a; echo b").output][1]),
    (CommandResult(b"y\n" * 253 + b"y", True), lambda hub: hub.run("yes | head -c 507")),
    (CommandResult(b"'\n\xe9\n", False, 3), lambda hub: hub.run("cat; echo \\'; echo \udce9; exit 3", status=True)),
    (CommandResult(b"y\n" * 250 + b"y", True, 0), lambda hub: hub.run("yes | head -c 502", status=True)),
    (CommandResult(b"", False), lambda hub: hub.run(":" + " " * 998)),
    ([b"", 1, b"7"], lambda hub: [hub.version(), open("/etc/build-version", "w").write("7"), hub.version()]),
    ([b"disabled", b"enabled"], lambda hub: [hub.clocksteward(False), hub.clocksteward(True), hub.ping(), re.findall(
        b"Clocksteward application has been (.*) ", open("/media/data/messages.log", "rb").read())][-1]),
]
FAILURES = [
    (ValueError, "takes 999 bytes .* this has 1000", lambda hub: hub.run(" " * 1000)),
    (TypeError, "not by 'off'", lambda hub: hub.clocksteward("off")),
    (Refused, "no message of 8193 bytes.*msgmax", lambda hub: hub.send(bytes(8193))),
    (NoAnswer, r"within 0.5 s; queue 1002 is empty.*\(hubkeeper\)", lambda hub: hub.request(1, 2, timeout=0.5)),
    (Refused, "its directory does not exist", lambda hub: hub.send_file(b"x", "/nodir/x")),
    (Refused, "Read-only", lambda hub: hub.send_file(b"x", "/usr/x")),
    (OSError, "Input/output", lambda hub: hub.send_file("/proc/self/mem", "/tmp/x")),  # after the start, so it is ended
    (TransferFailed, "65536 bytes .* instead of 99999", lambda hub: hub.send_file(bytes(99999), "/media/small/x")),
]


def test_hub(service, tmp_path):
    with Hub(wait=30) as hub:
        for answer, call in ANSWERS:
            assert call(hub) == answer
        for kind, text, call in FAILURES:
            fails(kind, text, call, hub)
        target = tmp_path / "it's"
        for what in sys.executable, b"short":
            hub.send_file(what, target)
            assert target.read_bytes() == (open(what, "rb").read() if isinstance(what, str) else what)
        hub.send(Packet(Opcode.TRANSFER_START, payload=b"tmp/other\0"))
        fails(Refused, "never ended", hub.send_file, b"x", "/tmp/new")
        hub.send(Bundle([Packet(Opcode.TRANSFER_CHUNK, payload=b"goes on"), Packet(Opcode.TRANSFER_END)]))
        hub.ping()
        assert open("/tmp/other").read() == "goes on"
        hub.run("cd /usr/local/bin && echo 'printf %064d' >sha256sum && chmod +x sha256sum")
        fails(TransferFailed, "differs on the board: SHA-256 00", hub.send_file, b"x", "/tmp/x")
    fails(ValueError, "has been closed", hub.ping)


def test_states(service):
    hub = Hub(wait=30)
    for key in Key.INBOUND, Key.RIDGELINK:
        sysv_ipc.MessageQueue(key).remove()
        hub.ping()
    stop(service)
    fails(NoAnswer, "nothing could be sent .* holds 2 messages", lambda: [hub.send(bytes(8000), 0.05) for _ in "123"])
    fails(NoAnswer, r"holds 3 messages .* by .*\(hubkeeper\).*taken back", hub.run, "touch /tmp/late", 0.05)
    service.send_signal(signal.SIGCONT)
    bounces = [hub.receive() for _ in range(2)]
    assert bounces == [Bounce(0)] * 2 and hub.ping() and not os.path.exists("/tmp/late")
    hub.send(Packet(Opcode.HEARTBEAT, 9))
    while sysv_ipc.MessageQueue(Key.RIDGELINK).current_messages < 2:
        time.sleep(0.001)
    assert list(map(decode_message, Hub().leftovers)) == [Bounce(4), Packet(0x80, 9, bytes(507))]
    refusal = python("-c", "import hubkeeper; hubkeeper.Hub()").communicate()[0]
    assert re.search(rf"PlaceTaken: process {os.getpid()} \(python3\) reads queue 1003 .*force=True", refusal)
    assert python("-c", "import hubkeeper; hubkeeper.Hub(force=True).ping()").wait() == 0
    service.kill(), service.wait()
    fails(NoAnswer, "was last read by process .*, which is gone: HubKeeper is not running", hub.ping, 0.05)
    sysv_ipc.MessageQueue(Key.INBOUND).remove()
    fails(NoQueue, "1002 .inbound. has been removed", hub.ping, 0.05)


def test_examples(request):
    peer, beat = python(TOP / "examples/minimal_peer.py", "chronicler"), [TOP / "examples/minimal_ridgelink.py", "0.05"]
    fails(NoQueue, "1002 .Ridgelink to HubKeeper. does not exist", Hub)
    fails(NoAnswer, "1011 .clocksteward. does not exist", Peer(1011).receive, 0.05)
    assert "does not exist" in python(*beat).communicate()[0]
    assert open("/proc/sysvipc/msg").read().count("\n") == 1  # nobody has created a queue
    service = request.getfixturevalue("service")
    Hub(wait=30).send(Packet(0x30, 5, b"x" * 20))
    assert peer.stdout.readline() == f"30 to chronicler, tag 5, 25 bytes: {'78 ' * 16}and 4 more\n"
    fails(PlaceTaken, "1010", Peer, "chronicler")
    sysv_ipc.MessageQueue(Key.CHRONICLER).remove()
    Hub().send(Bundle([Packet(0x30, 6), Packet(0x30, 7)]))  # the first finds no queue, and HubKeeper makes a new one
    assert peer.stdout.readline() == "30 to chronicler, tag 7, 5 bytes\n"
    peer.terminate()
    assert (peer.communicate()[0], peer.returncode) == ("", 0)
    assert re.fullmatch("bounce after .* ms\nreply of 512 bytes after .* ms\n", python(beat[0]).communicate()[0])
    assert python(beat[0]).wait() == 0
    stop(service)
    assert python(*beat).wait() == 1


def test_examples_in_c(request, tmp_path):
    shutil.copytree(TOP / "examples", tmp_path, dirs_exist_ok=True)
    subprocess.check_call(["make", "-sC", tmp_path, f"HUBKEEPER=-I{TOP}/include", "CFLAGS=-std=c99 -Werror -Wall"])
    run = lambda *words: subprocess.run([tmp_path / words[0], *words[1:]], capture_output=True, text=True)
    assert run("minimal_ridgelink").stderr == "HubKeeper's queues: Connection timed out\n"
    assert run("minimal_peer", "nobody").returncode == 2
    peer = subprocess.Popen([tmp_path / "minimal_peer", "chronicler"], stdout=-1, stderr=-2, text=True)
    service = request.getfixturevalue("service")
    Hub(wait=30).send(Packet(0x30, 5, b"xy"))
    assert peer.stdout.readline() == "opcode 30, tag 5, 2 bytes: 78 79\n"
    sysv_ipc.MessageQueue(Key.CHRONICLER).remove()
    assert peer.stdout.readline() == "the queue was removed; waiting for the next one\n"
    Hub().send(Bundle([Packet(0x30, 6), Packet(0x30, 7)]))  # the first finds no queue, and HubKeeper makes a new one
    assert peer.stdout.readline() == "opcode 30, tag 7, 0 bytes:\n"
    peer.terminate()
    assert (peer.communicate()[0], peer.returncode) == ("", 0)
    beat = run("minimal_ridgelink")
    assert re.fullmatch(r"bounced: .*\nanswered: 512 bytes with tag \d+\n", beat.stdout) and beat.returncode == 0
    stop(service)
    assert run("minimal_ridgelink").stderr == "no answer: Connection timed out\n"
