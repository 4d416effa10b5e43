// Walks one Bundle over and over with the service's own objects, all queues drained between, for what is counted and
// not timed: heap allocations here, instructions under callgrind (--toggle-collect).
//
//   route OPCODE SIZE COUNT   a Bundle of 8 Packets of SIZE bytes; prints the allocations made during COUNT walks

#include <cstdio>
#include <cstdlib>

#include "common.h"
#include "hub/inbound.h"
#include "hub/queues.h"
#include "hub/sends.h"
#include "logging/log_channel.h"
#include "logging/log_manager.h"

static unsigned long allocations;

// The C library's own allocator stands behind these; operator new and every shared library come through here too.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* malloc(std::size_t size) noexcept { return ++allocations, __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) noexcept { return ++allocations, __libc_calloc(count, size); }
void* realloc(void* block, std::size_t size) noexcept { return ++allocations, __libc_realloc(block, size); }
}

int main(int count, char** words) {
  if (count != 4) return 2;
  const auto opcode = static_cast<std::uint8_t>(std::strtol(words[1], nullptr, 0));
  const std::string one = packet(opcode, std::string(std::strtoul(words[2], nullptr, 10) - 5, 'x'));
  std::string bundle;
  for (int i = 0; i < 8; ++i) bundle += one;

  const Queues queues;
  LogManager::getInstance()->setPattern("%p %d{%d %b %Y %X} %m %n");
  LogManager::getInstance()->setPath("/media/data");
  LogManager::getInstance()->setFile(true);
  messagesChannel = LogManager::getInstance()->getChannel("messages");
  createQues();
  unsigned long made = 0;
  for (long left = std::atol(words[3]); left > 0; --left) {
    const unsigned long before = allocations;
    walkBundle(reinterpret_cast<const std::uint8_t*>(bundle.data()), static_cast<std::uint16_t>(bundle.size()));
    made += allocations - before;
    queues.drain();
  }
  std::printf("%lu\n", made);
  return 0;
}
