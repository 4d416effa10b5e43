#include "support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "commands/notices.h"
#include "hub/inbound.h"
#include "hub/queues.h"
#include "logging/log_manager.h"
#include "wraps.h"

struct Message {
  long mtype;
  char mtext[8192];
};

extern "C" int __real_msgget(key_t key, int flags);  // works also while the service's calls are made to fail
static int queueId(int key) { return __real_msgget(key, IPC_CREAT | 0644); }

Bytes packet(int opcode, const Bytes& payload, int tag, int length) {
  if (length < 0) length = static_cast<int>(payload.size()) + 5;
  const int header[] = {length & 0xFF, length >> 8, tag & 0xFF, tag >> 8, opcode};
  return Bytes(std::begin(header), std::end(header)) + payload;
}

static Bytes unescape(const std::string& escaped) {
  Bytes bytes;
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] == '\\') {
      bytes += static_cast<char>(std::stoi(escaped.substr(i + 1, 2), nullptr, 16)), i += 2;
    } else if (escaped[i] == '{') {
      bytes.append(std::stoul(escaped.substr(i + 1)) - 1, bytes.back()), i = escaped.find('}', i);
    } else {
      bytes += escaped[i];
    }
  }
  return bytes;
}

Bytes text(const std::string& word) {
  static const std::regex packetWord("(..)(?:@(\\w+))?(?::(\\d+))?(?:\"(.*)\")?");
  if (word[0] == '=') return unescape(word.substr(1));
  if (word[0] == '.') return unescape("\\" + word.substr(1));
  std::smatch part;
  EXPECT_TRUE(std::regex_match(word, part, packetWord)) << word;
  return packet(std::stoi(part[1], nullptr, 16), unescape(part[4]),
                part[2].matched ? std::stoi(part[2], nullptr, 16) : 7, part[3].matched ? std::stoi(part[3]) : -1);
}

// The pieces of the text that match.
static Lines pieces(const std::string& whole, const char* pattern) {
  const std::regex expression(pattern);
  return {std::sregex_token_iterator(whole.begin(), whole.end(), expression, 1), {}};
}
static Lines words(const std::string& row) { return pieces(row, "((?:[^ \"]|\"[^\"]*\")+)"); }

Lines columns(const std::string& row) {
  Lines all;
  std::istringstream rest(std::regex_replace(row, std::regex(" *\\| *"), "\n"));
  for (std::string column; std::getline(rest, column);)
    all.push_back(column.substr(0, column.find_last_not_of(' ') + 1));
  return all;
}

Lines texts(const std::string& row) {
  Lines all;
  for (const std::string& word : words(row)) all.push_back(text(word));
  return all;
}

Lines splitLines(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

void walk(const Bytes& bundle) {
  const std::vector<std::uint8_t> exact(bundle.begin(), bundle.end());
  walkBundle(exact.data(), static_cast<std::uint16_t>(exact.size()));
}

bool like(const Lines& lines, const Lines& wanted) {
  static const std::map<char, std::string> priorities = {
      {'I', "INFO "}, {'W', "WARN "}, {'E', "ERROR "}, {'F', "FATAL "}};
  const auto alike = [](const std::string& line, const std::string& want) {
    if (want.size() < 2 || want[1] != ' ') return line == want;
    const std::string& priority = priorities.at(want[0]);
    const std::string message = want.substr(2);
    return message.starts_with("..") ? line.starts_with(priority) && line.ends_with(message.substr(2))
                                     : line == priority + message;
  };
  return std::equal(lines.begin(), lines.end(), wanted.begin(), wanted.end(), alike);
}

void play(const std::string& table) {
  for (const std::string& row : splitLines(std::regex_replace(table, std::regex("\n +\\|"), " |"))) {
    if (row.empty()) continue;
    SCOPED_TRACE(row);
    Lines column = columns(row);
    column.resize(std::max(column.size(), std::size_t{2}));
    const Lines what = words(column[0]);
    if (what[0] == "$") {
      static_cast<void>(std::system(("(" + column[0].substr(2) + ") >/tmp/output 2>&1").c_str()));
      EXPECT_EQ(readFile("/tmp/output"), unescape(column[1]));
      continue;
    }
    if (what[0] == "!") {
      planFault(what[1], 0, std::stoi(what[2]));
      continue;
    }
    if (what[0] == "state") {
      EXPECT_EQ(setState(static_cast<std::uint16_t>(std::stoi(what[1], nullptr, 16))), column[1].empty() ? 0 : 1);
    } else if (what[0] == "package") {
      sendSwPackage(std::stoi(what[1]));
    } else {
      Bytes bundle;
      for (const Bytes& one : texts(column[0])) bundle += one;
      walk(bundle);
    }
    const std::map<std::string, int> keys = {
        {"R", toRidgelink}, {"N", toNetsteward}, {"C", toClocksteward}, {"L", toChronicler}, {"S", toStagehand}};
    std::map<int, Lines> sent;
    int key = toRidgelink;
    for (const std::string& word : words(column[1])) {
      if (keys.count(word) != 0)
        key = keys.at(word);
      else
        sent[key].push_back(text(word));
    }
    for (const int peer : peers) EXPECT_EQ(drain(peer), sent[peer]) << peer;
    EXPECT_PRED2(like, log(), Lines(column.begin() + 2, column.end()));
  }
}

void sendBundle(const Bytes& bundle) {
  Message message{99, {}};  // any mtype is accepted
  std::memcpy(message.mtext, bundle.data(), bundle.size());
  ASSERT_EQ(msgsnd(queueId(fromRidgelink), &message, bundle.size(), 0), 0);
}

Lines drain(int key, std::size_t count) {
  Lines taken;
  Message message;
  eventually([&] {
    for (ssize_t size; (size = msgrcv(queueId(key), &message, sizeof message.mtext, 0, IPC_NOWAIT)) >= 0;) {
      EXPECT_EQ(message.mtype, 1);
      taken.emplace_back(message.mtext, static_cast<std::size_t>(size));
    }
    return taken.size() >= count;
  });
  return taken;
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

void Core::SetUp() {
  LogManager* manager = LogManager::getInstance();
  manager->setPattern("%p %m%n");
  manager->setPath("/tmp");
  manager->setFile(true);
  manager->getChannel("messages").setPriority(600);
  messagesChannel = manager->getChannel("messages");
  sleepLog = "/tmp/messages.log";
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

Lines log() {
  static std::size_t seen = 0;
  return newLines("/tmp/messages.log", seen);
}

Lines errors() {
  static std::size_t seen = 0;
  return newLines("/tmp/stderr", seen);
}

void expectEnd(const std::function<void()>& step, const std::string& errorPattern) {
  const auto perform = [&] {
    stderr = fdopen(2, "w");
    step();
  };
  EXPECT_EXIT(perform(), testing::ExitedWithCode(1), errorPattern);
}

Service::Service(const std::string& program, const char* fault) {
  static int count = 0;
  base = "/tmp/service" + std::to_string(++count);
  id = fork();
  if (id != 0) return;
  dup2(open((base + ".out").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0644), 1);
  dup2(open((base + ".err").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0644), 2);
  closefrom(3);
  if (fault != nullptr) setenv("HUB_FAULT", fault, 1);
  execl(program.c_str(), program.c_str(), nullptr);
  _exit(127);
}

Service::~Service() { kill(id, SIGKILL), waitpid(id, nullptr, 0); }

void Service::waitUntilReady() {
  sendBundle(packet(0x04));
  drain(toRidgelink, 2);
}

Lines Service::console() const {
  static const std::regex time("^(\\w+) \\d\\d \\w{3} \\d{4} [\\d:]{8} ");
  Lines lines = splitLines(readFile(base + ".out"));
  for (std::string& line : lines) line = std::regex_replace(line, time, "$1 ");
  return lines;
}

long Service::logged(const std::string& line) const {
  const Lines lines = console();
  return std::count(lines.begin(), lines.end(), line);
}
