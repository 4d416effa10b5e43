// What HubKeeper's messages mean: the rows of docs/messages.md, which is built in as it stands.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/queues.h"

/// The most urgent comes first. A text for perror(3) is of standard error, not of the log, and goes with an error.
enum class Priority { fatal, alert, crit, perror, error, warn, notice, info, debug, none };

std::string_view nameOf(Priority priority);
std::optional<Priority> findPriority(std::string_view name);  // as the log writes it

/// A kind of message.
struct LogKind {
  std::string text;  // with each value as <name>
  Priority priority;
  std::string meaning, remedy;  // whole sentences without marks of Markdown
  const Queue* queue;           // that the message is about, or nullptr
  bool noError;                 // in spite of its priority

  // The text between its values, of which there is one fewer; a blank stands for any number of them.
  std::vector<std::string> literals;
  std::vector<std::string> names;
};

/// All kinds, in the order of the page.
const std::vector<LogKind>& catalogue();

/// Whether a value of that name is a whole number, the opcode in hexadecimal.
bool isNumber(std::string_view name);

/// A name and what stands in its place; views into the message.
using Values = std::vector<std::pair<std::string_view, std::string_view>>;

/// The values of a message of this kind; nothing when it is of another. Blanks at its ends play no part. Behind a text for
/// perror(3) comes the reason.
std::optional<Values> match(const LogKind& kind, std::string_view message);

/// The kind that says most about the message, or of which it is the beginning, or nullptr. The priority none stands for any.
const LogKind* findKind(Priority priority, std::string_view message);

/// Whether the message is the beginning of a longer one.
bool mayGoOn(Priority priority, std::string_view message);
