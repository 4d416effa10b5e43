// Packets in, messages and log lines out: the wire format, the walk, the routes and the accounting of failed sends.
#include <cerrno>
#include <cstring>
#include <map>
#include <random>

#include "commands/file_transfer.h"
#include "commands/notices.h"
#include "hub/dispatch.h"
#include "hub/packet.h"
#include "hub/queues.h"
#include "support.h"
#include "wraps.h"

namespace {

using Routing = Core;

TEST(Packet, IsBuiltOrRefused) {
  const std::uint8_t payload[600] = {0xA5};
  for (const auto& [size, word, built] :
       {std::tuple{0, 512, 1}, {1, 512, 1}, {507, 512, 1}, {508, 512, 0}, {-1, 512, 0}, {0, 511, 0}, {0, 513, 0}}) {
    std::uint8_t buffer[513];
    std::memset(buffer, 0xEE, sizeof buffer);
    Bytes expected(buffer, buffer + 513);
    if (built == 1) {
      const Bytes whole = packet(0x90, Bytes(payload, payload + size), 0x1234);
      expected = whole + Bytes(512 - whole.size(), '\0') + '\xEE';
    }
    auto length = static_cast<std::uint16_t>(word);
    EXPECT_EQ(buildPacket(buffer, &length, 0x1234, 0x90, payload, size), built);
    EXPECT_EQ(Bytes(buffer, buffer + 513), expected) << size;
    EXPECT_EQ(length, built == 1 ? size + 5 : word);
  }
  std::uint16_t length = 512;
  EXPECT_EQ(buildPacket(nullptr, &length, 0, 0, payload, 1), 0);
}

TEST_F(Routing, EveryOpcodeGoesWhereItBelongs) {
  const std::map<int, Bytes> replies = {
      {0x04, text("80\"\\00{507}\"")}, {0x60, text("88")}, {0x63, text("90\"sh: 1: tmp/t: not found\\0a\"")}};
  for (int opcode = 0; opcode <= 0xFF; ++opcode) {
    const Bytes request = packet(opcode, Bytes("tmp/t\0", 6));
    const auto in = [&](int first, int last) { return first <= opcode && opcode <= last; };
    const bool here = replies.count(opcode) != 0;
    const int peer = here                               ? 0
                     : in(0x00, 0x1F)                   ? toNetsteward
                     : in(0x20, 0x28)                   ? toClocksteward
                     : opcode == 0x30                   ? toChronicler
                     : opcode == 0x70 || opcode == 0x72 ? toStagehand
                                                        : 0;
    std::map<int, Lines> expected;
    expected[toRidgelink].emplace_back(1, static_cast<char>(opcode));
    if (here) expected[toRidgelink].push_back(replies.at(opcode));
    if (peer != 0) expected[peer].push_back(request);
    walk(request);
    for (const int key : peers) EXPECT_EQ(drain(key), expected[key]) << std::hex << opcode << " at " << std::dec << key;
    const Lines lines = log();
    if (here || peer != 0 || opcode == 0x71 || in(0x75, 0x76)) {
      for (const std::string& line : lines) EXPECT_EQ(line.find("bad opcode"), std::string::npos) << opcode;
      continue;
    }
    char line[32];
    std::snprintf(line, sizeof line, "ERROR bad opcode: %x", opcode);
    EXPECT_EQ(lines, Lines{line});
    EXPECT_EQ(std::count(replyFrame.mtext + 1, std::end(replyFrame.mtext), 0), 511);  // nothing of an earlier reply
  }
}

TEST_F(Routing, WalksBundles) {
  play(R"(
21"ab"               | .21 C 21"ab"
21"ab" 22 21"cde"    | .21 .22 .21 C 21"ab" 22 21"cde"
22:4                 | .22 C =\04\00\07\00      | F HubKeeper: Bad bundle or message size. message size is 4 and remaining bundle size is 5
22:0 21"ab"          | .22 C =                  | F ..message size is 0 and remaining bundle size is 12
22:7"a"              | .22 | E HubKeeper: Packet dropped, opcode 22, length 7, remaining bundle size 6 | F ..7 and remaining bundle size is 6
21"ab" 22:13 21"ab"  | .21 .22 C 21"ab"         | E ..opcode 22, length 13, remaining bundle size 12 | F ..13 and remaining bundle size is 12
21"ab" =\22          | .21 .ff C 21"ab"         | E bad opcode: ff | F ..65535 and remaining bundle size is 1
21"ab" =\00{4}       | .21 .ff C 21"ab"         | E bad opcode: ff | F ..65535 and remaining bundle size is 4
28"x{507}"           | .28 C 28"x{507}"
28"x{508}" 30"xy"    | .28 .30 L 30"xy"         | E ..opcode 28, length 513, remaining bundle size 520
70:4"ab"             | .70                      | E ..opcode 70, length 4, remaining bundle size 7 | F ..4 and remaining bundle size is 7
70"x{508}"           | .70                      | E ..opcode 70, length 513, remaining bundle size 513
71:8"ab"             | .71                      | E ..opcode 71, length 8, remaining bundle size 7 | F ..8 and remaining bundle size is 7
71:4"ab"             | .71                      | E ..opcode 71, length 4, remaining bundle size 7 | F ..4 and remaining bundle size is 7
72:6                 | .72                      | E ..opcode 72, length 6, remaining bundle size 5 | F ..6 and remaining bundle size is 5
04@beef:0            | .04 80@beef"\00{507}"    | F ..0 and remaining bundle size is 5
04@beef:5000         | .04 80@beef"\00{507}"    | F ..5000 and remaining bundle size is 5
)");
  dispatchPacket(nullptr, 100);
  EXPECT_EQ(drain(toRidgelink), Lines{"\xFF"});
}

// A request, where its own send goes, and the lines of that send: when it fails, what the fifteenth failure in a row adds
// (or - for one that is not counted), when it works again, and when its queue cannot be opened.
const char* const sends = R"(
bounce  | R | HubKeeper: Failed bouncing to Ridgelink       | , last logged occurance | ..has been recovered        | HubKeeper: In From Ridgelink queue setup failed
04      | R | HubKeeper: Send Heartbeat to ridgelink failed | , last logged occurance | ..heartbeat send to Ridgelink | HubKeeper: In From Ridgelink queue setup failed
1f      | N | HubKeeper: Failed sending to Netsteward       | , last logged occurance | ..with Netsteward has been restored   | HubKeeper: Failed msgget after comm error
20      | C | HubKeeper: Failed sending to Clocksteward     | , last logged occurance | ..with Clocksteward has been restored | HubKeeper: Failed getting message que handle for PTP
30      | L | HubKeeper: Failed sending to Chronicler       | , last logged occurance | ..communication to Chronicler | HubKeeper: Failed to recreate msgque to Chronicler
70"tmp/t " | S | HubKeeper: Failed sending to Stagehand     | , last logged occurance | ..with Stagehand has been restored    | HubKeeper: Out to stagehand queue setup failed
72      | S | HubKeeper: Failed sending to Stagehand        | - | - | Out to stagehand queue setup failed
60      | R |                                               | - | - | In From Ridgelink queue setup failed
63      | R | HubKeeper: Failed sending to Ridgelink        | - | - | In From Ridgelink queue setup failed
package | R | HubKeeper ERROR: sending SW Package to Ridgelink | , last log | ..while sending SW package to Ridgelink | In From Ridgelink queue setup failed
state   | R | HubKeeper: setState: Failed sending state to Ridgelink | - | - | In From Ridgelink queue setup failed
)";

struct Model {
  std::map<std::string, std::uint32_t> failures;
  std::map<std::string, bool> jammed, lostHandle;
  bool refuseOpen = false;
  Lines lines, errors;

  bool send(const Lines& kind) {
    const std::string &request = kind[0], &queue = kind[1];
    const bool counted = kind[3] != "-", failed = jammed[queue] || lostHandle[queue];
    std::uint32_t uncounted = 0;
    std::uint32_t& count = counted ? failures[queue] : uncounted;
    if (!failed && count >= 15) lines.push_back("I " + kind[4]);
    count = failed ? count + 1 : 0;
    if (!failed) return true;
    const std::string reason = std::strerror(refuseOpen ? ENOSPC : lostHandle[queue] ? EINVAL : EAGAIN);
    if (count <= 15 && !kind[2].empty()) lines.push_back("E " + kind[2] + (count == 15 ? kind[3] : ""));
    lostHandle[queue] = refuseOpen;
    if (refuseOpen) lines.push_back("E " + kind[5] + (request == "package" ? reason : ""));
    if (refuseOpen && request == "60") lines.emplace_back("E HubKeeper: failed sending to Ridgelink");
    if (request == "package" || (request == "60" && refuseOpen)) errors.push_back("msgsnd to Ridgelink: " + reason);
    return false;
  }
};

TEST_F(Routing, CountsFailedSendsAsTheModelDoes) {
  const std::map<std::string, int> keys = {
      {"R", toRidgelink}, {"N", toNetsteward}, {"C", toClocksteward}, {"L", toChronicler}, {"S", toStagehand}};
  std::vector<Lines> kinds;
  for (const std::string& row : splitLines(sends + 1)) kinds.push_back(columns(row));
  writeFile("/etc/build-version", "v");
  writeFile("/var/staging/V", "");
  millisecondsPerSecond = 0;
  openTransferPlaceholder();
  Model model;
  std::mt19937 random(20191126);
  bool open = true;  // the placeholder, at first
  bool active = false;
  for (int step = 0; step < 6000; ++step) {
    if (random() % 16 == 0) {
      const auto& [queue, key] = *std::next(keys.begin(), random() % 5);
      jam(key, model.jammed[queue] = !model.jammed[queue]);
    }
    if (random() % 8 == 0) {
      model.refuseOpen = random() % 4 == 0;
      clearFaults();
      if (model.refuseOpen) planFault("msgget", 0, ENOSPC);
    }
    const Lines& kind = kinds[1 + random() % (kinds.size() - 1)];
    const std::string& request = kind[0];
    if (request[0] == '7' && request != "72" && active) continue;
    std::map<std::string, std::size_t> sent;
    model.lines.clear(), model.errors.clear();
    const bool notice = request == "state" || request == "package";
    if (!notice) sent["R"] += model.send(kinds[0]);
    if (request == "60") model.lines.emplace_back("I ..version: v of size 1");
    if (request == "63") model.lines.emplace_back("E ..it has no text");
    if (request == "72") model.lines.emplace_back("slept 1");
    if (request == "72" && !open) model.lines.emplace_back("E ..close bad app file");
    if (request[0] == '7') open = active = request != "72";
    const bool went = model.send(kind);
    sent[kind[1]] += went;

    EXPECT_EQ(request == "state" ? setState(1) != 0 : went, went);
    if (request == "package") sendSwPackage(0);
    if (!notice) walk(text(request));
    ASSERT_PRED2(like, log(), model.lines) << "step " << step;
    ASSERT_EQ(errors(), model.errors) << "step " << step;
    ASSERT_EQ(ridgelinkFailures, model.failures["R"]);
    ASSERT_EQ(netstewardFailures, model.failures["N"]);
    ASSERT_EQ(clockstewardFailures, model.failures["C"]);
    ASSERT_EQ(chroniclerFailures, model.failures["L"]);
    ASSERT_EQ(stagehandFailures, model.failures["S"]);
    for (const auto& [queue, count] : sent) ASSERT_EQ(drain(keys.at(queue)).size(), count) << request << " " << step;
  }
}

}  // namespace
