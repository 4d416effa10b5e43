"""hubctl trace beside the running service: what it shows and records, and that the service never notices.

TRACE_PACKETS, TRACE_ATTACHES and TRACE_KILLS make the runs under load longer (100000, 200 and 20 for a thorough one).
"""
import collections, concurrent.futures, glob, json, os, pathlib, random, re, signal, struct, subprocess, time

import pytest
from board import KEYS, TOP, Hub, put, queue, shell, take, text, texts, until

HUBCTL, OUT, ERR = os.environ["HUBCTL"], pathlib.Path("/tmp/trace.out"), pathlib.Path("/tmp/trace.err")
LETTERS = {key: letter for letter, key in KEYS.items()}


class Trace:
    """A trace that has attached; `end` detaches it and returns its lines."""

    def __init__(self, *words):
        self.process = subprocess.Popen([HUBCTL, "trace", "--json", *words], stdout=OUT.open("w"), stderr=ERR.open("w"))
        until(lambda: '"attached"' in OUT.read_text() or self.process.poll() is not None)

    def end(self, number=signal.SIGINT):
        self.process.send_signal(number)
        assert self.process.wait(30) == (0 if number == signal.SIGINT else -number), ERR.read_text()
        return [json.loads(line) for line in OUT.read_text().splitlines()[1:] if number == signal.SIGINT]


def run(*words):
    return subprocess.run([HUBCTL, "trace", *words], capture_output=True, text=True, timeout=60)


def read(path, *words):
    return [json.loads(line) for line in run("--json", "--read", path, *words).stdout.splitlines()]


def raw(line):
    """The bytes that a line stands for."""
    payload = bytes.fromhex(line.get("payload", ""))
    if line["kind"] == "packet":
        return line["length"].to_bytes(2, "little") + line["tag"].to_bytes(2, "little") + bytes([line["opcode"]]) + payload
    return payload if line["kind"] in ("bad", "state") else bytes([line["opcode"]])


def load(count, seen, dice=random.Random(19)):
    """Sends so many Packets of all kinds in Bundles of all sizes, and drains the other queues, Chronicler's now and then only."""
    sent, left = [], count
    while left:
        bundle = []
        for _ in range(min(left, dice.choice([1, 1, 2, 5, 30]))):
            opcode = dice.choice(["04", "10", "21", "30", "30", "ee", "75", "60"] if dice.random() < 0.02 else ["04", "10", "21", "30"])
            bundle.append(text(f'{opcode}@{dice.randrange(65536):04x}"{"x" * dice.choice([0, 3, 200])}"'))
        sent += bundle
        left -= len(bundle)
        put(b"".join(bundle))
        for letter in "RNCS" + "L" * (dice.random() < 0.01):
            seen[letter] += take(letter)
    return sent


def test_each_message_once_and_in_order():
    seen = collections.defaultdict(list)
    with Hub() as hub:
        pathlib.Path("/tmp/all.pcap").touch(0o644)
        trace = Trace("--write", "/tmp/all.pcap")
        sent = load(int(os.environ.get("TRACE_PACKETS", 3000)), seen)
        hub.settle()
        lines = trace.end()
        for letter in "RNCLS":
            seen[letter] += take(letter)
    shown, lost = collections.defaultdict(list), collections.Counter()
    for line in lines:
        if "kind" in line:
            lost[line["queue"]] += line["lost"]
            shown[LETTERS[line["key"]]] += [] if line["lost"] else [raw(line)]
    assert shown.pop("I") == [*sent, text("fe")]
    assert shown == {letter: messages for letter, messages in seen.items() if messages} and lost["chronicler"] > 0
    assert read("/tmp/all.pcap")[1:] == lines and os.stat("/tmp/all.pcap").st_mode & 0o777 == 0o600


# A Bundle, or what is done to a queue first, and the lines: what, opcode, and ! with the reason where it was lost.
LINES = r"""
04 21"ab"         | in04 bounce04 reply80 in21 bounce21 forward21
21 22:4           | in21 bounce21 forward21 in.bad bounce22 forward.bad
22 =\05\00         | in22 bounce22 forward22 in.bad bounceff
63"exit 3\00"    | in63 bounce63 command=768 reply90
75 60             | in75 bounce75 command=0 in60 bounce60 reply88
full L => 30 04   | in30 bounce30 forward30!queue_full opened in04 bounce04 reply80
gone C => 20      | in20 bounce20 forward20!no_queue opened
gone C => 20      | in20 bounce20 forward20!no_queue opened
20                | in20 bounce20 forward20
gone I => 04      | in!queue_removed opened in04 bounce04 reply80
"""


def short(line):
    what = f"={line['status']}" if line["what"] == "command" else ""
    if "kind" in line:
        what = f"{line['opcode']:02x}" if "opcode" in line else "." + line["kind"]
    return line["what"] + what + ("!" + line["reason"].replace(" ", "_") if "reason" in line else "")


def test_lines():
    with Hub() as hub:
        trace, wanted = Trace(), []
        for row in filter(None, LINES.split("\n")):
            bundle, lines = row.split("|")
            wanted += lines.split()
            if "=>" in bundle:
                act, bundle = bundle.split("=>")
                act, letter = act.split()
                until(lambda: any("msgrcv" in open(path).read() for path in glob.glob(f"/proc/{hub.pid}/task/*/wchan")))
                queue(letter).__setattr__("max_size", 0) if act == "full" else queue(letter).remove()
                until(lambda: shell("ipcs -q").count("0x") == len(KEYS) - (act == "gone" and letter != "I"))
            put(b"".join(texts(bundle)))
            wanted += ["infe", "bouncefe"]
            hub.settle()
        queue("I").max_size = 9  # for one Packet, not for two
        put(b""), hub.settle(), hub.settle()
        assert [short(line) for line in trace.end()] == [*wanted, *"in.bad infe full bouncefe infe full bouncefe".split()]


def test_nobody_notices():
    def talk(done):
        for tag in range(65536):
            if done:
                return tag
            put(text(f"04@{tag:04x}") + text("21"))
            assert take("R", 3) == [b"\x04", text(f'80@{tag:04x}"\\00{{507}}"'), b"\x21"] and take("C", 1) == [text("21")]

    attaches, kills = (int(os.environ.get(name, most)) for name, most in (("TRACE_ATTACHES", 20), ("TRACE_KILLS", 5)))
    with Hub() as hub, concurrent.futures.ThreadPoolExecutor() as pool:
        done = []
        talker = pool.submit(talk, done)
        for number in [signal.SIGINT] * attaches + [signal.SIGKILL] * kills:
            Trace().end(number)
        done.append(True)
        unconfigured = {"ERROR Failed to open config file", "ERROR Failed to parse config file"}  # said after 40 s
        assert talker.result() > attaches and {*hub.said()} <= unconfigured
        for request, answer, letter in ('63"sleep 1\\00"', "90", "R"), ("72", "72", "S"):
            began = time.monotonic()
            put(text(request)), take("R", 1)
            while time.monotonic() - began < 0.9:
                Trace().end()
            assert take(letter, 1) == [text(answer)] and 1 < time.monotonic() - began
        assert len({*hub.said()} - unconfigured) == 2 and hub.process.poll() is None


def test_restarts_are_followed():
    with Hub() as hub:
        trace = Trace("--follow")
        hub.process.kill(), hub.wait(), hub.launch()
        until(lambda: OUT.read_text().count('"attached"') == 2 or trace.process.poll() is not None)
        hub.settle()
        whats = [line["what"] for line in trace.end()]
    assert whats[0] == "ended" and "attached" in whats and whats[-2:] == ["in", "bounce"], whats


REFUSALS = """
1 | there is no process 99999                         | --pid 99999
1 | cannot write /nowhere/f: No such file             | --write /nowhere/f
1 | cannot read /nowhere/f: No such file              | --read /nowhere/f
1 | /etc/ld.so.cache is no recording                  | --read /etc/ld.so.cache
1 | (hubctl) traces it already                        | -c 1
2 | there is no queue "9"                             | --queue 9
2 | "zz" is no opcode                                 | --opcode zz
2 | excludes                                          | --read /tmp/f --write /tmp/g
1 | 2 processes are hubkeeper here                    | -c 1
"""


def test_refusals():
    with Hub():
        trace = Trace()
        for status, sentence, words in (row.split(" | ") for row in REFUSALS.strip().split("\n")):
            second = Hub(ready=False) if sentence[0] == "2" else None
            assert second is None or until(lambda: "hubkeeper" in open(f"/proc/{second.pid}/comm").read())
            done = run(*words.split())
            assert done.returncode == int(status) and sentence.strip() in done.stderr.replace("\n       ", ""), (words, done)
            assert second is None or second.__exit__() is None
        trace.end()
    until(lambda: not shell("pgrep hubkeeper"))  # nor a child of one that still has its name
    with subprocess.Popen([HUBCTL, "trace"], stderr=subprocess.PIPE, text=True) as waiting:
        assert "no hubkeeper runs" in waiting.stderr.readline()
        waiting.terminate()
        assert waiting.wait() == 0


# Time, kind, key, result, value, duration and text of records as docs/capture.md lays them out, and their lines.
RECORDED = [
    (8, 0, 71, 0, 0, b"", "process 71, user 0"),
    (5, 1011, 3, 33, 0, b"", "id 3, owner user 33, not the hub's"),
    (1, 1002, 6, 9, 5, text('20"a"'), "in       inbound            6      7  20 to clocksteward       61"),
    (4, 1011, -11, 1, 5, text('20"a"'), "+1.000 ms  forward  clocksteward  LOST (queue full)       6      7  20 to clocksteward"),
    (7, 1002, 16000, 16384, 0, b"", "stands full with 16000 of 16384 bytes"),
    (9, 0, 9, 0, 0, b"", "killed by signal 9"),
]


def test_recordings():
    record = lambda at, kind, key, result, value, lasted, data: struct.pack(
        "<IIIIBBHiiqQ", 100, at * 1000000, len(data) + 28, len(data) + 28, 1, kind, 0, key, result, value, lasted) + data
    parts = [struct.pack("<IHHIIII", 0xA1B23C4D, 2, 4, 0, 0, 262144, 147)]
    parts += [record(at, *row[:-1]) for at, row in enumerate(RECORDED)]
    whole, path = b"".join(parts), pathlib.Path("/tmp/made.pcap")
    for end in [*range(24, len(whole), 7), len(whole)]:
        path.write_bytes(whole[:end])
        done = run("--read", str(path))
        lines = [line for line in done.stdout.splitlines() if not line.startswith("TIME")]
        kept = sum(len(b"".join(parts[: n + 1])) <= end for n in range(1, len(parts)))
        assert done.returncode == 0 and len(lines) == kept, (end, done)
        assert all(row[-1] in line for row, line in zip(RECORDED, lines)), lines
        assert ("ends in the midst" in done.stderr) == (end != len(b"".join(parts[: kept + 1])))
    for words, count in ("--lost", 3), ("--queue chronicler", 2), ("--opcode clocksteward", 4), ("--opcode 21-ff", 2), ("-c 1", 3):
        assert len(read(str(path), *words.split())) == count, words
    (sums,) = read(str(path), "--stats")
    assert sums["final"] and 0 < sums["busy"] < 1 and sums["opcodes"][0] | {"packets": 1, "lost": 1, "first": 32, "longestSeconds": 0.001} == sums["opcodes"][0]


UNPACKED = TOP / ".cache/wireshark/usr"
LIBRARIES = UNPACKED / "lib" / f"{os.uname().machine}-linux-gnu"
FIELDS = "opcode", "tag", "payload", "lost", "request_in"


def judge(tool, *words):
    """Lua wants a plain user, and tcpdump would look for another one."""
    return subprocess.run(["bwrap", "--unshare-user", "--uid", "7", "--gid", "7", "--dev-bind", "/", "/", UNPACKED / "bin" / tool, *words], capture_output=True,
                          env={**os.environ, "LD_LIBRARY_PATH": str(LIBRARIES), "WIRESHARK_DATA_DIR": str(UNPACKED / "share/wireshark")})


def tshark(path):
    """The fields of each frame as one line, and its words for people."""
    words = [word for field in FIELDS for word in ("-e", f"hubkeeper.{field}")]
    done = judge("tshark", "-r", path, "-T", "fields", "-X", f"lua_script:{os.environ['DISSECTOR']}", *words, "-e", "_ws.col.Info")
    assert done.stderr == b"" and done.returncode == 0, done.stderr
    return done.stdout.decode().splitlines()


def tcpdump(path):
    """Times of a file's frames, in nanoseconds, once libpcap has read it and written the same."""
    done = judge("tcpdump", "--nano", "-r", path, "-w", "-")
    assert b"link-type 147," in done.stderr and done.stdout == pathlib.Path(path).read_bytes(), done.stderr
    at, times = 24, []
    while at < len(done.stdout):
        seconds, nanoseconds, size = struct.unpack_from("<III", done.stdout, at)
        times.append(seconds * 10**9 + nanoseconds)
        at += 16 + size
    return times


@pytest.mark.skipif(not LIBRARIES.exists(), reason="scripts/setup --wireshark unpacks tshark and tcpdump")
def test_others_read_it():
    golden = [one["bytes"] for one in json.loads((TOP / "docs/vectors.json").read_text())["bundles"]]
    unrolled = [re.sub(r"(\w\w)\*(\d+)", lambda one: one[1] * int(one[2]), bundle) for bundle in golden]
    with Hub() as hub:
        queue("L").max_size = 0
        trace = Trace("--write", "/tmp/real.pcap")
        for bundle in [bytes.fromhex(one) for one in unrolled] + [text(f"{opcode:02x}") for opcode in range(255)]:
            if not {0x70, 0x72} & set(bundle[4:]):  # of which one ends the service, and one sleeps
                put(bundle), hub.settle(), take("R")
        lines = trace.end()
    frames, began = {}, {}  # the lines of each frame, and the frame of each Packet
    for line in lines:
        frames.setdefault(key := (line["nanoseconds"], line["what"]), []).append(line)
        began.setdefault(line.get("packet"), list(frames).index(key) + 2)
    assert tcpdump("/tmp/real.pcap")[1:] == [time for time, _ in frames]
    for frame, row in zip(frames.values(), tshark("/tmp/real.pcap")[1:], strict=True):
        if "kind" not in (first := frame[0]):
            continue
        names = [line["name"] if "name" in line else {"bad": "no Packet"}[line["kind"]] for line in frame]
        wanted = [
            ",".join(f"0x{line['opcode']:02x}" for line in frame if "opcode" in line),
            ",".join(str(line["tag"]) for line in frame if "tag" in line),
            ",".join(line["payload"] for line in frame if line["kind"] == "packet" and line["payload"]),
            str(int(first["lost"])),
            "" if first["what"] == "in" else str(began[first["packet"]]),
            f"{first['what']}: {', '.join(names)}" + (f"  LOST ({first['reason']})" if first["lost"] else ""),
        ]
        assert row.split("\t") == wanted
