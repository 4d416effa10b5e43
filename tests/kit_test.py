"""The Python module, the golden vectors and the examples, against each other, the public header and the service."""
import doctest, itertools, json, os, random, re, shutil, signal, subprocess, sys

import board, pytest, sysv_ipc
from board import TOP, until
from hypothesis import HealthCheck, given, settings, strategies
from hubkeeper import (Bounce, Bundle, CommandResult, Hub, Key, NoAnswer, NoQueue, Opcode, Packet, Peer,
                       PlaceTaken, Queue, Refused, StateNotice, TransferFailed, decode_message, protocol)



def expand(text):
    words = [word.partition("*") for word in text.split()]
    return b"".join(bytes.fromhex(byte) * int(times or 1) for byte, _, times in words)


READERS = {"bytes": expand, "payload": expand, "opcode": lambda digits: int(digits, 16)}
VECTORS = json.loads((TOP / "docs/vectors.json").read_text(),
                     object_hook=lambda one: {key: READERS.get(key, lambda value: value)(one[key]) for key in one})


WRONG = [
    (TypeError, "made of Packets, not of 'a'", lambda: Bundle("abc")),
    (ValueError, "a state is from 1 to 65535", lambda: decode_message(b"\0\0")),
    (TypeError, "a message is bytes", lambda: decode_message("a")),
    (ValueError, "an opcode is from 0 to 255", lambda: Bounce(256)),
    (TypeError, "a state is a number", lambda: StateNotice("a")),
    (TypeError, "a message is bytes", lambda: Queue(1002).put("x")),
    (ValueError, "the type of a message", lambda: Queue(1002).put(b"x", mtype=2**70)),
    (ValueError, "not a number", lambda: Queue(1002).take(float("nan"))),
    (ValueError, "so long a time", lambda: Hub(wait=10**400)),
]


def fails(kind, text, call, *arguments):
    with pytest.raises(kind, match=text):
        call(*arguments)


def test_vectors():
    documented = doctest.testmod(protocol)
    assert documented.failed == 0 < documented.attempted
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


PACKETS = strategies.builds(Packet, strategies.integers(0, 255), strategies.integers(0, 65535), strategies.binary())


@given(strategies.lists(PACKETS.map(bytes) | strategies.binary(max_size=9), max_size=9).map(b"".join))
@settings(derandomize=True, database=None, deadline=None, suppress_health_check=list(HealthCheck), max_examples=200)
def test_any_bytes(data):
    pieces = list(itertools.islice(Bundle.walk(data), len(data) + 1))
    parts = [bytes(Packet(p.opcode, p.tag, p.payload)) if p.good else data[p.offset:] for p in pieces]
    assert b"".join(parts) == data and all(piece.good for piece in pieces[:-1])
    assert [piece.offset for piece in pieces] == [len(data) - piece.remaining for piece in pieces]
    if len(data) == 1 or (len(data) == 2 and any(data)) or [piece.good for piece in pieces] == [True]:
        read = decode_message(data)
        again = {Bounce: lambda: bytes([read.opcode]), StateNotice: lambda: read.state.to_bytes(2, "little")}
        assert again.get(type(read), lambda: bytes(read))() == data
    else:
        fails(ValueError, "", decode_message, data)


@pytest.mark.parametrize("kind, text, call", WRONG)
def test_wrong_arguments(kind, text, call):
    fails(kind, text, call)


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


ANSWERS = [
    (True, lambda hub: 0 < (trip := hub.ping()).bounce <= trip.reply),
    (b"b\n", lambda hub: [hub.send(Packet(Opcode.COMMAND, 0, b"echo\0")), hub.run("echo a; echo b").output][1]),
    (CommandResult(b"y\n" * 253 + b"y", True), lambda hub: hub.run("yes | head -c 507")),
    (CommandResult(b"'\n\xe9\n", False, 3), lambda hub: hub.run("cat; echo \\'; echo \udce9; exit 3", status=True)),
    (CommandResult(b"y\n" * 247, True, 0), lambda hub: hub.run("yes | head -c 502", status=True)),
    (CommandResult(b"", False), lambda hub: hub.run(":" + " " * 998)),
    ([b"", 1, b"7"], lambda hub: [hub.version(), open("/etc/build-version", "w").write("7"), hub.version()]),
    ([b"disabled", b"enabled"], lambda hub: [hub.clocksteward(False), hub.clocksteward(True), hub.ping(), re.findall(
        b"Clocksteward application has been (.*) ", open("/media/data/messages.log", "rb").read())][-1]),
]
FAILURES = [
    (ValueError, "takes 999 bytes .* this has 1000", lambda hub: hub.run(" " * 1000)),
    (ValueError, "at least one character", lambda hub: hub.run("", status=True)),
    (TypeError, "not by 'off'", lambda hub: hub.clocksteward("off")),
    (Refused, "no message of 8193 bytes.*msgmax", lambda hub: hub.send(bytes(8193))),
    (NoAnswer, r"within 0.5 s; queue 1002 is empty.*\(hubkeeper\)", lambda hub: hub.request(1, 2, timeout=0.5)),
    (Refused, "its directory does not exist", lambda hub: hub.send_file(b"x", "/nodir/x")),
    (TypeError, "a text or a Path", lambda hub: hub.send_file(b"x", b"/tmp/x")),
    (Refused, "/usr/x: Read-only", lambda hub: hub.send_file(b"x", "/usr/x")),
    (Refused, "^cannot send to /proc/version: (I/O error|Permission denied)$", lambda hub: hub.send_file(b"x", "/proc/version")),
    (OSError, "Input/output", lambda hub: hub.send_file("/proc/self/mem", "/tmp/x")),  # after the start, so it is ended
    (TransferFailed, "65536 bytes .* instead of 99999", lambda hub: hub.send_file(bytes(99999), "/media/small/x")),
]


def test_hub(monkeypatch):
    with board.Hub(), Hub(wait=30) as hub:
        for answer, call in ANSWERS:
            assert call(hub) == answer
        for kind, text, call in FAILURES:
            fails(kind, text, call, hub)
        monkeypatch.setattr(Hub, "_require_begun", lambda *_: signal.raise_signal(signal.SIGINT))  # the next one can begin
        fails(KeyboardInterrupt, "", hub.send_file, b"x", "/tmp/it's")
        monkeypatch.undo()
        for what in sys.executable, b"short":
            hub.send_file(what, "/tmp/it's")
            assert open("/tmp/it's", "rb").read() == (open(what, "rb").read() if isinstance(what, str) else what)
        hub.send(Packet(Opcode.TRANSFER_START, payload=b"tmp/other\0"))
        fails(Refused, "never ended", hub.send_file, b"x", "/tmp/new")
        hub.send(Bundle([Packet(Opcode.TRANSFER_CHUNK, payload=b"goes on"), Packet(Opcode.TRANSFER_END)]))
        hub.ping()
        assert open("/tmp/other").read() == "goes on"
        hub.run("cd /usr/local/bin && echo 'printf %064d' >sha256sum && chmod +x sha256sum")
        fails(TransferFailed, "differs on the board: SHA-256 00", hub.send_file, b"x", "/tmp/x")
    fails(ValueError, "has been closed", hub.ping)


def test_bundles_at_the_service():
    reply, last = Packet(0x80, 0xABCD, bytes(507)), Packet(0x1F, 0xABCD)
    with board.Hub(), Hub(wait=30) as hub, Peer("netsteward") as netsteward:
        for one in VECTORS["bundles"]:
            hub.send(one["bytes"])
            hub.send(Packet(Opcode.HEARTBEAT, 0xABCD))
            bounces = [message.opcode for message in iter(hub.receive, reply) if isinstance(message, Bounce)]
            assert bounces == [*(piece["opcode"] for piece in one["pieces"]), 4], one
        hub.send(last)
        assert list(iter(netsteward.__next__, last)) == [Packet(0x1F, 3), Packet(0x10, 7, b"\xaa")]
        assert netsteward.skipped == 3  # forwards with a length of 0, 1 and 3


def test_states():
    with board.Hub() as service:
        hub = Hub(wait=30)
        for letter in "IR":
            board.queue(letter).remove()
            hub.ping()
        service.stop()
        fails(NoAnswer, "nothing could be sent .* holds 2 messages", lambda: [hub.send(bytes(8000), 0.05) for _ in "123"])
        fails(NoAnswer, r"holds 3 messages .* by .*\(hubkeeper\).*taken back", hub.run, "touch /tmp/late", 0.05)
        service.go_on()
        assert [hub.receive(), hub.receive()] == [Bounce(0)] * 2 and hub.ping() and not os.path.exists("/tmp/late")
        hub.send(Packet(Opcode.HEARTBEAT, 9))
        until(lambda: board.queue("R").current_messages == 2)
        assert list(map(decode_message, Hub().leftovers)) == [Bounce(4), Packet(0x80, 9, bytes(507))]
        refusal = run(sys.executable, "-c", "import hubkeeper; hubkeeper.Hub()").stderr
        assert re.search(rf"PlaceTaken: process {os.getpid()} \(python3\) reads queue 1003 .*force=True", refusal)
        assert run(sys.executable, "-c", "import hubkeeper; hubkeeper.Hub(force=True).ping()").returncode == 0
    fails(NoAnswer, "was last read by process .*, which is gone: HubKeeper is not running", hub.ping, 0.05)
    board.queue("I").remove()
    fails(NoQueue, "1002 .inbound. has been removed", hub.ping, 0.05)


def run(*words):
    return subprocess.run(words, capture_output=True, text=True)


# The interpreter, the ending of the names, and what they say: no queue, the queue removed (at once or in the end), a bounce,
# a reply, no answer.
EXAMPLES = {
    "c": ([], "", "opening queue 1002: gave up waiting; is HubKeeper running", ("the queue was removed; waiting for the next one\n", ""),
          "bounced: .*\n", r"answered: 512 bytes with tag \d+\n", "receiving the reply: gave up"),
    "python": ([sys.executable], ".py", "does not exist", ("", "removed queues: 1, skipped messages: 0\n"),
               "bounce after .* ms\n", "reply of 512 bytes after .* ms\n", "no reply within"),
}


@pytest.mark.parametrize("start, ending, missing, removed, bounce, reply, silence", EXAMPLES.values(), ids=EXAMPLES)
def test_examples(start, ending, missing, removed, bounce, reply, silence):
    shutil.copytree(TOP / "examples", "/tmp/examples")
    subprocess.check_call(["make", "-sC", "/tmp/examples", f"HUBKEEPER=-I{TOP}/include", "CFLAGS=-std=c99 -Werror -Wall"])
    peer, ridgelink = ([*start, f"/tmp/examples/minimal_{name}{ending}"] for name in ("peer", "ridgelink"))
    assert all(run(*peer, *words).returncode == 2 for words in (["nobody"], ["inbound"], ["ridgelink"], ["stagehand", "--help"]))
    waiting = subprocess.Popen([*peer, "chronicler"], stdout=-1, stderr=-2, text=True, env={**os.environ, "PYTHONUNBUFFERED": "1"})
    assert waiting.stdout.readline() == "no queue yet; waiting for HubKeeper\n"
    assert missing in run(*ridgelink, "0.05").stderr
    fails(NoQueue, "1002 .Ridgelink to HubKeeper. does not exist", Hub)
    fails(NoAnswer, "1011 .clocksteward. does not exist", Peer(1011).receive, 0.05)
    assert open("/proc/sysvipc/msg").read().count("\n") == 1  # nobody has created a queue
    inbound, outbound = (sysv_ipc.MessageQueue(key, sysv_ipc.IPC_CREX, 0o644) for key in (1002, 1003))
    outbound.send(b"somebody else's")
    inbound.mode = 0o444
    for words in ridgelink, [sys.executable, "-c", "__import__('hubkeeper').Hub()"]:  # who may not send takes nothing either
        assert "ermission" in run("setpriv", "--bounding-set=-ipc_owner", *words).stderr
    assert outbound.current_messages == 1
    inbound.remove(), outbound.remove()
    with board.Hub() as service:
        board.put(board.text('30"xy"'))
        assert waiting.stdout.readline() == "30 to chronicler, tag 7, 7 bytes: 78 79\n"
        fails(PlaceTaken, "1010", Peer, "chronicler")
        board.queue("L").remove()
        assert not removed[0] or waiting.stdout.readline() == removed[0]
        board.put(board.text("30@8") + board.text("30@9"))  # the first finds no queue, and HubKeeper makes a new one
        assert waiting.stdout.readline() == "30 to chronicler, tag 9, 5 bytes\n"
        waiting.terminate()
        assert (waiting.communicate()[0], waiting.returncode) == (removed[1], 0)
        for beat in bounce + reply, reply:  # the second finds no queue 1003, and the bounce is lost
            answer = run(*ridgelink)
            assert re.fullmatch(beat, answer.stdout) and answer.returncode == 0
            board.queue("R").remove()
        assert Hub().ping().bounce is None
        service.stop()
        assert silence in run(*ridgelink, "0.05").stderr and board.queue("I").current_messages == 0
