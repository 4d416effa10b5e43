// How the subcommands declare their arguments to CLI11, so that all of them look alike in the help.
#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>

#include "base/pieces.h"

/// A positional argument.
template <class Value>
CLI::Option* addArgument(CLI::App& app, const std::string& name, Value& value, const std::string& help) {
  return app.add_option(name, value, help)->type_name("");
}

/// An option that takes a number from `least` up to a million.
template <class Number>
CLI::Option* addNumber(CLI::App& app, const std::string& names, Number& number, const std::string& unit, double least,
                       const std::string& help) {
  const auto check = [least](const std::string& text) {
    double given = 0;
    const bool good = CLI::detail::lexical_cast(text, given) && given >= least && given <= 1e6;
    return good ? std::string() : fmt::format("{} is not a number from {:g} to 1000000", text, least);
  };
  return app.add_option(names, number, help)->type_name(unit)->check(CLI::Validator(check, ""));
}

/// Bytes from hexadecimal digits, in pairs, with blanks, colons or commas anywhere between the pairs.
/// Throws a WrongUsage that shows the place.
Bytes parseHex(std::string_view text);
