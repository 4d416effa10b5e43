// What the programs here share: queues with room for a whole batch, a child process that serves them, and its inbound
// thread's CPU clock. They run in scripts/sandbox, where the fixed queue keys are theirs alone.
#pragma once

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

constexpr int queueKeys[] = {1002, 1000, 1011, 1010, 1006, 1003};
constexpr msglen_t roomyQueue = 64 << 20;

struct Message {
  long mtype = 1;
  std::uint8_t text[8192] = {};
};

[[noreturn]] inline void giveUp(const std::string& what) {
  std::perror(what.c_str());
  std::exit(2);
}

inline std::string packet(std::uint8_t opcode, const std::string& payload = "", std::uint16_t tag = 7) {
  const auto length = static_cast<std::uint16_t>(5 + payload.size());
  const auto low = [](int value) { return static_cast<char>(value & 0xFF); };
  return std::string{low(length), low(length >> 8), low(tag), low(tag >> 8), low(opcode)} + payload;
}

/// The queues under their keys plus `offset`, each with room for many Bundles and their answers.
class Queues {
 public:
  explicit Queues(int offset = 0) {
    std::ofstream("/proc/sys/kernel/msgmnb") << roomyQueue;
    for (const int key : queueKeys) {
      const int id = ids[key] = msgget(key + offset, IPC_CREAT | 0644);
      msqid_ds state{};
      if (id == -1 || msgctl(id, IPC_STAT, &state) == -1) giveUp("queue " + std::to_string(key));
      state.msg_qbytes = roomyQueue;
      if (msgctl(id, IPC_SET, &state) == -1) giveUp("enlarging a queue, outside scripts/sandbox?");
    }
  }

  void send(const std::string& text) const {
    Message message;
    std::memcpy(message.text, text.data(), text.size());
    if (msgsnd(ids.at(1002), &message, text.size(), 0) == -1) giveUp("msgsnd");
  }
  /// Takes one message off; the number of its bytes, -1 when the queue is empty and `flags` has IPC_NOWAIT.
  ssize_t take(int key, Message& message, int flags = 0) const {
    return msgrcv(ids.at(key), &message, sizeof message.text, 0, flags);
  }
  msgqnum_t waiting(int key) const {
    msqid_ds state{};
    msgctl(ids.at(key), IPC_STAT, &state);
    return state.msg_qnum;
  }
  /// Takes off everything that was sent by the subject; the number of messages.
  unsigned drain() const {
    Message message;
    unsigned count = 0;
    for (const int key : queueKeys) {
      while (key != 1002 && take(key, message, IPC_NOWAIT) != -1) ++count;
    }
    return count;
  }

 private:
  std::map<int, int> ids;
};

/// A child process; ended with this object.
class Subject {
 public:
  explicit Subject(std::vector<std::string> command) {
    command[0] = std::filesystem::absolute(command[0]);
    id = fork();
    if (id == 0) {
      if (chdir("/run") == -1) _exit(127);  // for the placeholder of transfers
      dup2(open("/dev/null", O_WRONLY), 1);
      dup2(1, 2);
      std::vector<char*> argv;
      for (std::string& word : command) argv.push_back(word.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  Subject(const Subject&) = delete;
  Subject& operator=(const Subject&) = delete;
  ~Subject() {
    kill(id, SIGKILL);
    waitpid(id, nullptr, 0);
  }

  void stop() const { kill(id, SIGSTOP), waitpid(id, nullptr, WUNTRACED); }
  void resume() const { kill(id, SIGCONT); }

  /// CPU nanoseconds of the thread that waits in msgrcv; waits until it does.
  std::uint64_t cpuWhenIdle(const Queues& queues) const {
    for (std::uint64_t last = 0;; usleep(500)) {
      if (queues.waiting(1002) > 0) continue;
      for (const auto& task : std::filesystem::directory_iterator(file("task"))) {
        std::string place;
        std::getline(std::ifstream(task.path() / "wchan"), place);
        if (place.find("msgrcv") == place.npos) continue;
        std::uint64_t now = 0;
        std::ifstream(task.path() / "schedstat") >> now;
        if (now == last) return now;
        last = now;
      }
    }
  }
  /// A row of the process's memory map summary (proc(5), smaps_rollup), in kB.
  long memory(const std::string& row) const {
    std::ifstream rows(file("smaps_rollup"));
    for (std::string line; std::getline(rows, line);) {
      if (line.rfind(row + ":", 0) == 0) return std::atol(line.c_str() + row.size() + 1);
    }
    giveUp(row);
  }
  std::string file(const std::string& name) const { return "/proc/" + std::to_string(id) + "/" + name; }

 private:
  pid_t id;
};

inline double nanoseconds() {
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

template <typename T>
T median(std::vector<T> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}
