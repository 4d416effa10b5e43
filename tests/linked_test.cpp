// What only a linked test reaches: the building of Packets, operations beyond their bounds, the notices, the cancelling.
#include <sys/msg.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "commands/file_transfer.h"
#include "commands/notices.h"
#include "hub/dispatch.h"
#include "hub/packet.h"
#include "hub/queues.h"
#include "hub/sends.h"
#include "hub/threads.h"
#include "linked.h"
#include "logging/log_manager.h"

namespace {

using Bytes = std::string;

struct Linked : testing::Test {
  void SetUp() override {
    LogManager* manager = LogManager::getInstance();
    manager->setPattern("%p %m%n");
    manager->setPath("/tmp");
    manager->setFile(true);
    manager->getChannel("messages").setPriority(600);
    messagesChannel = manager->getChannel("messages");
    stderr = fopen("/tmp/messages.log", "a");  // the stream alone: descriptor 2 stays for a sanitizer's report
    setvbuf(stderr, nullptr, _IOLBF, 0);
    createQues();
    lines();
  }
  // What was logged or went to standard error since the last call.
  Lines lines() {
    Lines all;
    for (std::string line; std::getline(log, line);) all.push_back(line);
    log.clear();
    return all;
  }
  static Lines taken(int queue) {
    Lines all;
    QueueMessage message;
    for (ssize_t size; (size = msgrcv(queue, &message, sizeof message.mtext, 1, IPC_NOWAIT)) >= 0;)
      all.emplace_back(message.mtext, message.mtext + size);
    return all;
  }
  std::ifstream log{std::ofstream("/tmp/messages.log") ? "/tmp/messages.log" : ""};
};

TEST(Packet, IsBuiltOrRefused) {
  const std::uint8_t payload[600] = {0xA5};
  for (const auto& [size, word, built] :
       {std::tuple{0, 512, 1}, {1, 512, 1}, {507, 512, 1}, {508, 512, 0}, {-1, 512, 0}, {0, 511, 0}}) {
    Bytes buffer(513, '\xEE'), expected = buffer;
    const auto whole = static_cast<std::uint16_t>(size + 5);
    const Bytes header{static_cast<char>(whole), static_cast<char>(whole >> 8), 0x34, 0x12, '\x90'};
    if (built == 1) expected = header + Bytes(payload, payload + size) + Bytes(512U - whole, '\0') + '\xEE';
    auto length = static_cast<std::uint16_t>(word);
    EXPECT_EQ(buildPacket(reinterpret_cast<std::uint8_t*>(buffer.data()), &length, 0x1234, 0x90, payload, size), built);
    EXPECT_EQ(buffer, expected) << size;
    EXPECT_EQ(length, built == 1 ? whole : word);
  }
  std::uint16_t length = 512;
  EXPECT_EQ(buildPacket(nullptr, &length, 0, 0, payload, 1), 0);
}

TEST_F(Linked, OperationsHoldTheirOwnBounds) {
  const std::uint8_t packet[600] = {0x58, 0x02, 7, 0, 0x70, 't', 'm', 'p', '/', 'x'};
  for (const std::uint16_t length : std::initializer_list<std::uint16_t>{0, 4, 513, 600}) {
    handleTransferStart(packet, length);
    handleTransferEnd(packet, length);
    EXPECT_EQ(transferActive, 0) << length;
  }
  std::ofstream("/var/staging/V");
  handleTransferStart(packet, 11);
  for (const std::uint16_t length : std::initializer_list<std::uint16_t>{0, 4}) handleTransferChunk(packet, length);
  handleTransferEnd(packet, 11);
  EXPECT_EQ(std::filesystem::file_size("/tmp/x"), 0U);
  EXPECT_EQ(taken(stagehandQueue), Lines(2, Bytes(packet, packet + 11)));
  EXPECT_FALSE(sendMessage(chroniclerSend, packet, 513));
  EXPECT_EQ(taken(chroniclerQueue).size() + chroniclerFailures, 0U);
  EXPECT_EQ(lines(), Lines{"slept 1"});
  sendSwPackage(0);  // whose bytes must not stand behind those of the next message
  dispatchPacket(nullptr, 100);
  EXPECT_EQ(taken(ridgelinkQueue).at(1), "\xFF");
  EXPECT_EQ(std::count(replyFrame.mtext + 1, std::end(replyFrame.mtext), 0), 511);
}

TEST_F(Linked, NoticesGoToRidgelink) {
  for (const auto& [state, text] : {std::pair{0x102, "\x02\x01"}, {0xFFFF, "\xFF\xFF"}, {0x10000, "\0\0"}}) {
    EXPECT_NE(setState(state), 0);
    EXPECT_EQ(taken(ridgelinkQueue), Lines{Bytes(text, 2)});
  }
  EXPECT_EQ(setState(0), 0);
  EXPECT_EQ(lines(), Lines{"ERROR HubKeeper: ARM not allowed to set it's own state to 0, kWirepathArmState_RESET"});
  // What is first found in the directory, the selector, the opcode and the name that are sent, the line.
  const Bytes invalid = "ERROR HubKeeper ERROR: No valid package in directory: /var/staging/";
  const auto held = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  const auto before = held();
  for (const auto& [file, selector, opcode, line] : {std::tuple{"Vfirst", 0, '\x87', ""},
                                                     {"lastV", 1, '\x8A', ""},
                                                     {"lastV", -1, '\x8A', ""},
                                                     {"vlow", 1, '\x8A', invalid.c_str()}}) {
    std::filesystem::remove_all("/var/staging");
    std::filesystem::create_directory("/var/staging");
    for (const Bytes& name : {Bytes("rest"), Bytes(file)}) std::ofstream("/var/staging/" + name);  // read in reverse
    sendSwPackage(selector);
    const Bytes sent = taken(ridgelinkQueue).at(0);
    EXPECT_EQ(sent.substr(0, 5), (Bytes{static_cast<char>(sent.size()), 0, 0, 0, opcode}));
    EXPECT_TRUE(*line == '\0' ? sent.substr(5) == file : sent.size() > 5) << sent;
    EXPECT_EQ(lines(), *line == '\0' ? Lines{} : Lines{line});
  }
  EXPECT_EQ(held(), before);
  std::filesystem::remove_all("/var/staging");
  sendSwPackage(0);
  EXPECT_EQ(taken(ridgelinkQueue), Lines{Bytes("\5\0\0\0\x87", 5)});
  EXPECT_EQ(lines(), Lines{"ERROR HubKeeper ERROR: No such directory: /var/staging/"});
}

TEST_F(Linked, NoticesThatAreLostAreAccountedFor) {
  std::ofstream("/var/staging/V");
  Lines wanted;
  for (int i = 1; i <= 17; ++i) {
    const bool refused = i > 1;  // the handle is good only once; then the queue cannot be opened anew
    const std::string reason = refused ? "No space left on device" : "Resource temporarily unavailable";
    if (!refused) {
      msqid_ds stats;
      msgctl(ridgelinkQueue, IPC_STAT, &stats);
      stats.msg_qbytes = 0;
      msgctl(ridgelinkQueue, IPC_SET, &stats);
    }
    planFailure(refused ? "msgget" : "", 0, ENOSPC);
    sendSwPackage(0);
    if (i <= 15)
      wanted.push_back(std::string("ERROR HubKeeper ERROR: sending SW Package to Ridgelink") +
                       (i == 15 ? ", last log" : ""));
    if (refused) wanted.push_back("ERROR In From Ridgelink queue setup failed" + reason);
    wanted.push_back("msgsnd to Ridgelink: " + reason);
  }
  EXPECT_EQ(setState(1), 0);
  wanted.emplace_back("ERROR HubKeeper: setState: Failed sending state to Ridgelink");
  wanted.emplace_back("ERROR In From Ridgelink queue setup failed");
  EXPECT_EQ(ridgelinkFailures, 17U);
  planFailure("", 0, 0);
  msgctl(msgget(1003, 0), IPC_RMID, nullptr);
  openQueue(HUBKEEPER_QUEUE_RIDGELINK);
  sendSwPackage(0);
  wanted.emplace_back("INFO HubKeeper broken communication restored while sending SW package to Ridgelink");
  EXPECT_EQ(lines(), wanted);
}

TEST_F(Linked, ThreadsThatCannotBeCancelledEndTheProcess) {
  for (const auto& [skip, name] : {std::pair{0, "inbound"}, {1, "monitor"}}) {
    planFailure("pthread_cancel", skip, ENOSPC);
    const auto steps = [] { initThreadAttributes(), setThreadScheduling(), createThreads(), cancelThreads(); };
    EXPECT_EXIT(steps(), testing::ExitedWithCode(1), "");
    EXPECT_EQ(lines(), (Lines{std::string("ERROR HubKeeper failed to cancel ") + name + " thread",
                              std::string("pthread_cancel ") + name + " failed: No space left on device"}));
  }
}

}  // namespace
