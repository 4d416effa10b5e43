"""hubctl against the service, without its second of sleep at each end of a transfer. A row of a table is a status, what is
printed as a regular expression, and a line for the shell, in which hubctl stands on the path. No test takes from queue 1003: it
would be that queue's living reader."""
import json, os, pathlib, random, re, shutil, signal, subprocess

import pytest
from board import EXTRA_THREAD, KEYS, SANITIZED, TOP, Hub, clear_processes, put, queue, shell, texts, until
from hubkeeper import Peer

os.environ["PATH"] = os.path.dirname(os.environ["HUBCTL"]) + ":" + os.environ["PATH"]
OLD, NEW = b"old" * 5000, random.Random(1).randbytes(4_300_001)
TALKS = ["ping -c 1", "run ls", "version", "clocksteward on", "send /etc/ld.so.cache /opt/x", "get /etc/passwd x", "raw 0500070004"]


def see(status, pattern, line):
    done = subprocess.run(["sh", "-c", line], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60, cwd="/tmp")
    printed = done.stdout.decode(errors="surrogateescape")
    assert done.returncode == status and re.search(pattern, printed, re.S), (line, status, pattern, done.returncode, printed)
    return printed


def play(table):
    for row in filter(None, table.split("\n")):
        status, pattern, line = row.split(" | ", 2)
        see(int(status), pattern.strip(), line)


def start(*words, **how):
    return subprocess.Popen(["hubctl", *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **how)


def ready(hub):
    until(lambda: any("HubKeeper --> Ridgelink" in line for line in hub.console()))
    return hub


def waiting(letter):
    return queue(letter).current_messages


def begin():
    """A transfer of much, under way."""
    sender = start("send", "/tmp/much", "/opt/target")
    until(lambda: shell("ls /opt/target.hubctl-* && test -s /opt/target && echo begun").endswith("begun\n"))
    return sender


@pytest.fixture(autouse=True)
def opt(fresh_board):
    os.makedirs("/opt")
    pathlib.Path("/tmp/new").write_bytes(NEW)
    for size in (0, 1, 8187, 8188):
        pathlib.Path(f"/tmp/{size}").write_bytes(NEW[:size])


@pytest.fixture
def hub():
    with Hub("", ready=False) as service:
        yield ready(service)


def test_before_the_first_start():
    for words in TALKS:
        see(255 if "run" in words else 1, "queue 1002 .* does not exist:.*somebody has removed its queues", f"hubctl {words}")
    play(r"""
0 | inbound +1002 +- +missing.*removed its queues | hubctl queues
0 | ^ +key[^\n]*\n$                           | cat /proc/sysvipc/msg
0 | netsteward +1000 +- +hidden                | /usr/bin/python3 -c 'import sysv_ipc; sysv_ipc.MessageQueue(1000, 512, mode=0)'; unshare --user --map-root-user hubctl queues
""")


def test_usage():
    play(r"""
2 | Usage: hubctl                        | hubctl
2 | (no subcommand "bogus".*){2}         | hubctl bogus; hubctl help bogus
2 | -l is no option                      | hubctl run -l ls
2 | no queue "1004"                      | hubctl peek 1004
2 | (FILE has no name.*){3}                 | hubctl trace --read ""; hubctl trace --write ""; hubctl metrics --write ""
2 | (takes standard output.*){2}         | hubctl trace --write - --json; hubctl trace --write - --stats
1 | - has more than 16 MiB               | hubctl raw - </dev/zero
2 | "g" is no hexadecimal digit          | hubctl raw 0g
2 | no queue "a\.\[31m"                  | hubctl peek "$(printf 'a\033[31m')"
0 | ^hubctl [0-9]+\.[0-9]+\.[0-9]+$      | hubctl --version
""")
    for name in "ping run version clocksteward send get queues peek peers trace raw packet status metrics log explain check-config".split():
        see(0, f"Usage: hubctl {name} ", f"hubctl {name} --help; hubctl help {name}")


def test_heartbeats(hub):
    play("0 | 512 bytes.*bounce=.*3 heartbeats, 3 answered, 0 lost.*min/avg/max | hubctl -i 0 ping -c 0.3e1")
    see(0, "bounce=.*hubctl: cannot write to standard output", "hubctl ping -i 0.01 | head -n 1")
    for message in texts(".04 .00 87"):
        put(message, "R")
    play('0 | took 3 messages first.*"answered":2.*"lost":0.*"unbounced":0 | hubctl ping -c 2 -i 0 --json')
    ping = start("ping", "-i", "100")
    assert "time=" in ping.stdout.readline()
    ping.send_signal(signal.SIGINT)
    assert "1 heartbeat, 1 answered, 0 lost" in ping.communicate()[0] and ping.returncode == 0
    nohup = start("ping", "-c", "2", "-i", "0.2", preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
    nohup.stdout.readline(), nohup.send_signal(signal.SIGHUP)
    assert "2 answered" in nohup.communicate()[0]


def test_commands(hub):
    play(r"""
7 | ^out\nsh: .*exit status 7                  | hubctl run 'echo out; nonesuch; exit 7'
0 | ^it's \$HOME "x"\nexit status 0            | hubctl run "echo 'it'\\''s \$HOME \"x\"'"
0 | ^\{\} \[a\] %%\nexit                       | hubctl run echo {} '[a]' %%
0 | ^last\nexit                                | hubctl run "$(printf 'false\necho last # and a comment')"
2 | Syntax error.*exit status 2                | hubctl run 'echo "'
2 | ^ls: .*exit status 2                       | hubctl run 'ls \'
0 | ^exit status 0 after \d\d?\.              | hubctl run 'sleep 100 &'
0 | ^exit status 0                             | hubctl run cat
0 | ^/tmp/1\nexit                              | hubctl run -- ls -d /tmp/1
124 | exit status 124.*stopped by the time-out | hubctl run --timeout 0.1 'trap "" TERM; while :; do sleep 0.1; done'
124 | exit status 124 after [0-9.]* s$         | hubctl run --timeout 9 exit 124
255 | cannot write to standard output          | hubctl run --json 'exit 2' >/dev/full
255 | was ended before it could tell           | hubctl run --timeout 9 'kill -9 $PPID'
4 | "base64":"Yf9i","bytes":3,"cut":false,"output":"a.*b","status":4,"timedOut":false | hubctl run --json 'printf "a\377b"; exit 4'
0 | cut after 4\d\d of 3893 bytes; --all       | hubctl run seq 1000
0 | ^two\n*$                                   | hubctl run --raw 'echo one; echo two'
0 | 507 bytes came back.*may be cut            | hubctl run --raw seq 1000
255 | takes 999 characters .* this has 10      | hubctl run --raw "echo $(printf '%0999d' 0)"
3 | \n2000\nexit status 3                      | hubctl run --all 'seq 2000; exit 3'
0 | ^it's\nend\nexit status 0                  | printf "echo it\\\\'s\n#%03000d'\necho end" 0 >s; hubctl run --file - <s
255 | did not run the commands: .* is older     | ln -s /etc/ld.so.cache on; mv on cmdresp.txt; hubctl run true; status=$?; rm cmdresp.txt; exit $status
255 | HubKeeper .* has ended meanwhile         | hubctl run 'kill -9 $(ps -o ppid= $PPID)'
""")
    hub.wait(), hub.launch(False), ready(hub)
    for namespace in ("", "unshare --user --map-root-user "):  # which may not read below /proc/PID/root: in pieces
        see(0, "", namespace + "hubctl run --all cat /tmp/8188 >out 2>err; cmp out 8188")
    running = start("run", "--all", "touch /tmp/on; until [ -e /tmp/off ]; do sleep 0.01; done; echo late")
    until(os.path.exists, "/tmp/on")
    running.send_signal(signal.SIGINT)
    assert "interrupted" in running.communicate()[0] and running.returncode == 255
    pathlib.Path("/tmp/off").touch()
    see(0, "1 answered", "hubctl ping -c 1")
    assert shell("ls /tmp/hubctl.*") == ""


def test_small_requests(hub):
    play(r"""
1 | no version to report               | hubctl version
0 | ^board 7\n\{"version":"board 7\\n" | echo 'board 7' >/etc/build-version; hubctl version; hubctl version --json
0 | ^v\x1b7v\.7\r?\n$                 | printf 'v\0337' >/etc/build-version; hubctl version; script -qec 'hubctl version' /dev/null
0 | not taken its last message, but process \d+, gone | /usr/bin/python3 -c 'import sysv_ipc; sysv_ipc.MessageQueue(1002).receive()' & until hubctl status | grep ' reads queue 1002 beside'; do :; done; for i in 1 2; do hubctl ping -c 1 -w 1; done; true
0 | switched off.*switched on          | hubctl clocksteward off; hubctl clocksteward on
""")
    until(lambda: sum("has been disabled" in line or "has been enabled" in line for line in hub.console()) == 2)


def test_transfers(hub):
    """Sizes around the chunk, odd names, an old target that is longer; Stagehand hears of each. And back again."""
    targets = [(0, "/opt/empty"), (1, "/opt/it's \"one\" \\t\n$HOME"), (8187, "/opt/old"), (8188, "/opt/old"), ("new", "/opt/big")]
    for name, target in targets:
        assert "size and SHA-256 are the same" in start("send", f"/tmp/{name}", target).communicate()[0]
        assert pathlib.Path(f"/tmp/{name}").read_bytes() == pathlib.Path(target).read_bytes()
    play(rf"""
0 | "same":true,.*"target":"/opt/8188"                  | hubctl send --json /tmp/8188 /opt/
0 | 70 transfer start .*"opt/it's "one" .t..HOME\.".*72 transfer end | hubctl peers stagehand -n {2 * len(targets) + 2}
0 | are the same.*741                                   | chmod 741 /opt/old; hubctl send /tmp/1 /opt/old; stat -c %a /opt/old
0 | are the same.*4751                                  | hubctl send --mode 4751 /tmp/1 /opt/mode; stat -c %a /opt/mode
0 | are the same                                        | hubctl send /proc/version /opt/cpu
0 | are the same                                        | cp "$(which sleep)" runs; ./runs 99 & until [ "$(cat /proc/$!/comm)" = runs ]; do :; done; hubctl send /tmp/1 /tmp/runs; kill $!
0 | are the same                                        | cd /opt; hubctl get /opt/big back; cmp back big
1 | back is there already                               | cd /opt; hubctl get /opt/old back
0 | "same":true.*"target":"back".*600                   | cd /opt; chmod 600 back; hubctl get --json --force /opt/old back; cmp back old; stat -c %a back
1 | cannot write part: File too large                   | cd /opt; ulimit -f 9; hubctl get /opt/big part
1 | /opt is not a file on the board                     | hubctl get /opt /tmp/nothing
1 | came differently: SHA-256 0.*gone$                  | printf '#!/bin/sh\nprintf %%064d $$' >/usr/local/bin/sha256sum; chmod +x /usr/local/bin/sha256sum; hubctl get /tmp/1 odd; s=$?; ls odd* || printf gone; exit $s
1 | "boardBytes":1,.*"same":null.*is missing.*"same":null.*is missing | printf '#!/bin/sh\nexit 1' >/usr/local/bin/sha256sum; hubctl get --json /tmp/1 odd; hubctl send --json /tmp/1 /opt/x; s=$?; rm /usr/local/bin/sha256sum; exit $s
""")
    assert waiting("S") == 10 and shell("ls -A /opt | grep hubctl") == ""


def test_refused_transfers(hub):
    """Nothing is touched: not the target, and not the transfer that somebody else has open."""
    for name in ("good", "self"):
        pathlib.Path("/opt", name).write_bytes(OLD)
    os.symlink("self", "/opt/link"), os.link("/opt/self", "/opt/hard"), os.symlink("loop", "/opt/loop"), os.mkfifo("/tmp/fifo")
    play(r"""
1 | its directory does not exist       | hubctl send /tmp/1 /nodir/x
1 | it is a directory                  | hubctl send /tmp/1 /opt
1 | a link that leads nowhere          | hubctl send /tmp/1 /opt/loop
1 | its path is too long               | d=/opt/$(printf %0247d/%0247d 0 0); mkdir -p $d; hubctl send /tmp/1 $d/x
1 | names that end so                  | hubctl send /tmp/1 /opt/good.hubctl-old
1 | fifo is not a regular file         | hubctl send /tmp/fifo /opt/good
1 | Read-only file system              | hubctl send /tmp/1 /usr/lib/x
1 | the very file                      | hubctl send /opt/self /opt/../opt/link
1 | the very file                      | hubctl send /opt/self /opt/hard
1 | HubKeeper's own                    | hubctl send /tmp/1 /tmp/cmdresp.txt
1 | disk has 64 KiB free, .* 4.1 MiB   | hubctl send /tmp/new /media/small/x
0 | transfer start +bounce             | hubctl raw -w 0.5 0d00000070 6f70742f6c6f6e 00
1 | stands open, that of /opt/lon\n.*hubctl raw 05 00 00 00 72 | hubctl send /tmp/8187 /opt/good
0 | transfer end +bounce               | hubctl raw -w 0.5 05 00 00 00 72
""")
    for size, status in ((900, 1), (2000, 0)):
        queue("I").max_size = size
        see(status, "room for 900 bytes only|are the same", f"hubctl send /tmp/8187 /opt/{('good', 'small')[size > 900]}")
    slow = pathlib.Path("/usr/local/bin/mv")  # somebody else begins one behind the look
    slow.write_text('#!/bin/sh\ntouch /tmp/on; until [ -e /tmp/off ]; do sleep 0.01; done; exec /usr/bin/mv "$@"'), slow.chmod(0o755)
    sender = start("send", "/tmp/1", "/opt/good")
    until(os.path.exists, "/tmp/on"), put(texts('70"opt/theirs\\00"')[0]), pathlib.Path("/tmp/off").touch()
    assert re.search("has not begun.*again what it was", sender.communicate()[0], re.S)
    put(b"".join(texts('71"all of it" 72')))
    until(lambda: pathlib.Path("/opt/theirs").read_bytes() == b"all of it")
    assert all(pathlib.Path("/opt", name).read_bytes() == OLD for name in ("good", "self"))


@pytest.mark.parametrize("old", [OLD, None], ids=["old", "new"])
def test_broken_transfers(hub, old):
    """Whatever ends a transfer, the old target comes back, or the new one goes, and the next transfer can begin."""
    target, slow = pathlib.Path("/opt/target"), pathlib.Path("/usr/local/bin/sha256sum")
    pathlib.Path("/tmp/much").write_bytes(b"x")
    os.truncate("/tmp/much", 60_000_000)

    again = "is again what it was before" if old else "was removed again"
    for harm, said in (
            (lambda: (hub.stop(), sender.send_signal(signal.SIGINT), hub.go_on(), sender.send_signal(signal.SIGINT)), "interrupted"),
            (lambda: (hub.process.kill(), hub.wait(), hub.launch(False)), "HubKeeper .*(has ended|anew) meanwhile"),
            (lambda: (slow.write_text("#!/bin/sh\n>/tmp/on; sleep 1"), slow.chmod(0o755), until(os.path.exists, "/tmp/on"), slow.unlink(),
                      sender.send_signal(signal.SIGINT)), "interrupted while the file was summed up"),
            (lambda: os.truncate(target, 0), "differs on the board")):
        target.unlink(missing_ok=True)
        if old:
            target.write_bytes(old)
        sender = begin()
        harm()
        printed = sender.communicate()[0]
        assert sender.returncode == 1 and re.search(f"{said}.*{again}", printed, re.S), printed
        assert (target.read_bytes() if target.exists() else None) == old and os.listdir("/opt") == ["target"] * bool(old)
    sender = begin()
    sender.kill(), sender.wait()
    play(rf"""
1 | stands open, that of /opt/target | hubctl send /tmp/1 /opt/target
0 | transfer end +bounce             | hubctl raw -w 0.5 05 00 00 00 72
1 | was killed\n.*{'again what it was' if old else 'may be incomplete'}.*free, and the file has | truncate -s 9T huge; hubctl send huge /opt/target
0 | are the same                     | test -s /opt/target && hubctl send /tmp/1 /opt/target
""")
    assert sum("Tried to write bad" in line for line in hub.console()) < 5 and os.listdir("/opt") == ["target"]


def test_a_shell_that_outlives_its_hub(hub):
    """It prints into no later reply, and leaves alone what a later transfer has put aside or back."""
    target, off = pathlib.Path("/opt/target"), pathlib.Path("/tmp/off")
    wait = "touch /tmp/on; until [ -e /tmp/off ]; do sleep 0.01; done"
    pathlib.Path("/tmp/much").write_bytes(b""), os.truncate("/tmp/much", 60_000_000), target.write_bytes(OLD)

    def outlived(*words):
        talk = start(*words)
        until(os.path.exists, "/tmp/on"), hub.process.kill(), hub.wait(), hub.launch(False), os.remove("/tmp/on")
        return talk.communicate()[0]

    def let_go(word):
        off.touch(), until(lambda: word not in shell("ps -eo args")), off.unlink()
    assert "has ended meanwhile" in outlived("run", f"{wait}; echo late")
    see(0, r"(^|\n)end\nexit status 0[^\n]*\n$", "hubctl run 'touch /tmp/off; while ps -eo args | grep -q \"[u]ntil\"; do :; done; echo end'")
    for tool, when, word, said in (("sha256sum", "readlink /proc/self/fd/0 | grep -q ^/opt", "wc -c", "is again what it was before"),
                                   ("stat", "[ -e /opt/target.hubctl-old ]", "chmod $m", "is again what it was before"),
                                   ("mv", "true", "chmod $m", "was not touched")):
        off.unlink(missing_ok=True), (slow := pathlib.Path("/usr/local/bin", tool)).write_text(f'#!/bin/sh\n! {when} || {{ {wait}; }}\nexec /usr/bin/{tool} "$@"')
        slow.chmod(0o755)
        assert said in outlived("send", "/tmp/1", "/opt/target")
        slow.unlink()
        if tool == "stat":  # goes on between two transfers, the others beside the next one
            let_go(word)
        assert target.read_bytes() == OLD
        sender = begin()
        hub.stop(), let_go(word), sender.send_signal(signal.SIGINT), hub.go_on()
        assert "is again what it was before" in sender.communicate()[0] and target.read_bytes() == OLD and os.listdir("/opt") == ["target"]


def test_any_bytes_and_views(hub):
    play(r"""
0 | MS .* 1 +04 heartbeat +bounce.* 512 +7  80 heartbeat reply +.*507 times | hubctl raw -w 0.5 05:00,07 00 04
0 | "kind":"bounce".*"name":"heartbeat reply","opcode":128,"payload":"0 | echo 0500070004 | hubctl raw -w 0.5 --json -
0 | 01 to netsteward +bounce\n.* 30 to chronicler +bounce\n.* ff unknown +bounce | hubctl raw -w 0.5 0800070001 61ff62 050008003005
0 | 01 to netsteward +bounce\n.* 02 to netsteward +bounce | hubctl packet -w 0.5 01 --tag 9 --hex '61 20 62' 0x02 --text --
2 | messages of 8192 bytes at most .* this has 8193 | hubctl raw "$(printf '%016386d' 0)"
0 | 1       8      7  01 to netsteward +61 ff 62  "a.b"\n   2       8      9  01 to netsteward +61 20 62  "a b"\n   3       7      0  02 to netsteward +2d 2d  "--"\n$ | hubctl peek 1000
0 | ^\[\[\{"kind":"packet","length":8,"name":"to netsteward","opcode":1,"payload":"61ff62","tag":7\}\],\[ | hubctl peek --json netsteward
0 | OWNER +MODE.*netsteward +1000 +3 .* 0 +0644 .*! netsteward: nobody drains it: no process has ever read from it | hubctl queues --long
0 | netsteward +1000 +3 .*unseen.*another PID namespace | unshare --user --map-root-user --pid --fork hubctl queues
1 | taken by a process in another PID namespace     | unshare --user --map-root-user --pid --fork hubctl ping -c 1
1 | HubKeeper does not run.*1 lost                  | unshare --ipc sh -c "echo $(ipcs -q | awk '/^0x000003ea/ {print $2}') >/proc/sys/kernel/msg_next_id; /usr/bin/python3 -c 'import sysv_ipc; sysv_ipc.MessageQueue(1002, 512)'; hubctl ping -c 1 -w 0.1"
1 | removed its queues, or they are in another IPC  | unshare --user --map-root-user --ipc hubctl ping -c 1
0 | netsteward +8 +7  01 .*chronicler +5 +8  30     | hubctl peers -n 4
""")
    see(0, f'"alive":true,"doubtful":false,"name":"[^"]*","pid":{hub.pid}', "hubctl queues --json")
    queue("C").remove()  # one that is missing waits for the service
    peers = start("peers", "clocksteward", "--json", "-n", "1")
    assert "1011 (clocksteward) does not exist yet" in peers.stdout.readline() and "\n1011 " not in shell("hubctl queues")
    until(lambda: shell("hubctl raw -w 0.1 0500010028") and peers.poll() is not None)  # the first one goes to the queue that was
    taken = json.loads(peers.stdout.read())
    assert (taken["name"], taken["queue"], taken["tag"]) == ("to clocksteward", "clocksteward", 1)


def test_one_reader(hub):
    reads = "import sysv_ipc,sys; queue = sysv_ipc.MessageQueue(int(sys.argv[1])); [queue.receive() for _ in iter(int, 1)]"
    readers = [subprocess.Popen(["/usr/bin/python3", "-c", reads, str(KEYS[letter])]) for letter in "RN"]
    put(b"\0", "N"), until(lambda: waiting("N") == 0)  # the other one has taken nothing yet, and waits
    until(lambda: "one reader alone" in shell("hubctl version 2>&1"))
    for words in TALKS:
        status, pattern = 255 if "run" in words else 1, f"process {readers[0].pid} .* reads queue 1003 .*one reader alone.*--force"
        see(status, pattern, f"hubctl {words}")
    if not SANITIZED:  # a sanitizer looks at memory through descriptors
        see(1, "/proc cannot be read, so who reads queue 1003", "ulimit -n 4; hubctl ping -c 1")
    play(rf"""
1 | 1 heartbeat,                                 | hubctl ping -c 1 -w 0.1 --force
1 | process {readers[1].pid} .* reads queue 1000 | hubctl peers
""")
    for reader in readers:
        reader.kill(), reader.wait()
    for lock in (":", "rm /run/*.lock; mkdir /run/hubctl-$(stat -Lc %i /proc/self/ns/ipc).lock"):  # as to who may not open it
        shell(lock)
        sessions = [start("run", f"sleep 0.5; echo {number}") for number in range(4)]
        printed = [session.communicate()[0] for session in sessions]
        assert all(f"{number}\nexit status 0" in out for number, out in enumerate(printed)), "".join(printed)
        assert sum("waiting for another hubctl" in out for out in printed) >= 2, printed
    shell("rmdir /run/*.lock")
    sleeper = start("run", "sleep 1000")
    until(lambda: "sleep 1000" in shell("ps -eo args | grep -x 'sleep 1000'"))
    for namespace in ("", "unshare --user --map-root-user --pid --fork "):
        see(1, "another hubctl,? .*still talks to HubKeeper after 0.1 s", namespace + "hubctl ping --force -w 0.1")
    sleeper.kill()


def test_whose_number_it_is(hub):
    """A reader that took a message just now is not stuck; its number, given anew later, is nobody's."""
    reads = "import sysv_ipc, os; sysv_ipc.MessageQueue(1000).receive(); print(os.getpid(), flush=True); input()"
    reader = subprocess.Popen(["/usr/bin/python3", "-c", reads], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    put(b"\0", "N"), reader.stdout.readline(), put(b"\0", "N")
    assert "!" not in shell("hubctl queues")
    until(lambda: re.search("busy or stuck; newest message ([5-9]|[0-9]{2,}) s old", shell("hubctl queues")))
    pathlib.Path("/tmp/stat").write_text(re.sub("btime .*", "btime 9999999999", open("/proc/stat").read()))  # the clock is set
    see(0, rf" {reader.pid}\? .*! netsteward: [^!]*has the number of the last reader",
        "unshare --user --map-root-user --mount sh -c 'mount --bind /tmp/stat /proc/stat; hubctl queues'")
    reader.send_signal(signal.SIGSTOP)
    until(lambda: "is stopped by a signal" in shell("hubctl queues"))
    reader.send_signal(signal.SIGCONT)
    reader.communicate()
    pathlib.Path("/proc/sys/kernel/ns_last_pid").write_text(str(reader.pid - 1))
    stranger = subprocess.Popen(["sleep", "1000"])
    see(0, f" {stranger.pid}, gone .*its last reader, process {stranger.pid}, is gone", "hubctl queues")
    Peer("netsteward")


@pytest.mark.parametrize("what, wide, narrow", [  # the titles of queues are 79 columns wide, and nothing of them is erased
    ("queues", rb"LAST RECEIVER.*ridgelink.*\[\.*\]", rb"LAST RECEIVER   IDLE(\x1b\[0m)?\x1b\[4;1H((?!\.\.\.).)*ridgelink"),
    ("status", rb"such file or directory.*ridgelink", rb"such\x1b\[K\x1b\[5;1H  file or directory((?!\x1b\[25;).)*ridgelink")])
def test_watching(hub, what, wide, narrow):
    """On a terminal: a screen of its own, which follows the terminal's size at once and is left in the end."""
    line = f"stty cols 120; echo $$ >pid; tty >name; exec hubctl {what} --watch -i 1000"
    watching = subprocess.Popen(["script", "-qfc", line, "screen"], cwd="/tmp", stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)

    def until_seen(wanted):
        until(lambda: os.path.exists("/tmp/screen") and re.search(wanted, pathlib.Path("/tmp/screen").read_bytes(), re.S))
    until_seen(rb"\x1b\[\?1049h.*" + wide)
    shell("stty cols 79 rows 24 <$(cat /tmp/name)")
    until_seen(rb"\x1b\[2J.*\x1b\[2J.*" + narrow)
    shell("kill -INT $(cat /tmp/pid)"), until_seen(rb"\x1b\[\?1049l"), watching.wait()


def test_no_answer(hub):
    """Why, and nothing is left behind that would be carried out later."""
    busy = "busy" if EXTRA_THREAD else r"busy with a command, process \d+ \(sleep\)\n.*kill \d+"
    see(255, f"no answer within 0.5 s.*{busy}", "hubctl run -w 0.5 sleep 1000")
    shell("kill $(ps -eo pid,args | grep '[s]leep 1000' | sed 's/^ *//; s/ .*//')")
    until(lambda: "1 answered" in shell("hubctl ping -c 1 -w 1"))
    long = start("run", "-w", "0.1", "echo " + "x" * 90000)
    until(lambda: shell("ls /tmp/hubctl.*")), hub.stop(), long.wait(), hub.go_on()
    until(lambda: shell("ls /tmp/hubctl.*") == "" and waiting("I") == 0), hub.stop()
    play(r"""
255 | no answer within 0.1 s.*holds 1 message, .*is stopped by a signal.*taken back | hubctl run -w 0.1 touch /tmp/late
1 | 2 heartbeats, 0 answered, 2 lost | hubctl ping -c 2 -w 0.1 -i 0
""")
    assert waiting("I") == 0
    put(b"".join(texts('04 01"\\aa" =\\ff\\ff')))
    play(r"""
0 | 1       5      7  04 heartbeat\n           6      7  01 to netsteward .*\n           2         no Packet +ff ff | hubctl peek inbound
0 | ! inbound: not drained: HubKeeper \(process \d+\) is stopped | hubctl queues
""")
    put(b"\0" * 8192), put(b"\0" * 8179)
    see(255, "full for 0.[0-9]* s, so nothing was sent.*holds 3 messages, 16384 of", "hubctl run -w 0.1 ls")
    hub.go_on()
    until(lambda: waiting("I") == 0)
    see(0, "took [0-9]+ messages first", "hubctl ping -c 1")
    assert not os.path.exists("/tmp/late")
    queue("I").mode = 0o444  # to root without capabilities, what 0644 is to a plain user
    put(texts("04")[0]), until(lambda: waiting("R"))
    see(1, "cannot send on queue 1002 .*Permission denied", "setpriv --bounding-set=-all hubctl ping -c 1")
    assert waiting("R") > 0
    hub.process.kill(), hub.wait()
    play(r"""
0 | inbound +1002 .*[0-9]+, gone +[0-9]+, gone | hubctl queues
1 | HubKeeper does not run.*taken back         | hubctl version -w 0.1
""")


def test_output_that_cannot_be_written(hub):
    for words in ("run echo x", "queues", "queues --json", "raw -w 0.1 0500000004", "peek inbound", "--version", "peers -n 1", "help"):
        put(texts("01")[0])
        for where in (">/dev/full", ">&-"):
            see(255 if words[:3] == "run" else 1, "cannot write ", f"hubctl {words} {where}")
    for words, status in (("bogus", 2), ("version -w 0.1", 1), ("run true", 255)):
        see(status, "^$", f"hubctl {words} 2>/dev/full >&2"), see(status, "^$", f"hubctl {words} 2>&- >/dev/null")


@pytest.mark.skipif(SANITIZED, reason="slower than the tour's naps")
def test_tour():
    built = os.path.dirname(os.environ["HUBCTL"]) + "/../.."
    shown = see(0, "That was the tour", f"HUBKEEPER_TOUR={built} {TOP}/scripts/demo --quick >tour 2>&1; cat tour")
    assert re.findall(r"\(exit status (\d+)\)", shown) == ["1"]  # of the configuration with traps


def test_configurations():
    """The text alone, for another machine; then the same with a look at this one."""
    for row in r"""
0|^watched  /bin/a\nwatched  /bin/b=c\nwatched  /bin/\.31m\n|service=/bin/a\nservice=/bin/b=c\ndebug=false\nservice=/bin/\03331m\n
1|not watched  line 2: the comment above swallows .* not "service".*5: the empty line above.*7: the text without "="|# first\nservice=/bin/a\nservice=/bin/b\n\nservice=/bin/a\nhello\nservice=/bin/c\n
1|line 1: a blank or carriage return beside "service".*line 2: "SERVICE" must be written in small|service = /bin/a\nSERVICE=/bin/a\n
1|line 2: "/bin/b." .* carriage return.*line 3: "/bin/a -v" .* arguments|service=/bin/a\nservice=/bin/b\r\nservice=/bin/a -v\n
1|longer than 511 characters.*no service is watched|service=%0512d\n
1|not watched  /bin/a.debug is on|debug=true\nservice=/bin/a\n
0|trap  line 1: "true." is not "true".*the key "colour" is not known.*"/bin/a" stands here twice|debug=true\r\nservice=/bin/a\ncolour=red\nservice=/bin/a\n
0|trap  line 2: the empty line at the end|service=/bin/a\n\n
0|trap  line 2: "service" without "=" repeats the value "/bin/a"|service=/bin/a\nservice
1|line 1: an unseen byte-order mark.*2: the key "services" .*3: the key "sevice" .*4: the key "export service" .*"/e" is not|\357\273\277service=/a\nservices=b\nsevice=c\nexport service=/e\nservice=/d\n
""".strip().split("\n"):
        status, pattern, content = row.split("|")
        see(int(status), pattern, f"printf '{content}' | hubctl check-config --elsewhere -")
    play(r"""
1 | cannot read /etc/qd/svcmanager.conf: No such file | hubctl check-config
1 | FILE has no name.*cannot read /etc: Is a directory | hubctl check-config ""; hubctl check-config /etc
1 | "processes":\[\],"services":\[\],"traps":\[\{"blocks":false,"line":2,"text":".*","unwatched":true\}\] | printf '# x\nservice=/bin/a\n' | hubctl check-config --json /dev/stdin
1 | line 200000: "/bin/200000" .* no such file.*no service | seq -f 'service=/bin/%.0f' 200000 | hubctl check-config -
1 | "/tmp/it" is shown by process \d+ now, .* once that has ended: there is no such | cp /usr/bin/sleep it; /tmp/it 9 & until pgrep -x it; do :; done; rm it; echo service=/tmp/it | hubctl check-config -; s=$?; kill $!; exit $s
0 | watched  /usr/bin/sleep  process \d+     | echo service=/usr/bin/sleep >c; /usr/bin/sleep 9 & until hubctl check-config c | grep process; do :; done; kill $!
""")


SIGNS = [*"""!"#$&'()*;<=>?[\\]^`{|}~""", "''", "&&", ";;", "$x", "$1", "${x}", "$(x)", "{a,b}", "[t]", "\\\\", "\udca0", "\x01", "é"]
ODD = [form.format(sign) for sign in SIGNS for form in ("/opt/it{}", "{}/opt/it", "/opt/i{}t")] + [line % "/opt/held" for line in (
    "%s # x", "%s a; echo", "%s; true", "%s \\", "%s\0x", "cd /; %s", ": # %s", "%s 'x;'", "%s && a", "%s;", "%s &", "%s $(", "%s\\ ", "x=1 %s",
    "(%s); :", "if %s; then :; fi", "(%s)", "%s >/dev/null 2>&1", "%s >y\\", "%s && : # x", "exec %s", "exec %s; :", "%s & # x", "%s <",
    "%s a\tb", "a; %s)")]
NAMES = ["by_path", "none", "kill", "while", "", " /opt/it", "./it", *("/opt/" + "n" * 250 + "/" + "n" * size for size in (250, 255)),
         *map("/opt/".__add__, "folder script named dash text empty cut link dangling plain none below through other login".split())]
FILES = r"""cd /opt; cp held i; rm -f it\& none; mkdir folder; printf '#!/bin/sh\nread x\n' >script; printf '#!/bin/bash\nexec -a $0 /opt/held\n' >named
    sed s/bash/sh/ named >dash; echo sleep 9 >text; : >empty; head -c 999 held >cut; ln -s it# link
    printf '#!/bin/bash\n: $#; (exec -c \\\n-a "$0" /opt/held)\n' >below; sed '1s/bin.*/usr\/bin\/env sh/' named >through; sed s/-a/-la/ named >login
    printf '#!/usr/bin/python3\nimport os\nos.execv("/opt/held", ["/opt/other"])\n' >other; ln -s none dangling; cp held plain; cp held /usr/local/bin/by_path; chmod +x *; chmod -x plain"""


def test_configurations_against_the_service():
    """An entry is called watched if it is found again after its restart, else it is restarted in each cycle; and blocking if the
    monitor thread then waits. A program of the very name that an entry spells is there, so that only the shell's reading counts."""
    config, entries = pathlib.Path("/etc/qd/svcmanager.conf"), [*ODD, *NAMES]
    for path in (os.path.join("/run", name) for name in ["/opt/held", *ODD, *NAMES[6:9]] if "\0" not in name):
        os.makedirs(os.path.dirname(path), exist_ok=True), shutil.copy(os.environ["IDLE_SERVICE"], path)
    shell(FILES)

    def monitor(names):
        config.write_bytes("".join(f"service={name}\n" for name in names).encode(errors="surrogateescape"))
        return Hub("20")  # the monitor thread's 5 seconds take a tenth of one
    with monitor(entries):
        traps = {trap["line"]: trap for trap in json.loads(shell("hubctl check-config --json"))["traps"] if trap["unwatched"]}
    watched = {entry for line, entry in enumerate(entries, 1) if line not in traps}
    blocking, unsure = ([entries[line - 1] for line, trap in traps.items() if word in trap["text"]] for word in (" it waits ", " may wait "))
    calm = [entry for entry in entries if entry not in blocking + unsure]
    assert len(watched) > 40 and len(blocking) > 6 and len(unsure) == 2
    for some in (calm[first::8] for first in range(8)):
        with monitor([*some, "/none"]) as hub:
            def as_said():  # in the last whole cycle, which the last entry ends
                lines = [line[25:-20] for line in hub.console() if line.endswith(" has stopped running")]
                ends = [at for at, line in enumerate(lines) if line == "/none"]
                return ends[1:] and {*some} - {*lines[ends[-2]:ends[-1]]} == watched & {*some}
            until(as_said)
        clear_processes()
    with monitor(blocking) as hub:
        for number, entry in enumerate(blocking, 1):
            def held():  # what the hub waits for: its shell or the shell's child, when no later entry has had its turn
                below = shell(f"pgrep -P {hub.pid}").replace("\n", " ").strip() or "0"
                return sum("has stopped" in line for line in hub.console()) == number and re.findall(
                    r"(?m)^ *(\d+) (?:held|i)$", shell(f"ps -o pid=,comm= -p '{below}' --ppid '{below}'"))
            os.kill(int(until(held)[0]), signal.SIGKILL)
