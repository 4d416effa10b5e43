// What the tests share: tables of Packets, both ends of the real queues, the log's new lines, and the service as a child
// process. Each test runs in a sandbox of its own, so keys and paths are the real ones and always fresh.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

using Bytes = std::string;
using Lines = std::vector<std::string>;

/// The queues to Ridgelink, Netsteward, Clocksteward, Chronicler (L) and Stagehand, and the inbound one.
const std::map<char, int> keys = {{'R', 1003}, {'N', 1000}, {'C', 1011}, {'L', 1010}, {'S', 1006}, {'I', 1002}};

/// The text that a word of a table stands for: 21 is a Packet of that opcode with tag 7 and without payload, 21"ab" one
/// with payload, 21@fffe one with that tag, 21:4 one with that length in its header, .21 a bounce, and =ab those bytes.
/// \hh is the byte of that number, and x{9} nine times x.
Bytes text(const std::string& word);
Lines texts(const std::string& words);
Lines splitLines(const std::string& text);
Lines columns(const std::string& row);  // separated by |

/// Walks the Packets in the first column of each row, then compares what went out with the second (to Ridgelink, or
/// behind another queue's letter) and the lines logged with the others; with the word "exit" the process must end with
/// status 1. "$ COMMAND | OUTPUT" runs a shell command, "$ COMMAND => PACKETS" both, "state VALUE" and "package SELECTOR"
/// send a notice, and "! CALL ERROR" makes a call fail from then on.
void play(const std::string& table);
/// Walks a Bundle in heap memory of exactly its size, so that a sanitizer sees a read beyond it.
void walk(const Bytes& bundle);
/// Lines as wanted: a single letter stands for a priority, and .. for any beginning of the message.
bool like(const Lines& lines, const Lines& wanted);

int queueId(char queue);
void sendBundle(const Bytes& bundle);
/// Takes messages until `count` have come, and all that wait; mtype must be 1.
Lines drain(char queue, std::size_t count = 0);
/// Polls until it is so; after half a minute the test fails.
bool eventually(const std::function<bool()>& holds);
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

/// The core of the service within the test's own process, with its queues open.
struct Core : testing::Test {
  void SetUp() override;
};
/// The lines since the last call: "PRIORITY message", what went to standard error, and "slept N" for sleep(3).
Lines log();

/// The service as a process of its own, with a failure in its environment; it is killed at the end.
struct Service {
  explicit Service(const std::string& program, const std::string& failure = "");
  ~Service();
  int id;
};
void waitUntilReady();
/// What all services printed, without the time and the blank at the end: "PRIORITY message".
Lines console();
long logged(const std::string& line);

/// From now on `call`, one of those that are wrapped, succeeds `skip` times and then fails with `error`.
void planFailure(const std::string& call, int skip, int error);
extern std::atomic<int> enabledAtSystem;  // clockstewardEnabled, as the latest system(3) found it
extern int millisecondsPerSecond;         // of sleep(3), which leaves a line in that file
extern std::string sleepLog;
