// Values as people write them, and bytes from elsewhere made harmless: a terminal must not obey what a queue or a file holds.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/pieces.h"

std::string humanSize(std::uint64_t bytes);                      // "512 B", "1.5 KiB"
std::string shortSize(std::uint64_t bytes);                      // "512", "1.5K", as df(1) writes them
std::string humanSpan(double seconds);                           // "3 s", "2:05", "1:02:05", "4 days"
std::string count(std::uint64_t number, std::string_view noun);  // "1 message", "3 messages"
std::string timeOfDay();                                         // "12:03:55.123", local time

/// Text of any bytes, with a dot for each one that cannot be printed.
std::string printable(ByteView bytes);
std::string printable(std::string_view text);

/// Two hexadecimal digits a byte.
std::string hexOf(ByteView bytes, std::string_view between = "");
