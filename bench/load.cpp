// Sends mixed Bundles through one HubKeeper with all queues drained, and holds every bounce, reply and forward against
// what was sent: none lost, none twice, none changed, all in order. In a run of a million Packets or more the process may
// not have grown by more than 1 % since the first 100,000.
//
//   scripts/sandbox build/…/load HUBKEEPER [PACKETS [SEED]]

#include <deque>
#include <random>

#include "common.h"

namespace {

constexpr std::uint8_t oddOpcode = 0xFE;

struct Expected {
  std::string text;
  bool whole = true;  // otherwise the header behind the length alone: a reply tells its own
};

std::mt19937 dice;
std::map<int, std::deque<Expected>> expected;  // by queue, in order
std::map<std::string, unsigned long> counts;
unsigned long packets;
std::string transferred;

void wrong(const std::string& what) {
  std::fprintf(stderr, "after %lu Packets: %s\n", packets, what.c_str());
  std::exit(1);
}

unsigned upTo(unsigned last) { return std::uniform_int_distribution<unsigned>(0, last)(dice); }

std::string bytes(unsigned size) {
  std::string all(size, '\0');
  for (char& byte : all) byte = static_cast<char>(dice());
  return all;
}

void expect(const char* count, int key, const std::string& text, bool whole = true) {
  expected[key].push_back({text, whole});
  ++counts[count];
}

// Adds a Packet to the Bundle, and what has to come of it to the lists.
void add(std::string& bundle, std::uint8_t opcode, const std::string& payload = "") {
  const std::string one = packet(opcode, payload, static_cast<std::uint16_t>(dice()));
  bundle += one;
  ++packets;
  expect("bounces", 1003, one.substr(4, 1));
  const auto reply = [&](const char* count, int code) {
    expect(count, 1003, one.substr(2, 2) + static_cast<char>(code), false);
  };
  if (opcode == 0x04) return reply("heartbeat replies", 0x80);
  if (opcode == 0x60) return reply("version replies", 0x88);
  if (opcode == 0x63) return reply("command replies", 0x90);
  if (opcode == 0x30) return expect("forwards to Chronicler", 1010, one);
  if (opcode < 0x20) return expect("forwards to Netsteward", 1000, one);
  if (opcode < 0x29) return expect("forwards to Clocksteward", 1011, one);
  if (opcode == 0x70 || opcode == 0x72) return expect("forwards to Stagehand", 1006, one);
  if (opcode == 0x71) transferred += payload;
  ++counts[opcode == 0x71 ? "chunks written" : "no answer but the bounce"];
}

// Weighted: mostly forwards and heartbeats; a shell command costs a thousand times as much as they do.
void addAny(std::string& bundle) {
  const unsigned draw = upTo(9999);
  if (draw < 1) return add(bundle, 0x63, std::string("echo $PPID\0", 11));
  if (draw < 11) return add(bundle, 0x60);
  if (draw < 21) return add(bundle, 0x76);
  if (draw < 200) return add(bundle, oddOpcode);
  if (draw < 1000) return add(bundle, 0x71, bytes(upTo(9) > 0 ? upTo(60) : upTo(2000)));
  if (draw < 3000) return add(bundle, 0x04);
  const std::uint8_t last = draw < 6000 ? 0x1F : draw < 9000 ? 0x28 : 0x30;
  const std::uint8_t first = last == 0x1F ? 0x00 : last == 0x28 ? 0x20 : 0x30;
  add(bundle, static_cast<std::uint8_t>(first + upTo(last - first)), bytes(upTo(3) > 0 ? upTo(40) : upTo(507)));
}

std::string anyBundle() {
  const std::size_t size = upTo(7) > 0 ? upTo(1000) : 8192 - 2010;
  std::string bundle;
  do addAny(bundle);
  while (bundle.size() < size && bundle.size() < 8192 - 2010);
  return bundle;
}

bool isWanted(const Expected& want, const std::string& got) {
  if (want.whole) return got == want.text;
  return got.size() >= 5 && got.size() <= 512 && got.compare(2, 3, want.text) == 0 &&
         packet(0, std::string(got.size() - 5, 0)).compare(0, 2, got, 0, 2) == 0;
}

// Takes off what has arrived; false when there was nothing.
bool check(const Queues& queues) {
  bool any = false;
  for (auto& [key, list] : expected) {
    Message message;
    for (ssize_t size; (size = queues.take(key, message, IPC_NOWAIT)) != -1; any = true) {
      const std::string got(reinterpret_cast<const char*>(message.text), static_cast<std::size_t>(size));
      if (list.empty()) wrong("one message too many on queue " + std::to_string(key));
      if (!isWanted(list.front(), got)) wrong("another message than expected on queue " + std::to_string(key));
      list.pop_front();
    }
  }
  return any;
}

bool allArrived() {
  return std::all_of(expected.begin(), expected.end(), [](const auto& list) { return list.second.empty(); });
}

void settle(const Queues& queues) {
  const double deadline = nanoseconds() + 30e9;
  while (!allArrived()) {
    if (!check(queues)) usleep(100);
    if (nanoseconds() > deadline) wrong("messages are missing");
  }
}

// The monitor's only work, 40 seconds after the start (there is no configuration here), has to be done before memory is
// compared: the pages that it touches are no growth.
void waitForMonitor() {
  for (std::string text; text.find("Failed to parse config file") == text.npos; usleep(100000)) {
    std::ifstream log("/media/data/messages.log");
    text.assign(std::istreambuf_iterator<char>(log), {});
  }
}

}  // namespace

int main(int count, char** words) {
  if (count < 2) return 2;
  const unsigned long total = count > 2 ? std::strtoul(words[2], nullptr, 10) : 200000;
  dice.seed(count > 3 ? static_cast<unsigned>(std::atoi(words[3])) : 1);
  const bool lasting = total >= 1000000;
  const Queues queues;
  const Subject hub({words[1]});
  long early = 0;
  const double begin = nanoseconds();
  const auto transfer = [&](std::uint8_t opcode, const std::string& payload) {
    std::string bundle;
    add(bundle, opcode, payload);
    queues.send(bundle);
    settle(queues);
  };
  transfer(0x70, std::string("tmp/load.bin\0", 13));
  while (packets < total) {
    queues.send(anyBundle());
    while (queues.waiting(1002) > 16) check(queues);
    check(queues);
    if (early == 0 && packets >= 100000) {
      settle(queues);
      if (lasting) waitForMonitor();
      early = hub.memory("Rss");
    }
  }
  transfer(0x72, "");
  const double seconds = (nanoseconds() - begin) / 1e9;
  const long late = hub.memory("Rss");
  usleep(10000);
  if (check(queues)) wrong("more messages than expected");

  std::ifstream file("/tmp/load.bin", std::ios::binary);
  const std::string written((std::istreambuf_iterator<char>(file)), {});
  if (written != transferred) wrong("the transferred file differs");

  std::printf("%lu Packets in %.1f s (%.0f a second), every one accounted for\n", packets, seconds,
              static_cast<double>(packets) / seconds);
  for (const auto& [name, value] : counts) std::printf("%12lu %s\n", value, name.c_str());
  std::printf("resident: %ld kB after 100,000 Packets, %ld kB at the end\n", early, late);
  if (lasting && late * 100 > early * 101) wrong("the process has grown");
  return 0;
}
