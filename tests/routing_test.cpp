// Packets in, messages and log lines out: the wire format, the walk, the routes and the accounting of failed sends.
#include <sys/msg.h>

#include <cstring>
#include <random>

#include "commands/file_transfer.h"
#include "commands/notices.h"
#include "hub/dispatch.h"
#include "hub/packet.h"
#include "hub/queues.h"
#include "hub/sends.h"
#include "support.h"

namespace {

using Routing = Core;

TEST(Packet, IsBuiltOrRefused) {
  const std::uint8_t payload[600] = {0xA5};
  for (const auto& [size, word, built] :
       {std::tuple{0, 512, 1}, {1, 512, 1}, {507, 512, 1}, {508, 512, 0}, {-1, 512, 0}, {0, 511, 0}, {0, 513, 0}}) {
    Bytes buffer(513, '\xEE'), expected = buffer;
    if (built == 1)
      expected =
          text("90@1234") + Bytes(payload, payload + size) + Bytes(507 - static_cast<std::size_t>(size), '\0') + '\xEE';
    if (built == 1) expected[0] = static_cast<char>(size + 5), expected[1] = static_cast<char>((size + 5) >> 8);
    auto length = static_cast<std::uint16_t>(word);
    EXPECT_EQ(buildPacket(reinterpret_cast<std::uint8_t*>(buffer.data()), &length, 0x1234, 0x90, payload, size), built);
    EXPECT_EQ(buffer, expected) << size;
    EXPECT_EQ(length, built == 1 ? size + 5 : word);
  }
  std::uint16_t length = 512;
  EXPECT_EQ(buildPacket(nullptr, &length, 0, 0, payload, 1), 0);
}

TEST_F(Routing, EveryOpcodeGoesWhereItBelongs) {
  const std::map<int, std::string> replies = {{0x04, "80\"\\00{507}\""},
                                              {0x60, "88"},
                                              {0x63, "90\"sh: 1: tmp/t: not found\\0a\""},
                                              {0x71, ""},
                                              {0x75, ""},
                                              {0x76, ""}};
  for (int opcode = 0; opcode <= 0xFF; ++opcode) {
    const auto in = [&](int first, int last) { return first <= opcode && opcode <= last; };
    const bool here = replies.count(opcode) != 0;
    const char peer = here             ? '-'
                      : in(0x00, 0x1F) ? 'N'
                      : in(0x20, 0x28) ? 'C'
                      : in(0x30, 0x30) ? 'L'
                      : in(0x70, 0x72) ? 'S'
                                       : '-';
    Bytes request = text("00\"tmp/t\\00\"");
    request[4] = static_cast<char>(opcode);
    std::map<char, Lines> expected = {{'R', here ? texts("=x " + replies.at(opcode)) : Lines{""}}, {peer, {request}}};
    expected['R'][0] = request[4];
    walk(request);
    for (const auto& [name, key] : keys) EXPECT_EQ(drain(name), expected[name]) << opcode << " at " << key;
    char line[32];
    std::snprintf(line, sizeof line, "ERROR bad opcode: %x", opcode);
    const Lines lines = log();
    EXPECT_EQ(lines == Lines{line}, !here && peer == '-') << opcode;
    EXPECT_TRUE(lines != Lines{line} || std::count(replyFrame.mtext + 1, std::end(replyFrame.mtext), 0) == 511);
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
01:3                 | .01 N =\03\00\07         | F ..3 and remaining bundle size is 5
01:0                 | .01 N =                  | F ..0 and remaining bundle size is 5
30:4                 | .30 L =\04\00\07\00      | F ..4 and remaining bundle size is 5
30:0"ab"             | .30 L =                  | F ..0 and remaining bundle size is 7
01"x{508}"           | .01                      | E ..opcode 1, length 513, remaining bundle size 513
30"x{508}"           | .30                      | E ..opcode 30, length 513, remaining bundle size 513
28"x{507}"           | .28 C 28"x{507}"
28"x{508}" 30"xy"    | .28 .30 L 30"xy"         | E ..opcode 28, length 513, remaining bundle size 520
70:4"ab"             | .70                      | E ..opcode 70, length 4, remaining bundle size 7 | F ..4 and remaining bundle size is 7
70"x{508}"           | .70                      | E ..opcode 70, length 513, remaining bundle size 513
71:8"ab"             | .71                      | E ..opcode 71, length 8, remaining bundle size 7 | F ..8 and remaining bundle size is 7
71:4"ab"             | .71                      | E ..opcode 71, length 4, remaining bundle size 7 | F ..4 and remaining bundle size is 7
72"x{508}"           | .72                      | E ..opcode 72, length 513, remaining bundle size 513
72:4                 | .72                      | E ..opcode 72, length 4, remaining bundle size 5 | F ..4 and remaining bundle size is 5
72:6                 | .72                      | E ..opcode 72, length 6, remaining bundle size 5 | F ..6 and remaining bundle size is 5
04@beef:0            | .04 80@beef"\00{507}"    | F ..0 and remaining bundle size is 5
04@beef:5000         | .04 80@beef"\00{507}"    | F ..5000 and remaining bundle size is 5
)");
  dispatchPacket(nullptr, 100);
  EXPECT_EQ(drain('R'), Lines{"\xFF"});
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
package 0 | R | HubKeeper ERROR: sending SW Package to Ridgelink | , last log | ..while sending SW package to Ridgelink | In From Ridgelink queue setup failed
state 1 | R | HubKeeper: setState: Failed sending state to Ridgelink | - | - | In From Ridgelink queue setup failed
)";

struct Model {
  std::map<char, std::uint32_t> failures;
  std::map<char, bool> jammed, lostHandle;
  bool refuseOpen = false;
  Lines lines;

  bool send(const Lines& kind) {
    const std::string& request = kind[0];
    const char queue = kind[1][0];
    const bool failed = jammed[queue] || lostHandle[queue];
    std::uint32_t uncounted = 0;
    std::uint32_t& count = kind[3] != "-" ? failures[queue] : uncounted;
    if (!failed && count >= 15) lines.push_back("I " + kind[4]);
    count = failed ? count + 1 : 0;
    if (!failed) return true;
    const std::string reason = std::strerror(refuseOpen ? ENOSPC : lostHandle[queue] ? EINVAL : EAGAIN);
    if (count <= 15 && !kind[2].empty()) lines.push_back("E " + kind[2] + (count == 15 ? kind[3] : ""));
    lostHandle[queue] = refuseOpen;
    if (refuseOpen) lines.push_back("E " + kind[5] + (request == "package 0" ? reason : ""));
    if (refuseOpen && request == "60") lines.emplace_back("E HubKeeper: failed sending to Ridgelink");
    if (request == "package 0" || (request == "60" && refuseOpen)) lines.push_back("msgsnd to Ridgelink: " + reason);
    return false;
  }
};

TEST_F(Routing, CountsFailedSendsAsTheModelDoes) {
  std::vector<Lines> kinds;
  for (const std::string& row : splitLines(sends + 1)) kinds.push_back(columns(row));
  static_cast<void>(std::system("echo v >/etc/build-version; touch /var/staging/V"));
  millisecondsPerSecond = 0;
  openTransferPlaceholder();
  Model model;
  std::mt19937 random(20191126);
  bool open = true, active = false;  // the placeholder, at first
  for (int step = 0; step < 6000; ++step) {
    if (random() % 16 == 0) {
      const char queue = "RNCLS"[random() % 5];
      msqid_ds stats;
      msgctl(queueId(queue), IPC_STAT, &stats);
      stats.msg_qbytes = (model.jammed[queue] = !model.jammed[queue]) ? 0 : 16384;
      msgctl(queueId(queue), IPC_SET, &stats);
    }
    if (random() % 8 == 0) planFailure((model.refuseOpen = random() % 4 == 0) ? "msgget" : "", 0, ENOSPC);
    const Lines& kind = kinds[1 + random() % (kinds.size() - 1)];
    const std::string& request = kind[0];
    if (request[0] == '7' && request != "72" && active) continue;
    model.lines.clear();
    std::map<char, std::size_t> sent;
    const bool notice = request == "state 1" || request == "package 0";
    if (!notice) sent['R'] += model.send(kinds[0]);
    if (request == "60") model.lines.insert(model.lines.end(), {"I ..version: v", " of size 2"});
    if (request == "63") model.lines.emplace_back("E ..it has no text");
    if (request == "72") model.lines.emplace_back("slept 1");
    if (request == "72" && !open) model.lines.emplace_back("E ..close bad app file");
    if (request[0] == '7') open = active = request != "72";
    const bool went = model.send(kind);
    sent[kind[1][0]] += went;
    if (request == "package 0") sendSwPackage(0);
    EXPECT_EQ(request == "state 1" ? setState(1) != 0 : went, went);
    if (!notice) walk(text(request));
    ASSERT_PRED2(like, log(), model.lines) << step;
    const std::map<char, std::uint32_t> counts = {{'R', ridgelinkFailures},
                                                  {'N', netstewardFailures},
                                                  {'C', clockstewardFailures},
                                                  {'L', chroniclerFailures},
                                                  {'S', stagehandFailures}};
    for (const auto& [queue, count] : counts) ASSERT_EQ(count, model.failures[queue]) << queue << " " << step;
    for (const auto& [queue, count] : sent) ASSERT_EQ(drain(queue).size(), count) << queue << " " << step;
  }
}

}  // namespace
