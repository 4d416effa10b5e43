// What the tests share: tables of Packets, both ends of the real queues, the log's new lines, and the service as a child
// process. Each test runs in a sandbox of its own, so keys and paths are the real ones and always fresh.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

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
constexpr Key peers[] = {toRidgelink, toNetsteward, toClocksteward, toChronicler, toStagehand};

/// A Packet; `length` overrides the true one in the header.
Bytes packet(int opcode, const Bytes& payload = "", int tag = 7, int length = -1);

/// The text that a word of a table stands for: 21 is a Packet of that opcode with tag 7 and without payload, 21"ab" one
/// with payload, 21@fffe one with that tag, 21:4 one with that length in its header, .21 a bounce, and =ab those bytes.
/// \hh is the byte of that number, and x{9} nine times x.
Bytes text(const std::string& word);
Lines texts(const std::string& words);
Lines columns(const std::string& row);  // separated by |
Lines splitLines(const std::string& text);

/// Walks the Packets in the first column of each row, then compares what went out with the second (to Ridgelink, or
/// behind R, N, C, L, S to that peer) and the lines logged with the others. Other rows: "$ COMMAND | OUTPUT" runs a
/// shell command, "state VALUE" and "package SELECTOR" send a notice, "! CALL ERROR" makes a call fail from then on.
void play(const std::string& table);
/// Walks a Bundle in heap memory of exactly its size, so that a sanitizer sees a read beyond it.
void walk(const Bytes& bundle);
/// Lines as wanted: I, W, E and F stand for a priority, and .. for any beginning of the message.
bool like(const Lines& lines, const Lines& wanted);

void sendBundle(const Bytes& text);
/// Takes all messages that wait; mtype must be 1. Or waits until `count` have come.
Lines drain(int key, std::size_t count = 0);
/// Lets a queue refuse everything, or work again.
void jam(int key, bool jammed);
/// Polls until it is so; after half a minute the test fails.
bool eventually(const std::function<bool()>& holds);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

/// The core of the service within the test's own process: queues open, log lines as "PRIORITY message" in a file.
class Core : public testing::Test {
 protected:
  void SetUp() override;
};
/// The lines logged since the last call, and what went to standard error since. Also tells of each sleep(3).
Lines log();
Lines errors();
/// The step must end the process with status 1 and with standard error like that.
void expectEnd(const std::function<void()>& step, const std::string& errorPattern);

/// The service as a process of its own; it is killed at the end.
class Service {
 public:
  explicit Service(const std::string& program, const char* fault = nullptr);
  ~Service();
  void waitUntilReady();
  /// Console lines without their time, "PRIORITY message ".
  [[nodiscard]] Lines console() const;
  [[nodiscard]] long logged(const std::string& line) const;

 private:
  pid_t id;
  std::string base;
};
