// Packets in, messages and log lines out: the wire format, the walk, the routes and the accounting of failed sends.
#include <sys/msg.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <random>

#include "commands/file_transfer.h"
#include "commands/notices.h"
#include "hub/dispatch.h"
#include "hub/inbound.h"
#include "hub/packet.h"
#include "hub/queues.h"
#include "support.h"
#include "wraps.h"

namespace {

// In heap memory of exactly that size, so that a sanitizer sees a read beyond it.
void walk(const Bytes& bundle) {
  const std::vector<std::uint8_t> exact(bundle.begin(), bundle.end());
  walkBundle(exact.data(), static_cast<std::uint16_t>(exact.size()));
}

using Routing = Core;

TEST(Packet, IsBuiltOrRefused) {
  std::uint8_t buffer[513];
  std::uint8_t payload[600];
  std::memset(payload, 0xA5, sizeof payload);
  for (const auto& [payloadLength, word, built] : {std::tuple{0, 512, true},
                                                   {1, 512, true},
                                                   {507, 512, true},
                                                   {508, 512, false},
                                                   {0, 511, false},
                                                   {0, 513, false}}) {
    std::memset(buffer, 0xEE, sizeof buffer);
    auto length = static_cast<std::uint16_t>(word);
    ASSERT_EQ(buildPacket(buffer, &length, 0x1234, 0x90, payload, payloadLength), built ? 1 : 0);
    EXPECT_EQ(length, built ? payloadLength + 5 : word);
    Bytes expected(513, static_cast<char>(0xEE));
    if (built) {
      const Bytes text = packet(0x90, Bytes(static_cast<std::size_t>(payloadLength), '\xA5'), 0x1234);
      expected = text + Bytes(512 - text.size(), '\0') + '\xEE';
    }
    EXPECT_EQ(Bytes(buffer, buffer + 513), expected) << payloadLength;
  }
  std::uint16_t length = 512;
  EXPECT_EQ(buildPacket(nullptr, &length, 0, 0, payload, 1), 0);
}

TEST_F(Routing, EveryOpcodeGoesWhereItBelongs) {
  struct Range {
    int first, last, key;
  };
  const Range forwards[] = {{0x00, 0x03, toNetsteward}, {0x05, 0x1F, toNetsteward}, {0x20, 0x28, toClocksteward},
                            {0x30, 0x30, toChronicler}, {0x70, 0x70, toStagehand},  {0x72, 0x72, toStagehand}};
  const std::map<int, Bytes> replies = {
      {0x04, packet(0x80, Bytes(507, '\0'))}, {0x60, packet(0x88)}, {0x63, packet(0x90, "sh: 1: tmp/t: not found\n")}};
  const Range silent[] = {{0x71, 0x71, 0}, {0x75, 0x76, 0}};
  const auto holds = [](int opcode, const Range& range) { return range.first <= opcode && opcode <= range.last; };

  for (int opcode = 0; opcode <= 0xFF; ++opcode) {
    const Bytes request = packet(opcode, Bytes("tmp/t\0", 6));
    walk(request);
    std::map<int, Lines> expected;
    expected[toRidgelink] = {bounce(opcode)};
    bool known = replies.count(opcode) != 0;
    if (known) expected[toRidgelink].push_back(replies.at(opcode));
    for (const Range& range : forwards) {
      if (holds(opcode, range)) expected[range.key].push_back(request), known = true;
    }
    for (const Range& range : silent) known |= holds(opcode, range);
    for (const int key : {toNetsteward, toRidgelink, toStagehand, toChronicler, toClocksteward}) {
      EXPECT_EQ(drain(key), expected[key]) << std::hex << opcode << " at " << std::dec << key;
    }
    const Lines lines = log();
    if (known) {
      for (const std::string& line : lines) EXPECT_EQ(line.find("bad opcode"), std::string::npos) << opcode;
    } else {
      char line[32];
      std::snprintf(line, sizeof line, "ERROR bad opcode: %x", opcode);
      EXPECT_EQ(lines, Lines{line});
    }
  }
}

TEST_F(Routing, WalksBundles) {
  const Bytes one = packet(0x21, "ab");
  const auto fatal = [](int size, int rest) {
    return "FATAL HubKeeper: Bad bundle or message size. message size is " + std::to_string(size) +
           " and remaining bundle size is " + std::to_string(rest);
  };
  const auto dropped = [](const char* opcode, int length, int rest) {
    return "ERROR HubKeeper: Packet dropped, opcode " + std::string(opcode) + ", length " + std::to_string(length) +
           ", remaining bundle size " + std::to_string(rest);
  };
  Bytes many;
  for (int i = 0; i < 1638; ++i) many += packet(0xF0);
  struct Row {
    const char* what;
    Bytes bundle, bounces;
    Lines clocksteward, lines;
  };
  const Row rows[] = {
      {"one Packet fills the Bundle", one, "!", {one}, {}},
      {"three, at odd offsets", one + packet(0x22) + one, "!\"!", {one, packet(0x22), one}, {}},
      {"length 5", packet(0x22), "\"", {packet(0x22)}, {}},
      {"length 4", packet(0x22, "", 7, 4), "\"", {packet(0x22, "", 7, 4).substr(0, 4)}, {fatal(4, 5)}},
      {"length 0 sends no byte", packet(0x22, "", 7, 0) + one, "\"", {""}, {fatal(0, 12)}},
      {"one over", packet(0x22, "a", 7, 7), "\"", {}, {dropped("22", 7, 6), fatal(7, 6)}},
      {"a bad one hides those behind it",
       one + packet(0x22, "", 7, 13) + one,
       "!\"",
       {one},
       {dropped("22", 13, 12), fatal(13, 12)}},
      {"one stray byte", one + "\x22", "!\xFF", {one}, {"ERROR bad opcode: ff", fatal(65535, 1)}},
      {"four stray bytes", one + Bytes(4, '\0'), "!\xFF", {one}, {"ERROR bad opcode: ff", fatal(65535, 4)}},
      {"a frame's text is full", packet(0x28, Bytes(507, 'x')), "(", {packet(0x28, Bytes(507, 'x'))}, {}},
      {"more than a frame", packet(0x28, Bytes(508, 'x')) + one, "(!", {one}, {dropped("28", 513, 520)}},
      {"a start of 4", packet(0x70, "ab", 7, 4), "p", {}, {dropped("70", 4, 7), fatal(4, 7)}},
      {"a start of more than a frame", packet(0x70, Bytes(508, 'x')), "p", {}, {dropped("70", 513, 513)}},
      {"a chunk past the end", packet(0x71, "ab", 7, 8), "q", {}, {dropped("71", 8, 7), fatal(8, 7)}},
      {"a chunk without header", packet(0x71, "ab", 7, 4), "q", {}, {dropped("71", 4, 7), fatal(4, 7)}},
      {"an end past the end, and no pause", packet(0x72, "", 7, 6), "r", {}, {dropped("72", 6, 5), fatal(6, 5)}},
      {"a switch reads no payload",
       packet(0x76, "", 7, 900),
       "v",
       {},
       {"WARN Clocksteward application has been enabled", fatal(900, 5)}},
  };
  for (const Row& row : rows) {
    sleepCalls = 0;
    walk(row.bundle);
    Bytes bounces;
    for (const Bytes& text : drain(toRidgelink)) bounces += text;
    EXPECT_EQ(bounces, row.bounces) << row.what;
    EXPECT_EQ(drain(toClocksteward), row.clocksteward) << row.what;
    EXPECT_EQ(drain(toStagehand), Lines{}) << row.what;
    EXPECT_EQ(log(), row.lines) << row.what;
    EXPECT_EQ(sleepCalls, 0) << row.what;
  }
  walk(many + "\x01\x02");
  EXPECT_EQ(drain(toRidgelink).size(), 1639U);
  dispatchPacket(nullptr, 100);
  EXPECT_EQ(drain(toRidgelink), Lines{"\xFF"});
}

TEST_F(Routing, HeartbeatIsAnsweredWhateverItsLength) {
  for (const int length : {0, 4, 5, 5000}) walk(packet(0x04, "", 0xBEEF, length));
  const Bytes reply = packet(0x80, Bytes(507, '\0'), 0xBEEF);
  EXPECT_EQ(drain(toRidgelink), (Lines{"\x04", reply, "\x04", reply, "\x04", reply, "\x04", reply}));
}

// What the log and standard error must say of a send, told once more and independently of the service's own table.
struct Kind {
  int key;
  std::uint32_t* counter;  // of the model
  std::string failed, last, restored, reopen;
  bool version = false, package = false;
};

struct Model {
  std::map<int, std::uint32_t> failures;
  std::map<int, bool> jammed, lostHandle;
  bool refuseOpen = false;
  Lines lines, errors;

  bool send(const Kind& kind) {
    std::uint32_t* count = kind.counter;
    if (!jammed[kind.key] && !lostHandle[kind.key]) {
      if (count != nullptr && *count >= 15) lines.push_back("INFO " + kind.restored);
      if (count != nullptr) *count = 0;
      return true;
    }
    const int reason = refuseOpen ? ENOSPC : lostHandle[kind.key] ? EINVAL : EAGAIN;
    if (count != nullptr) ++*count;
    if (count == nullptr || *count < 15) {
      if (!kind.failed.empty()) lines.push_back("ERROR " + kind.failed);
    } else if (*count == 15) {
      lines.push_back("ERROR " + kind.last);
    }
    lostHandle[kind.key] = refuseOpen;
    if (refuseOpen) lines.push_back("ERROR " + kind.reopen + (kind.package ? std::strerror(reason) : ""));
    if (refuseOpen && kind.version) lines.push_back("ERROR HubKeeper: failed sending to Ridgelink");
    if (kind.package || (kind.version && refuseOpen)) {
      errors.push_back("msgsnd to Ridgelink: " + std::string(std::strerror(reason)));
    }
    return false;
  }
};

TEST_F(Routing, CountsFailedSendsAsTheModelDoes) {
  const std::string last = ", last logged occurance";
  Model model;
  auto* counters = &model.failures;
  const Kind bounceKind{toRidgelink,
                        &(*counters)[toRidgelink],
                        "HubKeeper: Failed bouncing to Ridgelink",
                        "HubKeeper: Failed bouncing to Ridgelink" + last,
                        "HubKeeper: Failed bouncing to Ridgelink error has been recovered",
                        "HubKeeper: In From Ridgelink queue setup failed"};
  const Kind heartbeat{toRidgelink,
                       &(*counters)[toRidgelink],
                       "HubKeeper: Send Heartbeat to ridgelink failed",
                       "HubKeeper: Send Heartbeat to ridgelink failed" + last,
                       "HubKeeper recovered from failed heartbeat send to Ridgelink",
                       "HubKeeper: In From Ridgelink queue setup failed"};
  const Kind chronicler{toChronicler,
                        &(*counters)[toChronicler],
                        "HubKeeper: Failed sending to Chronicler",
                        "HubKeeper: Failed sending to Chronicler" + last,
                        "HubKeeper: Restored communication to Chronicler",
                        "HubKeeper: Failed to recreate msgque to Chronicler"};
  const Kind netsteward{toNetsteward,
                        &(*counters)[toNetsteward],
                        "HubKeeper: Failed sending to Netsteward",
                        "HubKeeper: Failed sending to Netsteward" + last,
                        " HubKeeper: Communcation with Netsteward has been restored",
                        "HubKeeper: Failed msgget after comm error"};
  const Kind clocksteward{toClocksteward,
                          &(*counters)[toClocksteward],
                          "HubKeeper: Failed sending to Clocksteward",
                          "HubKeeper: Failed sending to Clocksteward" + last,
                          " HubKeeper: Communication with Clocksteward has been restored",
                          "HubKeeper: Failed getting message que handle for PTP"};
  const Kind start{toStagehand,
                   &(*counters)[toStagehand],
                   "HubKeeper: Failed sending to Stagehand",
                   "HubKeeper: Failed sending to Stagehand" + last,
                   "HubKeeper: Communication with Stagehand has been restored",
                   "HubKeeper: Out to stagehand queue setup failed"};
  const Kind end{toStagehand, nullptr, "HubKeeper: Failed sending to Stagehand",
                 "",          "",      "Out to stagehand queue setup failed"};
  const Kind command{toRidgelink, nullptr, "HubKeeper: Failed sending to Ridgelink",
                     "",          "",      "In From Ridgelink queue setup failed"};
  const Kind version{toRidgelink, nullptr, "", "", "", "In From Ridgelink queue setup failed", true};
  const Kind state{toRidgelink, nullptr, "HubKeeper: setState: Failed sending state to Ridgelink",
                   "",          "",      "In From Ridgelink queue setup failed"};
  const Kind package{toRidgelink,
                     &(*counters)[toRidgelink],
                     "HubKeeper ERROR: sending SW Package to Ridgelink",
                     "HubKeeper ERROR: sending SW Package to Ridgelink, last log",
                     "HubKeeper broken communication restored while sending SW package to Ridgelink",
                     "In From Ridgelink queue setup failed",
                     false,
                     true};
  writeFile("/etc/build-version", "v");
  writeFile("/var/staging/V", "");
  millisecondsPerSecond = 0;
  openTransferPlaceholder();

  struct Action {
    Bytes request;
    std::vector<const Kind*> sends;
    std::string line;  // that the action itself logs before its sends behind the bounce
  };
  const std::vector<Action> actions = {
      {packet(0x04), {&heartbeat}, ""},
      {packet(0x1F), {&netsteward}, ""},
      {packet(0x20), {&clocksteward}, ""},
      {packet(0x30), {&chronicler}, ""},
      {packet(0x70, "tmp/t "), {&start}, ""},
      {packet(0x72), {&end}, ""},
      {packet(0x60), {&version}, "INFO HubKeeper: SD Card version: v of size 1"},
      {packet(0x63), {&command}, "ERROR HubKeeper: Remote command not run, it has no text"},
      {"", {&package}, ""},
      {"", {&state}, ""},
  };
  std::mt19937 random(20191126);
  bool transfer = true;  // the placeholder is open, so the first end closes it in silence
  bool active = false;
  for (int step = 0; step < 6000; ++step) {
    if (random() % 16 == 0) {
      const int keys[] = {toRidgelink, toNetsteward, toClocksteward, toChronicler, toStagehand};
      const int key = keys[random() % 5];
      jam(key, model.jammed[key] = !model.jammed[key]);
    }
    if (random() % 8 == 0) {
      model.refuseOpen = random() % 4 == 0;
      clearFaults();
      if (model.refuseOpen) planFault("msgget", 0, ENOSPC);
    }
    const std::size_t chosen = random() % actions.size();
    const Action& action = actions[chosen];
    if (chosen == 4 && active) continue;
    std::map<int, std::size_t> sent;
    if (!action.request.empty()) sent[toRidgelink] += model.send(bounceKind);
    if (!action.line.empty()) model.lines.push_back(action.line);
    if (chosen == 4) active = transfer = true;
    if (chosen == 5 && !transfer) model.lines.emplace_back("ERROR HubKeeper: Tried to close bad app file");
    if (chosen == 5) active = transfer = false;
    for (const Kind* kind : action.sends) sent[kind->key] += model.send(*kind);

    if (chosen == 8) sendSwPackage(0);
    if (chosen == 9) setState(1);
    if (!action.request.empty()) walk(action.request);
    ASSERT_EQ(log(), model.lines) << "step " << step;
    ASSERT_EQ(errors(), model.errors) << "step " << step;
    const std::map<int, std::uint32_t> counts = {{toRidgelink, ridgelinkFailures},
                                                 {toNetsteward, netstewardFailures},
                                                 {toClocksteward, clockstewardFailures},
                                                 {toChronicler, chroniclerFailures},
                                                 {toStagehand, stagehandFailures}};
    ASSERT_EQ(counts, model.failures) << "step " << step;
    for (const auto& [key, count] : sent)
      ASSERT_EQ(drain(key).size(), count) << "step " << step << " key " << key << " action " << chosen;
    model.lines.clear();
    model.errors.clear();
  }
}

TEST_F(Routing, ARemovedQueueIsCreatedAnew) {
  msgctl(msgget(toChronicler, 0), IPC_RMID, nullptr);
  walk(packet(0x30, "lost") + packet(0x30, "kept"));
  EXPECT_EQ(drain(toChronicler), Lines{packet(0x30, "kept")});
  EXPECT_EQ(log(), Lines{"ERROR HubKeeper: Failed sending to Chronicler"});
}

}  // namespace
