// The local commands and the notices: bytes in, bytes, files and log lines out.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "commands/clocksteward_switch.h"
#include "commands/file_transfer.h"
#include "commands/notices.h"
#include "hub/inbound.h"
#include "hub/queues.h"
#include "support.h"
#include "wraps.h"

namespace {

void walk(const Bytes& bundle) {
  const std::vector<std::uint8_t> exact(bundle.begin(), bundle.end());
  walkBundle(exact.data(), static_cast<std::uint16_t>(exact.size()));
}

using Commands = Core;
const std::string nul(1, '\0');

TEST_F(Commands, RemoteCommandsComeBackWithTheirOutput) {
  const auto output = [](int size) { return "head -c " + std::to_string(size) + " /dev/zero | tr '\\000' x"; };
  const std::string unreadable = "ERROR HubKeeper: unable to read /tmp/cmdresp.txt";
  const std::string longest = ": " + std::string(997, '#');
  struct Row {
    std::string command;
    Bytes reply;
    Lines more;
  };
  const Row rows[] = {
      {"echo ok", "ok\n", {}},
      {"", "", {unreadable}},
      {"true", "", {unreadable}},
      {"ls /nowhere; exit 3", "", {unreadable}},  // in a list, only the last command's output lands in the file
      {"echo a; echo b", "b\n", {}},
      {"echo wrong >&2", "wrong\n", {}},
      {"printf 'a\\000b\\377%%d'", Bytes("a\0b\xFF%d", 6), {}},
      {output(506), Bytes(506, 'x'), {}},
      {output(507), Bytes(507, 'x'), {}},
      {output(508), Bytes(507, 'x'), {}},
      {longest, "", {unreadable}},  // the comment swallows the redirection, and the file stays empty
  };
  for (const Row& row : rows) {
    if (row.command.size() == 999) writeFile("/tmp/cmdresp.txt", "");
    walk(packet(0x63, row.command + nul + "behind", 0xFFFE));
    EXPECT_EQ(drain(toRidgelink), (Lines{"c", packet(0x90, row.reply, 0xFFFE)})) << row.command;
    Lines lines = {"INFO RemoteCommand: Executing command [" + row.command + "]"};
    lines.insert(lines.end(), row.more.begin(), row.more.end());
    EXPECT_EQ(log(), lines);
  }
  unlink("/tmp/cmdresp.txt");
  symlink("/nowhere/at/all", "/tmp/cmdresp.txt");
  walk(packet(0x63, "echo lost" + nul));
  EXPECT_EQ(drain(toRidgelink), Lines{"c"});
  EXPECT_EQ(log().back(), "ERROR HubKeeper: unable to open /tmp/cmdresp.txt");
}

TEST_F(Commands, UnsoundRemoteCommandsAreRefusedAndNotRun) {
  const std::string touch = "touch /tmp/ran";
  const std::string unended = "HubKeeper: Remote command not run, no NUL ends its text";
  const std::string tooLong = "HubKeeper: Remote command not run, it has more than 999 characters";
  struct Row {
    Bytes bundle;
    std::string reason;
    Bytes behind;
  };
  const Row rows[] = {
      {packet(0x63), "HubKeeper: Remote command not run, it has no text", ""},
      {packet(0x63, touch), unended, ""},
      {packet(0x63, touch) + packet(0x20, nul), unended, " "},  // the NUL of the next Packet does not count
      {packet(0x63, touch + " #" + std::string(1000, 'x') + nul), tooLong, ""},
      {packet(0x63, touch + std::string(1000 - touch.size(), ' ') + nul), tooLong, ""},
      {packet(0x63, touch, 7, 4), unended, ""},  // a bad length: the text reaches to the end of the Bundle
      {packet(0x63, touch, 7, 9000), unended, ""},
  };
  for (const Row& row : rows) {
    walk(row.bundle);
    Lines expected = {"c", packet(0x90, row.reason)};
    if (!row.behind.empty()) expected.push_back(row.behind);
    EXPECT_EQ(drain(toRidgelink), expected);
    EXPECT_EQ(log().front(), "ERROR " + row.reason);
  }
  EXPECT_NE(access("/tmp/ran", F_OK), 0);
  EXPECT_NE(access("/tmp/cmdresp.txt", F_OK), 0);
  walk(packet(0x63, "echo far" + nul, 7, 4));  // a bad length plays no part where the NUL is in reach
  EXPECT_EQ(drain(toRidgelink).back(), packet(0x90, "far\n"));
}

TEST_F(Commands, VersionIsReportedFromTheFirstFileThatOpens) {
  const std::string build = "/etc/build-version", os = "/etc/os-release";
  const std::string noBuild = "ERROR HubKeeper: unable to open " + build,
                    noOs = "ERROR HubKeeper: unable to open " + os;
  const std::string unread = "ERROR HubKeeper: unable to read version file";
  const auto seen = [](const std::string& text, int size) {
    return "INFO HubKeeper: SD Card version: " + text + " of size " + std::to_string(size);
  };
  const std::string absent = "absent";
  struct Row {
    std::string build, os;
    Bytes reply;
    Lines lines;
  };
  const Row rows[] = {
      {"7", "OS", "7", {seen("7", 1)}},
      {"a\nb%s", "OS", "a\nb%s", {"INFO HubKeeper: SD Card version: a", "b%s of size 5"}},
      {Bytes("a\0b\n", 4), "OS", Bytes("a\0b\n", 4), {seen("a", 4)}},
      {std::string(506, 'v'), "OS", std::string(506, 'v'), {seen(std::string(506, 'v'), 506)}},
      {std::string(507, 'v'), "OS", "", {unread}},
      {std::string(508, 'v'), "OS", "", {unread}},
      {"", "OS", "", {unread}},
      {absent, "OS", "OS", {noBuild, seen("OS", 2)}},
      {absent, "", "", {noBuild, unread}},
      {absent,
       absent,
       "",
       {noBuild, noOs, "ERROR HubKeeper: Failed to open both " + os + " and " + build + ". Sending empty packet"}},
  };
  for (const Row& row : rows) {
    unlink(build.c_str());
    unlink(os.c_str());
    if (row.build != absent) writeFile(build, row.build);
    if (row.os != absent) writeFile(os, row.os);
    walk(packet(0x60, "ignored", 0x8001));
    EXPECT_EQ(drain(toRidgelink), (Lines{"`", packet(0x88, row.reply, 0x8001)}));
    EXPECT_EQ(log(), row.lines);
  }
}

TEST_F(Commands, TransferFollowsItsStateTable) {
  const std::string badWrite = "ERROR HubKeeper: Tried to write bad app file";
  const std::string badClose = "ERROR HubKeeper: Tried to close bad app file";
  const std::string twice = "ERROR HubKeeper: Two transfers started";
  const Bytes start = packet(0x70, "tmp/a b" + nul), other = packet(0x70, "tmp/c\xFF"), end = packet(0x72, "kept");
  chdir("/tmp");
  writeFile("/tmp/bad_file", "as it was");
  writeFile("/tmp/a b", "old and longer");
  openTransferPlaceholder();
  struct Row {
    Bytes request;
    Lines lines;
    bool notice;
    std::string file, content;  // as it stands on disk afterwards
  };
  const Row rows[] = {
      {packet(0x71, "lost"), {badWrite}, false, "/tmp/bad_file", "as it was"},
      {start, {}, true, "/tmp/a b", ""},
      {packet(0x71, Bytes("one\0", 4)), {}, false, "/tmp/c", ""},
      {other, {twice}, false, "/tmp/c", ""},
      {packet(0x71), {}, false, "/tmp/c", ""},
      {packet(0x71, Bytes(8187, 'z')), {}, false, "/tmp/c", ""},
      {end, {}, true, "/tmp/a b", Bytes("one\0", 4) + Bytes(8187, 'z')},
      {packet(0x71, "lost"), {badWrite}, false, "/tmp/a b", Bytes("one\0", 4) + Bytes(8187, 'z')},
      {end, {badClose}, true, "/tmp/bad_file", "as it was"},
      {start, {}, true, "/tmp/a b", ""},
      {end, {}, true, "/tmp/a b", ""},
      {packet(0x70, Bytes("tmp/e\0rest", 10)), {}, true, "/tmp/e", ""},  // a NUL ends the path
      {packet(0x71, "E"), {}, false, "/tmp/e", ""},
      {end, {}, true, "/tmp/e", "E"},
      {other, {}, true, "/tmp/c", ""},  // the last byte is no part of the name
      {end, {}, true, "/tmp/c", ""},
      {packet(0x70, "dX"), {}, true, "/d", ""},
      {end, {}, true, "/d", ""},
  };
  for (const Row& row : rows) {
    sleepCalls = 0;
    sleptSeconds = 0;
    walk(row.request);
    const std::string what = "opcode " + std::to_string(row.request[4]) + " and " + row.file;
    EXPECT_EQ(drain(toRidgelink), Lines{row.request.substr(4, 1)}) << what;
    EXPECT_EQ(drain(toStagehand), row.notice ? Lines{row.request} : Lines{}) << what;
    EXPECT_EQ(log(), row.lines) << what;
    EXPECT_EQ(readFile(row.file), row.content) << what;
    EXPECT_EQ(sleepCalls, row.request[4] == 0x72 ? 1 : 0) << what;
    EXPECT_EQ(sleptSeconds, row.request[4] == 0x72 ? 1U : 0U) << what;
  }
  // After the first transfer the placeholder's stream was closed by an end; an end before any start closes it as well.
  openTransferPlaceholder();
  walk(end + packet(0x71, "x"));
  EXPECT_EQ(log(), Lines{badWrite});
}

TEST_F(Commands, TransferWithoutPlaceholderActsAsClosed) {
  mkdir("/tmp/gone", 0755);
  chdir("/tmp/gone");
  rmdir("/tmp/gone");
  openTransferPlaceholder();
  walk(packet(0x71, "x") + packet(0x72));
  EXPECT_EQ(log(),
            (Lines{"ERROR HubKeeper: Tried to write bad app file", "ERROR HubKeeper: Tried to close bad app file"}));
}

TEST_F(Commands, TransferStepsThatFailEndTheProcess) {
  openTransferPlaceholder();
  const std::string open = "ERROR HubKeeper: Failed to open file for transfer";
  for (const Bytes& start : {packet(0x70), packet(0x70, "x"), packet(0x70, "nowhere/f "), packet(0x70, "tmp ")}) {
    expectEnd([&] { walk(start); }, "^fopen: [A-Z][^:]*\n$");
    EXPECT_EQ(log(), Lines{open});
    EXPECT_EQ(drain(toStagehand), Lines{});
  }
  walk(packet(0x70, "tmp/f ") + packet(0x71, "x"));
  drain(toStagehand);
  planFault("fclose", 0, EIO);
  expectEnd([] { walk(packet(0x72)); }, "^$");
  EXPECT_EQ(log(), Lines{"ERROR HubKeeper: Failed to close file"});
  EXPECT_EQ(drain(toStagehand), Lines{});
}

TEST_F(Commands, AFullDiskGoesUnnoticed) {
  walk(packet(0x70, "media/small/f "));
  for (int i = 0; i < 12; ++i) walk(packet(0x71, Bytes(8187, 'x')));
  walk(packet(0x72));
  EXPECT_EQ(readFile("/media/small/f"), Bytes(65536, 'x'));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(Commands, SwitchKillsAndLifts) {
  walk(packet(0x75, "ignored"));
  EXPECT_EQ(clockstewardEnabled.load(), 0);
  walk(packet(0x75) + packet(0x21));  // forwards go on
  EXPECT_EQ(drain(toClocksteward), Lines{packet(0x21)});
  walk(packet(0x76) + packet(0x76));
  EXPECT_EQ(clockstewardEnabled.load(), 1);
  const std::string off = "WARN Clocksteward application has been disabled";
  const std::string on = "WARN Clocksteward application has been enabled";
  EXPECT_EQ(log(), (Lines{off, off, on, on}));
  EXPECT_EQ(drain(toRidgelink).size(), 5U);  // bounces alone
}

TEST_F(Commands, NoticesTellStateAndPackage) {
  EXPECT_EQ(setState(0x0102), 1);
  EXPECT_EQ(setState(0xFFFF), 1);
  EXPECT_EQ(drain(toRidgelink), (Lines{"\x02\x01", "\xFF\xFF"}));
  EXPECT_EQ(setState(kWirepathArmState_RESET), 0);
  EXPECT_EQ(log(), Lines{"ERROR HubKeeper: ARM not allowed to set it's own state to 0, kWirepathArmState_RESET"});
  jam(toRidgelink, true);
  EXPECT_EQ(setState(1), 0);
  jam(toRidgelink, false);
  EXPECT_EQ(log(), Lines{"ERROR HubKeeper: setState: Failed sending state to Ridgelink"});
  EXPECT_EQ(ridgelinkFailures, 0U);
  EXPECT_EQ(drain(toRidgelink), Lines{});

  const std::string invalid = "ERROR HubKeeper ERROR: No valid package in directory: /var/staging/";
  sendSwPackage(0);
  const Lines last = drain(toRidgelink);  // "." or "..", whichever the directory gives last
  EXPECT_TRUE(last == Lines{packet(0x87, ".", 0)} || last == Lines{packet(0x87, "..", 0)});
  EXPECT_EQ(log(), Lines{invalid});
  for (const std::string name : {"Vfirst", "midVdle", "lastV"}) {
    writeFile("/var/staging/" + name, "");
    for (const auto& [selector, opcode] : {std::pair{0, 0x87}, {1, 0x8A}, {-1, 0x8A}}) {
      sendSwPackage(selector);
      EXPECT_EQ(drain(toRidgelink), Lines{packet(opcode, name, 0)});
    }
    unlink(("/var/staging/" + name).c_str());
  }
  writeFile("/var/staging/vlow", "");
  log();
  sendSwPackage(1);
  EXPECT_EQ(log(), Lines{invalid});
  unlink("/var/staging/vlow");
  rmdir("/var/staging");
  drain(toRidgelink);
  sendSwPackage(1);
  EXPECT_EQ(drain(toRidgelink), Lines{packet(0x8A, "", 0)});
  EXPECT_EQ(log(), Lines{"ERROR HubKeeper ERROR: No such directory: /var/staging/"});
}

}  // namespace
