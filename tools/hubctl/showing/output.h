// All that is written to standard output and standard error goes through here. A write that fails ends the subcommand, or is
// remembered to the end of the program; it never goes unnoticed, and nothing aborts.
#pragma once

#include <fmt/format.h>

#include <string_view>
#include <utility>

/// Opens what is closed of descriptors 0 to 2 in such a way that writing to it fails. Otherwise the next file that is
/// opened would take its place, and get the output.
void holdStandardStreams();

/// Writes to standard output; throws a Failure when that fails.
void write(std::string_view text);
void flushOutput();

template <class... Values>
void print(fmt::format_string<Values...> format, Values&&... values) {
  write(fmt::format(format, std::forward<Values>(values)...));
}

/// Writes to standard error, behind all that was written to standard output before. Throws nothing.
void writeError(std::string_view text);

/// Writes what is still held back, and returns whether all writes to both streams have succeeded.
bool closeOutput();
