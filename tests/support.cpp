#include "support.h"

#include <signal.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>

#include "commands/notices.h"
#include "hub/inbound.h"
#include "hub/queues.h"
#include "hub/sends.h"
#include "logging/log_manager.h"

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
  if (word[0] == '=') return unescape(word.substr(1));
  if (word[0] == '.') return unescape("\\" + word.substr(1));
  std::smatch part;
  EXPECT_TRUE(std::regex_match(word, part, std::regex("(..)(?:@(\\w+))?(?::(\\d+))?(?:\"(.*)\")?"))) << word;
  const Bytes payload = unescape(part[4]);
  const std::size_t tag = part[2].matched ? std::stoul(part[2], nullptr, 16) : 7;
  const std::size_t length = part[3].matched ? std::stoul(part[3]) : payload.size() + 5;
  const std::size_t header[] = {length & 0xFF, length >> 8, tag & 0xFF, tag >> 8, std::stoul(part[1], nullptr, 16)};
  return Bytes(std::begin(header), std::end(header)) + payload;
}

static Lines words(const std::string& row) {
  static const std::regex word("(?:[^ \"]|\"[^\"]*\")+");
  return {std::sregex_token_iterator(row.begin(), row.end(), word), {}};
}

Lines texts(const std::string& row) {
  Lines all = words(row);
  for (std::string& word : all) word = text(word);
  return all;
}

Lines splitLines(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

Lines columns(const std::string& row) {
  return splitLines(std::regex_replace(row, std::regex("\\s*\\|\\s*| +$"), "\n"));
}

void walk(const Bytes& bundle) {
  const std::vector<std::uint8_t> exact(bundle.begin(), bundle.end());
  walkBundle(exact.data(), static_cast<std::uint16_t>(exact.size()));
}

bool like(const Lines& lines, const Lines& wanted) {
  const auto alike = [](const std::string& line, const std::string& want) {
    if (want.size() < 2 || want[1] != ' ') return line == want;
    const std::string message = line.substr(line.find(' ') + 1);
    return line[0] == want[0] &&
           (want.substr(2, 2) == ".." ? message.ends_with(want.substr(4)) : message == want.substr(2));
  };
  return std::equal(lines.begin(), lines.end(), wanted.begin(), wanted.end(), alike);
}

static void perform(const std::string& step) {
  const Lines word = words(step);
  if (word[0] == "package") return sendSwPackage(std::stoi(word[1]));
  if (word[0] == "state") return void(setState(std::stoi(word[1], nullptr, 16)));
  Bytes bundle;
  for (const Bytes& one : texts(step)) bundle += one;
  walk(bundle);
}

void play(const std::string& table) {
  for (const std::string& row : splitLines(std::regex_replace(table, std::regex("\n +\\|"), " |"))) {
    if (row.empty()) continue;
    SCOPED_TRACE(row);
    Lines column = columns(row);
    column.resize(std::max(column.size(), std::size_t{2}));
    std::string& step = column[0];
    if (step[0] == '!') {
      planFailure(words(step)[1], 0, std::stoi(words(step)[2]));
      continue;
    }
    if (step[0] == '$') {
      const std::size_t arrow = step.find(" => ");
      static_cast<void>(std::system(("(" + step.substr(2, arrow - 2) + ") >/tmp/output 2>&1").c_str()));
      if (arrow == std::string::npos) {
        EXPECT_EQ(readFile("/tmp/output"), unescape(column[1]));
        continue;
      }
      step.erase(0, arrow + 4);
    }
    std::map<char, Lines> sent;
    char queue = 'R';
    bool ends = false;
    for (const std::string& word : words(column[1])) {
      if (word == "exit") {
        ends = true;
      } else if (word.size() == 1 && word != "=") {
        queue = word[0];
      } else {
        sent[queue].push_back(text(word));
      }
    }
    if (ends) {
      EXPECT_EXIT(perform(step), testing::ExitedWithCode(1), "");
    } else {
      perform(step);
    }
    for (const auto& [name, key] : keys) EXPECT_EQ(drain(name), sent[name]) << name;
    EXPECT_PRED2(like, log(), Lines(column.begin() + 2, column.end()));
  }
}

struct Message {
  long mtype;
  char mtext[8192];
};

extern "C" int __real_msgget(key_t key, int flags);  // works also while the service's calls are made to fail
int queueId(char queue) { return __real_msgget(keys.at(queue), IPC_CREAT | 0644); }

void sendBundle(const Bytes& bundle) {
  Message message{99, {}};  // any mtype is accepted
  std::memcpy(message.mtext, bundle.data(), bundle.size());
  ASSERT_EQ(msgsnd(queueId('I'), &message, bundle.size(), 0), 0);
}

Lines drain(char queue, std::size_t count) {
  Lines taken;
  Message message;
  eventually([&] {
    for (ssize_t size; (size = msgrcv(queueId(queue), &message, sizeof message.mtext, 0, IPC_NOWAIT)) >= 0;) {
      EXPECT_EQ(message.mtype, 1);
      taken.emplace_back(message.mtext, static_cast<std::size_t>(size));
    }
    return taken.size() >= count;
  });
  return taken;
}

bool eventually(const std::function<bool()>& holds) {
  for (const std::time_t began = std::time(nullptr); std::time(nullptr) - began < 30; usleep(5000)) {
    if (holds()) return true;
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
  stderr = fopen("/tmp/messages.log", "a");  // the stream alone: descriptor 2 stays for a sanitizer's report
  setvbuf(stderr, nullptr, _IOLBF, 0);
  createQues();
  log();
}

Lines log() {
  static std::size_t seen = 0;
  const std::string text = readFile("/tmp/messages.log").substr(seen);
  seen += text.size();
  return splitLines(text);
}

Service::Service(const std::string& program, const std::string& failure) : id(fork()) {
  const std::string command = "HUB_FAILURE=" + failure + " exec " + program + " >>/tmp/console 2>/tmp/errors";
  if (id == 0) closefrom(3), _exit(execl("/bin/sh", "sh", "-c", command.c_str(), nullptr));
}

Service::~Service() { kill(id, SIGKILL), waitpid(id, nullptr, 0); }

void waitUntilReady() {
  sendBundle(text("04"));
  drain('R', 2);
}

Lines console() {
  return splitLines(
      std::regex_replace(readFile("/tmp/console"), std::regex("\\d\\d \\w{3} \\d{4} [\\d:]{8} | (?=\n)"), ""));
}

long logged(const std::string& line) {
  const Lines lines = console();
  return std::count(lines.begin(), lines.end(), line);
}
