// What the head of a program in the ELF format tells. Source: elf(5).
#pragma once

#include <cstdint>
#include <string>

struct ElfJudgement {
  std::string never;    // why this kernel starts no process of it
  std::string unknown;  // or may not
};

/// `head` is what the file begins with, and `size` its length in bytes.
ElfJudgement judgeElf(const std::string& head, std::uint64_t size);
