#include "looking/elf_file.h"

#include <elf.h>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "showing/text.h"

namespace {

// Where a field stands in the file's head or a row of its table, for 32 and 64 bits, and how many bytes it has.
struct Field {
  std::size_t place[2];
  std::size_t size[2];
};
constexpr Field type = {{16, 16}, {2, 2}};
constexpr Field table = {{28, 32}, {4, 8}};
constexpr Field rowSize = {{42, 54}, {2, 2}};
constexpr Field rows = {{44, 56}, {2, 2}};
constexpr Field rowType = {{0, 0}, {4, 4}};
constexpr Field rowOffset = {{4, 8}, {4, 8}};
constexpr Field rowBytes = {{16, 32}, {4, 8}};

constexpr const char* cut = "it has been cut short";
constexpr std::size_t machine = 18;  // where its two bytes stand

// Reads numbers of the file's own width and byte order; what lies outside counts as 0.
class Head {
 public:
  explicit Head(const std::string& itsBytes)
      : bytes(itsBytes), wide(at(EI_CLASS) == ELFCLASS64), turned(at(EI_DATA) == ELFDATA2MSB) {}

  std::uint64_t read(const Field& field, std::uint64_t from = 0) const {
    std::uint64_t number = 0;
    const std::size_t size = field.size[wide];
    for (std::size_t i = 0; i < size; ++i) {
      number = number << 8 | at(from + field.place[wide] + (turned ? i : size - 1 - i));
    }
    return number;
  }
  std::uint64_t row(std::uint64_t number) const { return read(table) + number * read(rowSize); }

 private:
  std::uint64_t at(std::uint64_t place) const {
    return place < bytes.size() ? static_cast<unsigned char>(bytes[place]) : 0;
  }

  const std::string& bytes;
  std::size_t wide;
  bool turned;
};

// Width, byte order and processor, as this very program has them.
bool isForThisProcessor(const std::string& head) {
  std::ifstream self("/proc/self/exe", std::ios::binary);
  std::string own(machine + 2, '\0');
  self.read(own.data(), static_cast<std::streamsize>(own.size()));
  if (!self) return true;  // nothing is known
  return head.compare(EI_CLASS, 2, own, EI_CLASS, 2) == 0 && head.compare(machine, 2, own, machine, 2) == 0;
}

}  // namespace

ElfJudgement judgeElf(const std::string& head, std::uint64_t size) {
  const Head file(head);
  const std::uint64_t kind = file.read(type), count = file.read(rows);
  if (head.size() < machine + 2 || (kind != ET_EXEC && kind != ET_DYN) || count == 0)
    return {"it is no whole program", ""};
  if (file.row(count) > size) return {cut, ""};
  for (std::uint64_t number = 0; number < count; ++number) {
    const std::uint64_t row = file.row(number);
    const std::uint64_t what = file.read(rowType, row), from = file.read(rowOffset, row),
                        length = file.read(rowBytes, row);
    if ((what == PT_LOAD || what == PT_INTERP) && (from > size || length > size - from)) return {cut, ""};
    if (what != PT_INTERP || from + length > head.size() || length == 0) continue;
    const std::string loader = head.substr(from, length - 1);
    std::error_code refused;
    if (!std::filesystem::exists(loader, refused) && !refused) {
      return {fmt::format("its loader, {}, is missing", harmless(loader)), ""};
    }
  }
  return isForThisProcessor(head)
             ? ElfJudgement{}
             : ElfJudgement{"", "it is made for another kind of processor, and may not start here"};
}
