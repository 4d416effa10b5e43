"""Whole processes: the start, the end, what is left behind, and the services that are watched."""
import os, pathlib, re, shutil, signal, subprocess

import pytest
from board import KEYS, PATIENCE, SANITIZED, TOP, Hub, like, put, queue, shell, take, text, until

VERSION = re.search(r'appVersion = "(.*?)"', (TOP / "src/hub/settings.cpp").read_text())[1]
CONFIG = pathlib.Path("/etc/qd/svcmanager.conf")
TOOLS = """cd /usr/local/bin; echo 'printf "kernel $1\\n%0127d\\n%%s a%0126d" 0 0' >uname; echo 'echo firmware $*' >fw_printenv
           sed -i 1i#!/bin/sh *; chmod +x *; echo 20000000 >/proc/sys/kernel/msgmnb"""
START = """I HubKeeper version: {0} | I HubKeeper: {0} | I .. | I HubKeeper Attempting to createQues
 | E HubKeeper Netsteward msg queue size is :{1} | E HubKeeper Netsteward msg queue size is :10485760
 | I Ridgelink --> HubKeeper       Queue ID: {ids[I]} | I HubKeeper --> Netsteward Queue ID: {ids[N]} | I HubKeeper --> Chronicler       Queue ID: {ids[L]}
 | I HubKeeper --> Stagehand       Queue ID: {ids[S]} | I HubKeeper --> Ridgelink       Queue ID: {ids[R]}
 | I kernel -a |  | I {2} | I  |  | I %s a{3} | I 000 | I firmware -n ver | """


def test_a_start_leaves_its_record_and_opens_its_queues():
    shell(TOOLS)
    read, write = os.pipe()
    for size in "20000000", "10485760":  # the second start finds what the first one left
        with Hub(ready=False, stdin=read) as hub:
            until(lambda: "INFO firmware -n ver" in hub.console()[:-1])
            ids = {letter: queue(letter).id for letter in KEYS}
            wanted = re.split(r"\n? \| ", START.format(VERSION, size, "0" * 127, "0" * 123, ids=ids))
            assert [*map(like, hub.console(), wanted)] == [True] * len(hub.console()), hub.console()
            until(lambda: len(os.listdir(f"/proc/{hub.pid}/fd")) == 5 and not shell(f"pgrep -P {hub.pid}"))
            until(lambda: hub.flags(0) & os.O_NONBLOCK)
    console = open("/tmp/console").read()
    assert open("/media/data/messages.log").read() == console
    assert re.match(r"INFO \d\d [A-Z][a-z]{2} 20\d\d \d\d:\d\d:\d\d HubKeeper version: [\d.]+ \n.*\n"
                    r".* HubKeeper Build Date: [A-Z][a-z]{2} [ \d]\d 20\d\d [\d:]{8} \n", console)
    assert open("/usr/local/bin/AppVersionFile.txt").read() == f"HubKeeper:{VERSION}\n" * 2
    assert {queue(letter).mode & 0o777 for letter in KEYS} == {0o644} and len(open("/proc/sysvipc/msg").readlines()) == 1 + len(KEYS)


def test_the_calls_of_a_start():
    """Of each thread, in its order. Detached is 1, SCHED_RR is 2; nothing is inherited explicitly, no argument handed over."""
    with Hub("0", ready=False):
        def calls():
            lines = open("/tmp/calls").read().splitlines() if os.path.exists("/tmp/calls") else []
            lines = [line for at, line in enumerate(lines) if "clock_nanosleep" not in line or line not in lines[:at]]
            return "\n".join(sorted(lines, key=lambda line: line.split()[0])) + "\n"
        wanted = (TOP / "tests/start.txt").read_text()
        try:
            until(lambda: calls() == wanted)
        except AssertionError:
            assert calls() == wanted


# The call that fails, how often it succeeds before, and the lines: the process ends with the last two, or goes on.
STEPS = """
sched_get_priority_max      | 0 | E HubKeeper scheduling thread priority failed            | sched_get_priority_max failed: No space left on device
pthread_attr_setschedparam  | 0 | E HubKeeper scheduling inbound thread param failed       | pthread_attr_setschedparam inbound failed: No space left on device
pthread_attr_setdetachstate | 0 | E HubKeeper scheduling inbound thread detach state failed | pthread_attr_setdetachstate inbound failed: No space left on device
pthread_attr_setschedparam  | 1 | E HubKeeper scheduling monitor thread param failed       | pthread_attr_setschedparam monitor failed: No space left on device
pthread_attr_setdetachstate | 1 | E HubKeeper scheduling monitor detach state failed       | pthread_attr_setdetachstate monitor failed: No space left on device
pthread_create              | 0 | E HubKeeper failed to create inbound thread              | pthread_create inbound failed: No space left on device
pthread_create              | 1 | E HubKeeper failed to create monitor thread              | pthread_create monitor failed: No space left on device
pthread_attr_destroy        | 0 | E HubKeeper failed to destroy inbound thread             | pthread_attr_destroy inbound failed: No space left on device
pthread_attr_destroy        | 1 | E HubKeeper failed to destroy monitor thread             | pthread_attr_destroy monitor failed: No space left on device
msgget                      | 0 | E HubKeeper failed to open inbound message queue         | msgget: No space left on device
msgget                      | 1 | E HubKeeper failed to open Netsteward inbound queue      | msgget: No space left on device
msgget                      | 2 | E HubKeeper failed to open Clocksteward inbound queue    | msgget: No space left on device
msgget                      | 3 | E HubKeeper failed to open Chronicler inbound queue      | msgget: No space left on device
msgget                      | 4 | E HubKeeper failed to open Stagehand inbound queue       | Out to stagehand queue setup failed: No space left on device
msgget                      | 5 | E HubKeeper failed to open outbound queue                | In From Ridgelink queue setup failed: No space left on device
msgctl                      | 0 | E ..queue stats | E ..size is :0 | E ..failed to be adjusted: No space left on device | E ..queue stats | E ..size is :0
fopen64                     | 0 | E ..opening version file: /usr/local/bin/AppVersionFile.txt | E Failed to open config file: /etc/qd/svcmanager.conf | E HubKeeper: Failed to parse config file
none                        | 0 | E ..size is :16384 | E ..failed to be adjusted: Operation not permitted | E ..size is :16384
popen                       | 0 | E HubKeeper: Failed to run command uname -a | E HubKeeper: Failed to run command fw_printenv -n ver
"""


@pytest.mark.parametrize("row", filter(None, STEPS.split("\n")), ids=lambda row: "-".join(row.split()[:3:2]))
def test_a_step_that_fails(row):
    call, skip, *wanted = re.split(r"\s*\|\s*", row)
    with Hub(f"1 {call} {skip} 28", ready=False) as hub:
        def found():  # between them may stand what the other threads log
            return [line for line in hub.console() if any(like(line, want) for want in wanted)]
        assert wanted[-1][:2] == "E " or hub.wait(PATIENCE) == 1
        until(lambda: len(found()) >= len(wanted))
        assert all(map(like, found(), wanted)) and len(found()) == len(wanted), found()


def test_the_end_while_other_threads_log():
    """The monitor thread logs without a pause while the main thread gives up; nothing may be torn away from under it."""
    CONFIG.write_text("service=/nowhere/a\nservice=/nowhere/b\n")
    environment = {**os.environ, "HUB_PLAN": "0 clock_nanosleep 0 22",
                   "TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + " atexit_sleep_ms=0"}
    for _ in range(200):
        end = subprocess.run(os.environ["HASTY"].split(), env=environment, cwd="/run", stdout=-1, stderr=subprocess.DEVNULL, text=True)
        assert end.returncode == 1 and "torn down" not in end.stdout, end.stdout
        assert " HubKeeper: clock_nanosleep failed for main \n" in end.stdout


def test_whatever_is_received():
    shell("cd /proc/sys/kernel; echo 20000 >msgmax; echo 65536 >msgmnb")
    with Hub() as hub:
        for size, lines in (0, ["E ..Received a queue message of size 0 on inbound queue"]), (8193, ["E ..msgrcv inbound failed, sizeReceived = -1"]):
            put(bytes(size))
            assert list(map(like, hub.settle(), lines)) == [True]
        put(text(r'fd"x{8187}"'))
        assert hub.settle() == ["ERROR bad opcode: fd"]
        assert take("R") == [b"\xfe", b"\xfe", b"\xfd", b"\xfe"]


def test_what_stands_in_for_a_message_that_was_too_long():
    """Each receive says that the message is too long, but somebody else takes it before the service does."""
    with Hub("90000 msgrcv 0 7") as hub:
        put(b"")
        put(text(r'fd"x{8187}"'))
        assert [line for line in hub.settle() if "msgrcv" not in line] == [
            "ERROR HubKeeper: Received a queue message of size 0 on inbound queue", "ERROR bad opcode: fd"]
    assert "msgrcv 8193 0 6144\n" in open("/tmp/calls").read()  # cut short, and without waiting


# The file, the records logged, with ! those not known, and what is watched or the line why nothing is.
DEBUG, NOTHING = "..Not monitoring services as the debug flag was set in the config file", "..No services specified to monitor in config file"
FILES = rf"""
=                                     |                      | {NOTHING}
=service=/a\0aservice=/b\0aservice=/a\0a | =service=/a =service=/b =service=/a | =/a =/b =/a
=service=a=b                          | =service=a=b         | =a=b
=debug=true\0adebug=false\0a          | =debug=true =debug=false | {NOTHING}
=debug=false\0aservice=x\0adebug=true | =debug=false =service=x =debug=true | {DEBUG}
=debug=true                           | =debug=true          | {DEBUG}
=debug=true\20\0a                     | =debug=true\20       | {NOTHING}
=debug=TRUE\0a                        | =debug=TRUE          | {NOTHING}
=service\20=\20x\0a                   | =!service\20=\20x    | {NOTHING}
=service=x\0d\0adebug=true\0d\0a      | =service=x\0d =debug=true\0d | =x\0d
=#\0aservice=x\0aservice=y\0a         | =!#\0aservice=x =service=y | =y
=Service=x\0a=y\0a                    | =!Service=x =!=y     | {NOTHING}
=service=x\0aservice=                 | =service=x =service= | =x =
=service=x\0a\0a                      | =service=x =!\0a=x   | =x
=service=x\0aservice                  | =service=x =service=x | =x =x
=service                              | =service=            | =
"""


def test_the_configuration_is_read_to_the_letter():
    for row in FILES.strip().split("\n"):
        content, records, watched = re.split(r"\s*\|\s*", row)
        CONFIG.write_bytes(text(content))
        wanted = ""
        for record in (text(word).decode() for word in records.split()):
            key, value = record.removeprefix("!").split("=", 1)
            wanted += f"INFO key: {key} value: {value}\n".replace("key: \n", "key:\n")
            wanted += f"ERROR HubKeeper: Did not recognize config option key[{key}] value[{value}]\n" * (record[0] == "!")
        for word in watched.split() if watched[0] == "=" else ():
            wanted += f"INFO HubKeeper: Start Monitoring service {text(word).decode()}\n"
        wanted = wanted.split("\n")[:-1] + ["INFO HubKeeper: " + watched[2:]] * (watched[0] == ".")
        with Hub("1 system 0 12", ready=False) as hub:
            until(lambda: hub.console().count(wanted[-1]) >= wanted.count(wanted[-1]))
            marks = "INFO key:|ERROR.*config option|INFO HubKeeper: (Start|No)"
            assert [line for line in hub.console() if line in wanted or re.match(marks, line)] == wanted, row


# Each entry of the configuration, and whether one of these processes, by its first argument, is taken for it.
LONG = "/opt/" + 506 * "x"
RUNNING = [[LONG, "-"], ["/opt/bin/alpha", "-"], ["/opt/bin/alpha"], ["gamma"], ["delta with blanks"], [""]]
ENTRIES = {LONG: True, "/opt/bin/alpha": True, "gamma": True, "delta": True, "omega": False, "alpha": False, "-": False, "with": False,
           "delta with blanks": False, "/opt/bin/gamma": False, "gamm": False, "gammas": False, "": False}


def test_a_service_is_found_by_its_first_argument():
    CONFIG.write_text("".join(f"service={entry}\n" for entry in ENTRIES))
    running = [subprocess.Popen(words, executable="/usr/bin/cat", stdin=-1) for words in RUNNING]
    zombie = subprocess.Popen(["omega"], executable="/usr/bin/cat", stdin=subprocess.DEVNULL)
    os.waitid(os.P_PID, zombie.pid, os.WEXITED | os.WNOWAIT)
    dead = [f"ERROR HubKeeper: service {entry} has stopped running" for entry, found in ENTRIES.items() if not found]
    with Hub("1 system 0 12", ready=False) as hub:
        until(lambda: hub.console().count(dead[-1]) > 2)  # the third cycle
        found = [line for line in hub.console() if "stopped" in line]
        assert found[:3 * len(dead)] == 3 * dead and not any("restarted" in line for line in hub.console())
    with Hub("1 opendir 0 13", ready=False) as hub:
        lines = [f"ERROR HubKeeper failed to open proc", "can't open /proc: Permission denied"]
        until(lambda: hub.console().count(lines[1]) > 2 and "ERROR HubKeeper: service /opt/bin/alpha has stopped running" in hub.console())
        assert [line for line in hub.console() if "/proc" in line or "open proc" in line][:4] == 2 * lines
    for process in running:
        process.kill(), process.wait()


def held(hub):
    return shell(f"readlink /proc/{hub.pid}/fd/*").replace("/tmp/calls\n", "").split()


@pytest.mark.skipif(" " in os.environ["HUBKEEPER"].strip(), reason="what an emulator runs has the emulator as its first argument")
def test_dead_services_come_back_and_clocksteward_only_while_allowed():
    names = alpha, beta, clocksteward = "/tmp/alpha", "/tmp/beta", "/tmp/clocksteward-2"
    for name in names:
        shutil.copy(os.environ["IDLE_SERVICE"], name)
    # The empty entry never matches, so that its lines count the cycles.
    CONFIG.write_text("".join(f"service={name}\n" for name in (*names, "")))

    def find(name):
        return shell(f"pgrep -fx {name}").strip()

    def cycle():
        """Lets the monitor thread look once."""
        ticks = hub.console().count(tick[1])
        pathlib.Path("/tmp/go").touch()
        until(lambda: hub.console().count(tick[1]) > ticks)

    def story(name):
        return [f"ERROR HubKeeper: service {name} has stopped running", f"INFO Successfully restarted {name}"]

    tick = story("")
    switched = [f"WARN Clocksteward application has been {state}" for state in ("disabled", "enabled")]
    with Hub("-1", ready=False) as hub:
        put(text('70"tmp/transfer "'))  # one more descriptor that must not be inherited
        pathlib.Path("/tmp/go").touch()
        until(lambda: not os.path.exists("/tmp/go"))
        cycle()
        until(lambda: all(map(find, names)))
        cycle()
        before = until(lambda: "/tmp/transfer" in (now := held(hub)) and len(now) == 6 and now)  # with the log and the placeholder
        order = [line for line in hub.said() if line in ("slept 40", "slept 5", tick[0])]
        assert order[:5] == ["slept 40", "slept 5", tick[0], "slept 5", tick[0]]
        for name in names:
            killed = find(name)
            os.kill(int(killed), signal.SIGKILL)
            until(lambda: not find(name))
            cycle()
            now = until(find, name)
            # Standard input, output and error, and nothing else, but for what its loader opens for a moment.
            until(lambda: {*os.listdir(f"/proc/{now}/fd")} == {*"012"})
            masks = re.findall("Sig(?:Blk|Ign):\t.{9}(.*)\n", open(f"/proc/{now}/status").read())
            assert masks == ["0000000", "0000006"]  # what a shell ignores for a command in the background: SIGINT and SIGQUIT
        put(text("75"))
        until(lambda: not find(clocksteward))
        cycle(), cycle()
        assert not find(clocksteward)
        put(text("76"))
        until(lambda: switched[1] in hub.console())
        cycle()
        until(find, clocksteward)
        assert [line for line in hub.said() if line not in tick and line[:3] not in ("sle", "sh:")] == [
            *story(alpha), *story(beta), *story(clocksteward), *switched, *story(clocksteward)]
        until(lambda: held(hub) == before)


@pytest.mark.parametrize("mask", [0o000, 0o077])
def test_what_is_created_has_its_rights_under_any_mask(mask):
    with Hub("", preexec_fn=lambda: os.umask(mask)) as hub:
        put(text(r'63"true\00"') + text(r'70"tmp/target\00"'))
        hub.settle()
        files = "/run/bad_file", "/usr/local/bin/AppVersionFile.txt", "/tmp/cmdresp.txt", "/tmp/target"
        assert {os.stat(name).st_mode & 0o777 for name in files} == {0o666 & ~mask}
        assert os.stat("/media/data/messages.log").st_mode & 0o777 == 0o644 & ~mask
        assert {queue(letter).mode & 0o777 for letter in KEYS} == {0o644}


def test_a_thousand_of_each_request_leave_nothing_behind():
    shell("echo 1 >/etc/build-version")
    with Hub("") as hub:
        def holdings():
            resident = 1024 * int(re.search(r"Anonymous: +(\d+)", open(f"/proc/{hub.pid}/smaps_rollup").read())[1])
            return held(hub), shell(f"ls /proc/{hub.pid}/task | wc -l; pgrep -P {hub.pid}"), 0 if SANITIZED else resident
        requests = [text(word) for word in ("04 01 20 30 60 63 " + r'63"true\00" 63"touch{1000}" 70"tmp/f\00" 70 71"x" 72 75 76').split()]
        for request in [*requests, text("72")]:
            for count in 50, 1000:
                for _ in range(count // 50):
                    for letter in KEYS:
                        take(letter)
                    put(request * 50 if len(request) * 50 < 8192 else request)
                hub.settle()
                before = before if count > 50 else holdings()
            until(lambda: holdings()[:2] == before[:2])
            assert holdings()[2] < before[2] + 200_000, request
