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

/// One character for each byte, a dot for one that is no printable ASCII: for columns.
std::string printable(ByteView bytes);

/// Text from elsewhere made harmless: UTF-8 as it is, but a dot for each control character that is not in `kept`, for each
/// character that would turn the direction of a line, and for each byte that is no UTF-8.
std::string harmless(std::string_view text, std::string_view kept = "");

bool isUtf8(std::string_view text);
std::string base64Of(std::string_view bytes);

/// Two hexadecimal digits a byte.
std::string hexOf(ByteView bytes, std::string_view between = "");
