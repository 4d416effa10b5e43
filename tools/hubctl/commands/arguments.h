// How the subcommands declare their arguments to CLI11, so that all of them look alike in the help.
#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <type_traits>

#include "base/pieces.h"

/// A positional argument.
template <class Value>
CLI::Option* addArgument(CLI::App& app, const std::string& name, Value& value, const std::string& help) {
  return app.add_option(name, value, help)->type_name("");
}

/// What an argument means as a number, 1e1 for 10 included; throws what CLI11 turns into a sentence when it is none from
/// `least` up to a million, or no whole one where one is wanted.
double parseNumber(const std::string& text, double least, bool whole);

/// An option that takes such a number.
template <class Number>
CLI::Option* addNumber(CLI::App& app, const std::string& names, Number& number, const std::string& unit, double least,
                       const std::string& help) {
  const auto take = [least, &number](const std::string& text) {
    number = static_cast<Number>(parseNumber(text, least, std::is_integral_v<Number>));
  };
  return app.add_option_function<std::string>(names, take, help)->type_name(unit);
}

/// An option that takes the name of a file, which is not empty: the shell makes that of a variable that is not set.
CLI::Option* addFile(CLI::App& app, const std::string& name, std::string& file, const std::string& help);

/// Bytes from hexadecimal digits, in pairs, with blanks, colons or commas anywhere between the pairs.
/// Throws a WrongUsage that shows the place.
Bytes parseHex(std::string_view text);

/// All that a file holds, or standard input where the path is "-"; throws a Failure when it cannot be read, is
/// endless, or at Ctrl-C.
std::string readInput(const std::string& path);
