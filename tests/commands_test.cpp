// The local commands and the notices: bytes in, bytes, files and log lines out.
#include <unistd.h>

#include "commands/clocksteward_switch.h"
#include "commands/file_transfer.h"
#include "hub/queues.h"
#include "hub/sends.h"
#include "support.h"

namespace {

using Commands = Core;

TEST_F(Commands, RemoteCommandsComeBackWithTheirOutput) {
  play(R"(
63@fffe"echo ok\00behind"              | .63 90@fffe"ok\0a"      | I RemoteCommand: Executing command [echo ok]
63"\00"                                | .63 90                  | I ..[] | E HubKeeper: unable to read /tmp/cmdresp.txt
63"echo wrong >&2\00"                  | .63 90"wrong\0a"        | I ..[echo wrong >&2]
63"printf 'a\5c000b\5c377%%d'\00"      | .63 90"a\00b\ff%d"      | I ..%%d']
63"printf %0507d 0\00"                 | .63 90"0{507}"          | I ..[printf %0507d 0]
63"printf 1%0507d 0\00"                | .63 90"10{506}"         | I ..[printf 1%0507d 0]
63"true #x{993}\00"                    | .63 90"10{506}"         | I ..xxxx]
63:4"echo far\00"                      | .63 90"far\0a"          | I ..[echo far] | F ..4 and remaining bundle size is 14
$ rm /tmp/cmdresp.txt
63                 | .63 90"HubKeeper: Remote command not run, it has no text" | E HubKeeper: Remote command not run, it has no text
63"touch /ran" 28" \00"   | .63 90"HubKeeper: Remote command not run, no NUL ends its text" .28 C 28" \00" | E ..no NUL ends its text
63:4"touch /ran"          | .63 90"HubKeeper: Remote command not run, no NUL ends its text" | E ..no NUL ends its text | F ..15
63:99"touch /ran"         | .63 90"HubKeeper: Remote command not run, no NUL ends its text" | E ..no NUL ends its text | F ..15
63"touch /ran {990}\00"   | .63 90"HubKeeper: Remote command not run, it has more than 999 characters" | E ..999 characters
$ ls /ran /tmp/cmdresp.txt 2>/dev/null
$ ln -s /nowhere/at/all /tmp/cmdresp.txt => 63"echo lost\00" | .63 | I ..[echo lost] | E HubKeeper: unable to open /tmp/cmdresp.txt
)");
}

TEST_F(Commands, VersionIsReportedFromTheFirstFileThatOpens) {
  play(R"(
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
)");
}

TEST_F(Commands, TransferFollowsItsStateTable) {
  chdir("/tmp");
  writeFile("/tmp/bad_file", "as it was");
  writeFile("/tmp/a b", "old and longer");
  openTransferPlaceholder();
  play(R"(
71"lost"             | .71                      | E HubKeeper: Tried to write bad app file
70"tmp/a b\00"       | .70 S 70"tmp/a b\00"
$ cat '/tmp/a b'
71"one\00"           | .71
70"tmp/c\ff"         | .70                      | E HubKeeper: Two transfers started
71 71"z{8000}"       | .71 .71
72"kept"             | .72 S 72"kept"           | slept 1
$ tr -d z <'/tmp/a b'; wc -c <'/tmp/a b'; ls /tmp/c 2>/dev/null | one\008004\0a
71"lost"             | .71                      | E HubKeeper: Tried to write bad app file
72                   | .72 S 72                 | slept 1 | E HubKeeper: Tried to close bad app file
70"tmp/e\00rest"     | .70 S 70"tmp/e\00rest"
71"E"                | .71
72                   | .72 S 72                 | slept 1
70"dX" 71"D" 72      | .70 .71 .72 S 70"dX" 72  | slept 1
$ cat bad_file e /d  | as it wasED
70"media/small/f "   | .70 S 70"media/small/f "
)");
  for (int i = 0; i < 12; ++i) play("71\"x{8187}\" | .71");  // a full disk goes unnoticed
  openTransferPlaceholder();                                 // which an end before any start closes in silence
  play(R"(
72 71"x"             | .72 .71 S 72             | slept 1 | E ..write bad app file
$ wc -c </media/small/f | 65536\0a
)");
}

TEST_F(Commands, TransferStepsThatFailEndTheProcess) {
  play(R"(
71"x" 72             | .71 .72 S 72             | E ..write bad app file | slept 1 | E ..close bad app file
70                   | exit .70                 | E HubKeeper: Failed to open file for transfer | fopen: Is a directory
70"x"                | exit .70                 | E ..open file for transfer | fopen: Is a directory
70"nowhere/f "       | exit .70                 | E ..open file for transfer | fopen: No such file or directory
70"tmp/f "           | .70 S 70"tmp/f "
! fclose 5
72                   | exit .72                 | slept 1 | E HubKeeper: Failed to close file
)");
}

TEST_F(Commands, TransferOperationsHoldTheirOwnBounds) {
  const std::uint8_t packet[600] = {0x58, 0x02, 7, 0, 0x70, 't', 'm', 'p', '/', 'x'};
  for (const std::uint16_t length : std::initializer_list<std::uint16_t>{0, 4, 513, 600}) {
    handleTransferStart(packet, length);
    handleTransferEnd(packet, length);
    EXPECT_EQ(transferActive, 0) << length;
  }
  handleTransferStart(packet, 11);
  for (const std::uint16_t length : std::initializer_list<std::uint16_t>{0, 4}) handleTransferChunk(packet, length);
  handleTransferEnd(packet, 11);
  EXPECT_EQ(readFile("/tmp/x"), "");
  EXPECT_EQ(drain('S'), Lines(2, Bytes(packet, packet + 11)));
  EXPECT_FALSE(sendMessage(chroniclerSend, packet, 513));
  EXPECT_EQ(drain('L').size() + chroniclerFailures, 0U);
  EXPECT_EQ(log(), Lines{"slept 1"});
  EXPECT_EQ(transferFileName, "tmp/x");
}

TEST_F(Commands, SwitchAndNotices) {
  play(R"(
75 21                | .75 .21 C 21             | W Clocksteward application has been disabled)");
  EXPECT_EQ(clockstewardEnabled, 0);
  EXPECT_EQ(enabledAtSystem, 0);  // when pkill ran
  play(R"(
75:3                 | .75                      | W ..disabled | F ..3 and remaining bundle size is 5
75:900               | .75                      | W ..disabled | F ..900 and remaining bundle size is 5
76:900               | .76                      | W Clocksteward application has been enabled | F ..900 and remaining bundle size is 5
76                   | .76                      | W ..enabled
state 0102           | =\02\01
state ffff           | =\ff\ff
state 10000          | =\00\00
state 0              |   | E HubKeeper: ARM not allowed to set it's own state to 0, kWirepathArmState_RESET
$ touch /var/staging/Vfirst => package 0 | 87@0"Vfirst"
$ mv /var/staging/Vfirst /var/staging/lastV => package 1 | 8a@0"lastV"
package -1           | 8a@0"lastV"
$ mv /var/staging/lastV /var/staging/vlow => package 1 | 8a@0"vlow"  | E HubKeeper ERROR: No valid package in directory: /var/staging/
$ rm -r /var/staging => package 0 | 87@0 | E HubKeeper ERROR: No such directory: /var/staging/
)");
  EXPECT_EQ(clockstewardEnabled, 1);
}

}  // namespace
