"""Packets in, messages, files and lines out: the walk, the routes, the local commands, the accounting of failed sends."""
import collections, errno, math, os, random, re

import pytest
from board import KEYS, Hub, like, put, queue, shell, take, text, texts

WALK = r"""
21"ab"               | .21 C 21"ab"
21"ab" 22 21"cde"    | .21 .22 .21 C 21"ab" 22 21"cde"
22:4                 | .22 C =\04\00\07\00      | F HubKeeper: Bad bundle or message size. message size is 4 and remaining bundle size is 5
22:0 21"ab"          | .22 C =                  | F ..message size is 0 and remaining bundle size is 12
22:7"a"              | .22 | E HubKeeper: Packet dropped, opcode 22, length 7, remaining bundle size 6 | F ..7 and remaining bundle size is 6
21"ab" 22:13 21"ab"  | .21 .22 C 21"ab"         | E ..opcode 22, length 13, remaining bundle size 12 | F ..13 and remaining bundle size is 12
21"ab" =\22          | .21 .ff C 21"ab"         | E bad opcode: ff | F ..65535 and remaining bundle size is 1
21"ab" =\00{4}       | .21 .ff C 21"ab"         | E bad opcode: ff | F ..65535 and remaining bundle size is 4
01:3                 | .01 N =\03\00\07         | F ..3 and remaining bundle size is 5
30:4                 | .30 L =\04\00\07\00      | F ..4 and remaining bundle size is 5
01"x{508}"           | .01                      | E ..opcode 1, length 513, remaining bundle size 513
30"x{508}"           | .30                      | E ..opcode 30, length 513, remaining bundle size 513
28"x{507}"           | .28 C 28"x{507}"
28"x{508}" 30"xy"    | .28 .30 L 30"xy"         | E ..opcode 28, length 513, remaining bundle size 520
70:4"ab"             | .70                      | E ..opcode 70, length 4, remaining bundle size 7 | F ..4 and remaining bundle size is 7
70"x{508}"           | .70                      | E ..opcode 70, length 513, remaining bundle size 513
71:4"ab"             | .71                      | E ..opcode 71, length 4, remaining bundle size 7 | F ..4 and remaining bundle size is 7
72"x{508}"           | .72                      | E ..opcode 72, length 513, remaining bundle size 513
72:4                 | .72                      | E ..opcode 72, length 4, remaining bundle size 5 | F ..4 and remaining bundle size is 5
04@beef:5000         | .04 80@beef"\00{507}"    | F ..5000 and remaining bundle size is 5
"""

COMMANDS = r"""
63@fffe"echo ok\00behind"              | .63 90@fffe"ok\0a"      | I RemoteCommand: Executing command [echo ok]
63"\00"                                | .63 90                  | I ..[] | E HubKeeper: unable to read /tmp/cmdresp.txt
63"echo wrong >&2\00"                  | .63 90"wrong\0a"        | I ..[echo wrong >&2]
63"printf 'a\5c000b\5c377%%d'\00"      | .63 90"a\00b\ff%d"      | I ..%%d']
63"printf %0507d 0\00"                 | .63 90"0{507}"          | I ..[printf %0507d 0]
63"printf 1%0507d 0\00"                | .63 90"10{506}"         | I ..[printf 1%0507d 0]
63"true #x{993}\00"                    | .63 90"10{506}"         | I ..xxxx]
63"printf 1 {991}\00"                  | .63 90"1"               | I ..  ]
63:4"echo far\00"                      | .63 90"far\0a"          | I ..[echo far] | F ..4 and remaining bundle size is 14
63"{ ls /proc/self/fd; umask; }\00"    | .63 90"0\0a1\0a2\0a3\0a0022\0a" | I ..umask; }]
$ rm /tmp/cmdresp.txt
63                 | .63 90"HubKeeper: Remote command not run, it has no text" | E HubKeeper: Remote command not run, it has no text
63"touch /ran" 28" \00"   | .63 90"HubKeeper: Remote command not run, no NUL ends its text" .28 C 28" \00" | E ..no NUL ends its text
63:4"touch /ran"          | .63 90"HubKeeper: Remote command not run, no NUL ends its text" | E ..no NUL ends its text | F ..15
63:99"touch /ran"         | .63 90"HubKeeper: Remote command not run, no NUL ends its text" | E ..no NUL ends its text | F ..15
63"touch /ran {990}\00"   | .63 90"HubKeeper: Remote command not run, it has more than 999 characters" | E ..999 characters
$ ls /ran /tmp/cmdresp.txt
$ ln -s /nowhere/at/all /tmp/cmdresp.txt => 63"echo lost\00" | .63 | I ..[echo lost]
 | sh: 1: cannot create /tmp/cmdresp.txt: Directory nonexistent | E HubKeeper: unable to open /tmp/cmdresp.txt
"""

VERSIONS = r"""
60@8001"unread"                                   | .60 88@8001      | E HubKeeper: unable to open /etc/build-version | E HubKeeper: unable to open /etc/os-release
 | E HubKeeper: Failed to open both /etc/os-release and /etc/build-version. Sending empty packet
$ >/etc/os-release => 60                          | .60 88           | E ..open /etc/build-version | E ..unable to read version file
$ printf OS >/etc/os-release => 60                | .60 88"OS"       | E ..open /etc/build-version | I ..version: OS of size 2
$ >/etc/build-version => 60                       | .60 88           | E HubKeeper: unable to read version file
$ printf 'a\nb%%s' >/etc/build-version => 60      | .60 88"a\0ab%s"  | I HubKeeper: SD Card version: a | b%s of size 5
$ printf 'a\000b' >/etc/build-version => 60       | .60 88"a\00b"    | I HubKeeper: SD Card version: a of size 3
$ printf %0506d 0 >/etc/build-version => 60       | .60 88"0{506}"   | I ..0000 of size 506
$ printf %0507d 0 >/etc/build-version => 60       | .60 88           | E ..unable to read version file
$ printf 1 >/etc/build-version => 60:2            | .60 88"1"        | I ..version: 1 of size 1 | F ..2 and remaining bundle size is 5
60:700               | .60 88"1"                | I ..version: 1 of size 1 | F ..700 and remaining bundle size is 5
"""

TRANSFERS = r"""
$ cp /usr/bin/true '/tmp/a b' => 71"x" 72 71"x" | .71 .72 .71 S 72 | E HubKeeper: Tried to write bad app file | slept 1 | E ..write bad app file
70"tmp/a b\00"       | .70 S 70"tmp/a b\00"
$ cat '/tmp/a b'
71"one\00"           | .71
70"tmp/c\ff"         | .70                      | E HubKeeper: Two transfers started
71 71"z{8000}"       | .71 .71
72"kept"             | .72 S 72"kept"           | slept 1
$ tr -d z <'/tmp/a b'; wc -c <'/tmp/a b'; ls /tmp/c | one\008004\0a
72                   | .72 S 72                 | slept 1 | E HubKeeper: Tried to close bad app file
70"tmp/e\00rest"     | .70 S 70"tmp/e\00rest"
71"E"                | .71
72                   | .72 S 72                 | slept 1
$ mkfifo /tmp/p => 70"tmp/p\00" | .70 S 70"tmp/p\00"
72                   | .72 S 72                 | slept 1
70"dX" 71"D" 72      | .70 .71 .72 S 70"dX" 72  | slept 1
$ cat /run/bad_file /tmp/e /d; rm /d | ED
70"tmp/{502}f "      | .70 S 70"tmp/{502}f "
72"x{507}"           | .72 S 72"x{507}"         | slept 1
70"media/small/f "   | .70 S 70"media/small/f "
71"x{8187}"          | .71
""" + 11 * '71"x{8187}" | .71\n' + r"""
72                   | .72 S 72                 | slept 1
$ wc -c </media/small/f | 65536\0a
70                   | exit .70                 | E HubKeeper: Failed to open file for transfer | fopen: Is a directory
70"x"                | exit .70                 | E ..open file for transfer | fopen: Is a directory
70"nowhere/f "       | exit .70                 | E ..open file for transfer | fopen: No such file or directory
"""

SWITCH = r"""
75 21                | .75 .21 C 21             | W Clocksteward application has been disabled
$ grep system /tmp/calls                        | inbound system 0 pkill clocksteward &\0a
75:900               | .75                      | W ..disabled | F ..900 and remaining bundle size is 5
76:900               | .76                      | W Clocksteward application has been enabled | F ..900 and remaining bundle size is 5
"""


@pytest.mark.parametrize("table", [WALK, COMMANDS, VERSIONS, TRANSFERS, SWITCH], ids=["walk", "run", "version", "file", "switch"])
def test_bundles(table):
    with Hub("") as hub:
        hub.play(table)


def test_a_transfer_that_cannot_be_closed():
    with Hub("90000 fclose 1 5") as hub:
        hub.play('70"tmp/f " | .70 S 70"tmp/f "\n72 | exit .72 | slept 1 | E HubKeeper: Failed to close file')


def test_every_opcode_goes_where_it_belongs():
    here = {0x04: '80"\\00{507}"', 0x60: "88", 0x63: '90"sh: 1: tmp/t: not found\\0a"', 0x71: "", 0x75: "", 0x76: ""}
    peers = {**dict.fromkeys(range(0x20), "N"), **dict.fromkeys(range(0x20, 0x29), "C"), 0x30: "L",
             **dict.fromkeys(range(0x70, 0x73), "S"), **dict.fromkeys(here)}
    with Hub("") as hub:
        for opcode in range(0xFE):  # what ends each look is FE itself
            request = text(f'{opcode:02x}"tmp/t\\00"')
            wanted = {letter: [request] if peers.get(opcode) == letter else [] for letter in KEYS}
            wanted["R"] = [bytes([opcode]), *texts(here.get(opcode, "")), b"\xfe"]
            put(request)
            lines = hub.settle()
            assert {letter: take(letter) for letter in KEYS} == wanted, hex(opcode)
            assert (lines == [f"ERROR bad opcode: {opcode:x}"]) == (opcode not in peers), lines


# A request, where its own send goes, and the lines of that send: when it fails, what the fifteenth failure in a row adds
# (or - for one that is not counted), when it works again, and when its queue cannot be opened.
SENDS = r"""
bounce  | R | HubKeeper: Failed bouncing to Ridgelink       | , last logged occurance | ..has been recovered        | HubKeeper: In From Ridgelink queue setup failed
04      | R | HubKeeper: Send Heartbeat to ridgelink failed | , last logged occurance | ..heartbeat send to Ridgelink | HubKeeper: In From Ridgelink queue setup failed
1f      | N | HubKeeper: Failed sending to Netsteward       | , last logged occurance | ..with Netsteward has been restored   | HubKeeper: Failed msgget after comm error
20      | C | HubKeeper: Failed sending to Clocksteward     | , last logged occurance | ..with Clocksteward has been restored | HubKeeper: Failed getting message que handle for PTP
30      | L | HubKeeper: Failed sending to Chronicler       | , last logged occurance | ..communication to Chronicler | HubKeeper: Failed to recreate msgque to Chronicler
70"tmp/t " | S | HubKeeper: Failed sending to Stagehand     | , last logged occurance | ..with Stagehand has been restored    | HubKeeper: Out to stagehand queue setup failed
72      | S | HubKeeper: Failed sending to Stagehand        | - | - | Out to stagehand queue setup failed
60      | R |                                               | - | - | In From Ridgelink queue setup failed
63      | R | HubKeeper: Failed sending to Ridgelink        | - | - | In From Ridgelink queue setup failed
"""


class Model:
    def __init__(self):
        self.failures, self.room = collections.Counter(), math.inf
        self.jammed, self.missing, self.lost, self.lines = set(), set(), set(), []

    def send(self, request, letter, failed, last, restored, reopen):
        counted = last != "-"
        if not {letter} & (self.jammed | self.lost):
            self.lines += ["I " + restored] * (counted and self.failures[letter] >= 15)
            self.failures[letter] *= not counted
            return 1
        self.failures[letter] += counted
        count = self.failures[letter] if counted else 0
        if failed and count <= 15:
            self.lines.append("E " + failed + (last if count == 15 else ""))
        if letter in self.missing and not self.room:
            self.lines.append("E " + reopen)
            if request == "60":
                self.lines += ["E HubKeeper: failed sending to Ridgelink", f"msgsnd to Ridgelink: {os.strerror(errno.ENOSPC)}"]
        else:
            self.room -= letter in self.missing
            self.lost.discard(letter), self.missing.discard(letter)
        return 0


def test_failed_sends_are_counted_as_the_model_does():
    kinds = [re.split(r"\s*\|\s*", row) for row in SENDS.strip().split("\n")]
    shell("echo v >/etc/build-version")
    dice, model, open_, active = random.Random(20191126), Model(), True, False  # the placeholder, at first
    with Hub("") as hub:
        for step in range(2500):
            letter = dice.choice("RNCLS")
            if letter not in model.missing and dice.random() < 1 / 16:
                model.jammed ^= {letter}
                queue(letter).max_size = 0 if letter in model.jammed else 16384
            elif letter not in model.missing and dice.random() < 1 / 32:
                queue(letter).remove()
                model.jammed.discard(letter), model.missing.add(letter), model.lost.add(letter)
                model.room += 1
            if dice.random() < 1 / 16:
                model.room = 0 if model.room > 9 else math.inf
                shell(f"echo {len(KEYS) - len(model.missing) if model.room == 0 else 32000} >/proc/sys/kernel/msgmni")
            kind = dice.choice(kinds[1:])
            request = kind[0]
            if active and request[0] == "7" and request != "72":
                continue
            model.lines = []
            sent = collections.Counter(R=model.send(*kinds[0]))
            model.lines += {"60": ["I ..version: v", " of size 2"], "63": ["E ..it has no text"], "72": ["slept 1"]}.get(request, [])
            if request == "72" and not open_:
                model.lines.append("E ..close bad app file")
            if request[0] == "7":
                open_ = active = request != "72"
            sent[kind[1]] += model.send(*kind)
            sent["R"] += model.send(*kinds[0])  # of what ends each look
            put(text(request))
            lines = hub.settle()
            assert len(lines) == len(model.lines) and all(map(like, lines, model.lines)), (step, lines, model.lines)
            assert {letter: len(take(letter)) for letter in KEYS} == {**dict.fromkeys(KEYS, 0), **sent}, step
