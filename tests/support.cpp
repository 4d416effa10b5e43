#include "support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "hub/dispatch.h"
#include "hub/queues.h"
#include "logging/log_manager.h"

namespace {
struct Message {
  long mtype;
  char mtext[8192];
};
}  // namespace

extern "C" int __real_msgget(key_t key, int flags);  // works also while the service's calls are made to fail
static int queueId(int key) { return __real_msgget(key, IPC_CREAT | 0644); }

Bytes packet(int opcode, const Bytes& payload, int tag, int length) {
  if (length < 0) length = static_cast<int>(payload.size()) + 5;
  const int header[] = {length & 0xFF, length >> 8, tag & 0xFF, tag >> 8, opcode};
  return Bytes(std::begin(header), std::end(header)) + payload;
}

Bytes bounce(int opcode) { return Bytes(1, static_cast<char>(opcode)); }

void sendBundle(const Bytes& text, int key) {
  Message message{1, {}};
  std::memcpy(message.mtext, text.data(), text.size());
  ASSERT_EQ(msgsnd(queueId(key), &message, text.size(), 0), 0);
}

Lines drain(int key) {
  Lines texts;
  Message message;
  for (ssize_t size; (size = msgrcv(queueId(key), &message, sizeof message.mtext, 0, IPC_NOWAIT)) >= 0;) {
    EXPECT_EQ(message.mtype, 1);
    texts.emplace_back(message.mtext, static_cast<std::size_t>(size));
  }
  return texts;
}

Lines await(int key, std::size_t count) {
  Lines texts;
  eventually([&] {
    for (const Bytes& text : drain(key)) texts.push_back(text);
    return texts.size() >= count;
  });
  return texts;
}

void jam(int key, bool jammed) {
  msqid_ds stats;
  msgctl(queueId(key), IPC_STAT, &stats);
  stats.msg_qbytes = jammed ? 0 : 16384;
  ASSERT_EQ(msgctl(queueId(key), IPC_SET, &stats), 0);
}

bool eventually(const std::function<bool()>& holds) {
  for (int i = 0; i < 6000; ++i) {
    if (holds()) return true;
    usleep(5000);
  }
  ADD_FAILURE() << "did not come true";
  return false;
}

std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& content) { std::ofstream(path) << content; }

Lines splitLines(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

void Core::SetUp() {
  LogManager* manager = LogManager::getInstance();
  manager->setPattern("%p %m%n");
  manager->setPath("/tmp");
  manager->setFile(true);
  manager->getChannel("messages").setPriority(600);
  messagesChannel = manager->getChannel("messages");
  stderr = fopen("/tmp/stderr", "a");  // the stream alone: descriptor 2 stays for a sanitizer's report
  setvbuf(stderr, nullptr, _IONBF, 0);
  createQues();
  log();
}

static Lines newLines(const std::string& path, std::size_t& seen) {
  const std::string text = readFile(path);
  const Lines lines = splitLines(text.substr(std::min(seen, text.size())));
  seen = text.size();
  return lines;
}

Lines Core::log() {
  static std::size_t seen = 0;
  return newLines("/tmp/messages.log", seen);
}

Lines Core::errors() {
  static std::size_t seen = 0;
  return newLines("/tmp/stderr", seen);
}

void Core::expectEnd(const std::function<void()>& step, const std::string& errorPattern) {
  const auto perform = [&] {
    stderr = fdopen(2, "w");
    step();
  };
  EXPECT_EXIT(perform(), testing::ExitedWithCode(1), errorPattern);
}

Service::Service(const std::string& program, const Lines& environment) {
  static int count = 0;
  base = "/tmp/service" + std::to_string(++count);
  id = fork();
  if (id != 0) return;
  dup2(open((base + ".out").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0644), 1);
  dup2(open((base + ".err").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0644), 2);
  closefrom(3);
  for (const std::string& setting : environment) putenv(const_cast<char*>(setting.c_str()));
  execl(program.c_str(), program.c_str(), nullptr);
  _exit(127);
}

Service::~Service() {
  if (id > 0) kill(id, SIGKILL), waitpid(id, nullptr, 0);
}

void Service::waitUntilReady() {
  sendBundle(packet(0x04));
  await(toRidgelink, 2);
}

Lines Service::console() const {
  Lines lines = splitLines(readFile(base + ".out"));
  for (std::string& line : lines) {
    const std::size_t blank = line.find(' ');
    if (line.size() > blank + 21) line.erase(blank + 1, 21);  // "22 Nov 2026 21:44:23 "
  }
  return lines;
}

bool Service::logged(const std::string& line, int times) const {
  const Lines lines = console();
  return std::count(lines.begin(), lines.end(), line) >= times;
}

int Service::waitForEnd() {
  int status = -1;
  waitpid(id, &status, 0);
  id = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
