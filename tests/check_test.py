"""The check before the start: who may use the queues and the file of the commands' output once it has passed.

Other users exist in the sandbox only when it was started by root, so a plain user's run leaves out the rows that name one.
"""
import os, pathlib, shutil, stat, subprocess, sys

import pytest
import sysv_ipc
from board import KEYS, shell

ONE_USER = open("/proc/self/uid_map").read().split()[2] == "1"
OTHER, SERVICE = 1234, 77  # two users who are not root
OUTPUT, TARGET = pathlib.Path("/tmp/cmdresp.txt"), pathlib.Path("/tmp/target")

# Whom the service runs as, each queue that stands there (letter, owner, creator, mode), and what the one line says, or nothing.
QUEUES = """
0    |
0    | I:0:0:600 N:0:0:644 S:0:0:755
77   | I:77:77:644 R:0:77:644 S:77:0:604
0    | I:0:0:666 | (uid 0) and has mode 0666, which lets every user write to it in Ridgelink's name
0    | L:0:0:622 | 0622, which lets every user write to it in HubKeeper's name
0    | R:0:0:664 | 0664, which lets the groups unnamed and unnamed write
0    | N:1234:0:644 | user unnamed (uid 1234) and has mode 0644, which lets this user write
0    | C:0:1234:600 | uid 1234
77   | S:1234:1234:600 | message queue 1006 cannot be looked at: Permission denied
"""
# What stands where the output goes; the target behind a link stays as it is.
FILES = ("echo forged >{0}; chmod 666 {0}", "mkfifo {0}", "ln -s /tmp/target {0}", "ln -s /tmp/nowhere {0}", "mkdir {0}",
         "mkdir -p {0}/full", "ln /tmp/target {0}", ":")


def check(user):
    *emulator, program = os.environ["CHECK"].split()
    shutil.copy(program, "/run/check")  # where other users may go
    end = subprocess.run([*emulator, "/run/check"], capture_output=True, text=True, user=None if ONE_USER else user)
    return end.returncode, end.stderr


@pytest.mark.parametrize("row", QUEUES.strip().split("\n"))
def test_nobody_else_may_write_to_a_queue(row):
    user, queues, said = [*map(str.strip, row.split("|")), ""][:3]
    if ONE_USER and (user != "0" or "1234" in queues):
        pytest.skip("other users: only where root runs this")
    shell("chmod 1777 /tmp")
    for letter, owner, creator, mode in (queue.split(":") for queue in queues.split()):
        make = f"import sysv_ipc; sysv_ipc.MessageQueue({KEYS[letter]}, sysv_ipc.IPC_CREX, 0o{mode}).uid = {owner}"
        subprocess.run([sys.executable, "-c", make], check=True, user=None if ONE_USER else int(creator))
        key = KEYS[letter]
    status, line = check(int(user))
    assert (status, line.count("\n"), said in line) == ((1, 1, True) if said else (0, 0, True)), line
    assert not said or f"message queue {key} " in line and "'ipcrm -q " in line
    found = [sysv_ipc.MessageQueue(key) for key in KEYS.values()]  # all of them, for who comes next
    assert [queue.mode for queue in found].count(0o644) == len(KEYS) - len([one for one in queues.split() if one[-3:] != "644"])


@pytest.mark.parametrize("options, status, said", [("ro", 0, "commands will not work"), ("nr_inodes=1", 1, "No space left")])
def test_a_tmp_where_nothing_can_be_made(options, status, said):
    end = shell(f"unshare -rm sh -c 'mount -t tmpfs -o {options} none /tmp && {os.environ['CHECK']} 2>&1; echo $?'")
    assert said in end and end.endswith(f"\n{status}\n")


@pytest.mark.parametrize("file", FILES)
def test_the_output_file_is_the_service_s_own(file):
    TARGET.write_text("target")
    shell(f"chmod 1777 /tmp; {file.format(OUTPUT)}")
    assert check(0)[0] == 0
    state = OUTPUT.lstat()
    assert (state.st_mode, state.st_size, state.st_uid) == (stat.S_IFREG | 0o600, 0, 0)
    assert TARGET.read_text() == "target" and not os.path.exists("/tmp/nowhere")


@pytest.mark.skipif(ONE_USER, reason="other users: only where root runs this")
def test_who_was_faster_is_named_and_an_open_directory_too():
    shell(f"chmod 777 /tmp; touch {OUTPUT}; chown {OTHER} {OUTPUT}")
    assert [*map(check(SERVICE)[1].__contains__, ("warning: /tmp belongs to user unnamed and has mode 0777", "refusing"))] == [True, False]
    shell(f"chmod 1777 /tmp; rm {OUTPUT}; mkfifo {OUTPUT}; chown {OTHER} {OUTPUT}")
    assert check(SERVICE) == (1, "hubkeeper: refusing to start: /tmp/cmdresp.txt belongs to user unnamed (uid 1234), who could forge"
                              " the output of commands. Remove it with 'rm -rf /tmp/cmdresp.txt', and HubKeeper starts.\n")
