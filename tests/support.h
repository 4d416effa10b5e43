// What the tests share: Packets as strings of bytes, both ends of the real queues, the log's new lines, and the service
// as a child process. Each test runs in a sandbox of its own, so keys and paths are the real ones and always fresh.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

using Bytes = std::string;
using Lines = std::vector<std::string>;

enum Key {
  toNetsteward = 1000,
  fromRidgelink = 1002,
  toRidgelink = 1003,
  toStagehand = 1006,
  toChronicler = 1010,
  toClocksteward = 1011
};

/// A Packet; `length` overrides the true one in the header.
Bytes packet(int opcode, const Bytes& payload = "", int tag = 7, int length = -1);
Bytes bounce(int opcode);

void sendBundle(const Bytes& text, int key = fromRidgelink);
/// Takes all messages that wait; mtype must be 1.
Lines drain(int key);
/// Takes messages until there are `count` of them.
Lines await(int key, std::size_t count);
/// Lets a queue refuse everything, or work again.
void jam(int key, bool jammed);
/// Polls until it is so; after half a minute the test fails.
bool eventually(const std::function<bool()>& holds);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
Lines splitLines(const std::string& text);

/// The core of the service within the test's own process: queues open, log lines as "PRIORITY message" in a file.
class Core : public testing::Test {
 protected:
  void SetUp() override;
  /// The lines logged since the last call, and what went to standard error since.
  static Lines log();
  static Lines errors();
  /// The step must end the process with status 1 and with standard error like that.
  static void expectEnd(const std::function<void()>& step, const std::string& errorPattern);
};

/// The service as a process of its own; it is killed at the end.
class Service {
 public:
  explicit Service(const std::string& program = HUBKEEPER, const Lines& environment = {});
  ~Service();
  void waitUntilReady();
  /// Console lines without their time, "PRIORITY message ".
  [[nodiscard]] Lines console() const;
  [[nodiscard]] bool logged(const std::string& line, int times = 1) const;
  [[nodiscard]] std::string errors() const { return readFile(base + ".err"); }
  int waitForEnd();
  pid_t id = -1;

 private:
  std::string base;
};
