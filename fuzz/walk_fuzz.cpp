// Feeds Bundles to the walk and the dispatcher and holds every send against a model of its own. Sends, shell, files and
// sleeps end here. The last 8 bytes of an input are no Bundle but say which calls fail; the Bundle lies in a block of
// its exact size, so that the sanitizer sees any byte read beyond it.

#include <sys/msg.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hub/inbound.h"
#include "hub/packet.h"
#include "hub/queues.h"
#include "hub/sends.h"

#define REQUIRE(condition) \
  if (!(condition)) (std::fprintf(stderr, "line %d: not so: %s\n", __LINE__, #condition), std::abort())

namespace {

struct Send {
  int queue;         // its key
  std::string text;  // with a larger `size` its beginning alone
  std::size_t size = text.size();
  bool reply = false;  // the text is the header behind the length, which the reply itself tells
};

std::vector<Send> sent;
std::uint64_t plan;  // one bit for each call that can fail, over and over
unsigned step;
char response[600];  // what a command printed, or a version file holds
std::size_t responseSize;

bool fails() { return (plan >> (step++ % 64) & 1) != 0; }

std::uint16_t word(const std::uint8_t* at) { return static_cast<std::uint16_t>(at[0] + 256 * at[1]); }

// What has to go out for a Bundle.
std::vector<Send> expectedSends(const std::uint8_t* at, std::size_t left) {
  std::vector<Send> all;
  bool active = false;
  while (left > 0) {
    if (left < 5) {
      all.push_back({1003, "\xFF"});
      break;
    }
    const std::size_t length = word(at);
    const unsigned opcode = at[4];
    const bool whole = length <= left && length <= 512;
    const std::string text(reinterpret_cast<const char*>(at), whole ? length : 0);
    const auto reply = [&](char code) { return std::string{static_cast<char>(at[2]), static_cast<char>(at[3]), code}; };
    all.push_back({1003, std::string(1, static_cast<char>(opcode))});
    if (opcode == 0x04) {
      all.push_back({1003, std::string("\0\2", 2) + reply('\x80'), 512});
    } else if (opcode == 0x30) {
      if (whole) all.push_back({1010, text});
    } else if (opcode < 0x20) {
      if (whole) all.push_back({1000, text});
    } else if (opcode < 0x29) {
      if (whole) all.push_back({1011, text});
    } else if (opcode == 0x60 || opcode == 0x63) {
      all.push_back({1003, reply(opcode == 0x60 ? '\x88' : '\x90'), 0, true});
    } else if (whole && length >= 5 && (opcode == 0x72 || (opcode == 0x70 && !active))) {
      all.push_back({1006, text});
      active = opcode == 0x70;
    }
    if (length < 5 || length > left) break;
    at += length;
    left -= length;
  }
  return all;
}

bool isReply(const std::string& text, const std::string& expected) {
  return text.size() >= 5 && word(reinterpret_cast<const std::uint8_t*>(text.data())) == text.size() &&
         text.compare(2, 3, expected) == 0;
}

bool agrees(const Send& got, const Send& want) {
  if (got.queue != want.queue && got.queue != -1) return false;
  if (want.reply) return isReply(got.text, want.text);
  return got.text.size() == want.size && got.text.compare(0, want.text.size(), want.text) == 0;
}

}  // namespace

extern "C" {

std::FILE* __real_fopen64(const char* path, const char* mode);

int __wrap_msgget(key_t key, int flags) {
  REQUIRE(flags == 932);
  return fails() ? -1 : key;
}

// A handle is its key here, and -1 after an opening that failed.
int __wrap_msgsnd(int queue, const void* message, std::size_t size, int flags) {
  const auto* frame = static_cast<const QueueMessage*>(message);
  REQUIRE(size <= 512 && flags == IPC_NOWAIT && frame->mtype == 1);
  REQUIRE(std::all_of(frame->mtext + size, std::end(frame->mtext), [](std::uint8_t byte) { return byte == 0; }));
  sent.push_back({queue, std::string(reinterpret_cast<const char*>(frame->mtext), size)});
  return queue == -1 || fails() ? -1 : 0;
}

int __wrap_system(const char* line) {
  REQUIRE(std::strcmp(line, "pkill clocksteward &") == 0 || std::string(line).ends_with(" > /tmp/cmdresp.txt 2>&1"));
  return -1;
}

// What is read comes from memory, what is written goes nowhere. A target that cannot be opened ends the process, which
// is no case for a fuzzer.
std::FILE* __wrap_fopen64(const char* path, const char* mode) {
  if (mode[0] == 'w') return __real_fopen64("/dev/null", mode);
  return path[1] == 'e' && fails() ? nullptr : fmemopen(response, responseSize, mode);
}

unsigned __wrap_sleep(unsigned) { return 0; }

void __wrap_perror(const char*) {}

void __wrap__exit(int) { REQUIRE("the process ended itself" == nullptr); }

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size <= sizeof plan || size > sizeof plan + HUBKEEPER_BUNDLE_MAX) return 0;
  const std::size_t bundleSize = size - sizeof plan;
  plan = 0;
  for (int row = 0; row < HUBKEEPER_QUEUE_COUNT; ++row) openQueue(static_cast<hubkeeper_queue_index>(row));
  std::memcpy(&plan, data + bundleSize, sizeof plan);
  responseSize = plan % sizeof response;
  step = 0;
  sent.clear();
  const std::vector<std::uint8_t> bundle(data, data + bundleSize);

  walkBundle(bundle.data(), static_cast<std::uint16_t>(bundleSize));

  const std::vector<Send> want = expectedSends(data, bundleSize);
  REQUIRE(sent.size() == want.size());
  for (std::size_t i = 0; i < sent.size(); ++i) REQUIRE(agrees(sent[i], want[i]));

  const std::uint8_t end[] = {5, 0, 0, 0, 0x72};  // no transfer reaches into the next input
  walkBundle(end, sizeof end);
  return 0;
}
}
