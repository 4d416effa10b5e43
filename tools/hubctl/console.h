// What the tool and its user have in common: complaints, colours, sizes and times as people write them, the progress
// bar, and Ctrl-C. Results go to stdout, everything else to stderr. Colours appear on a terminal only, and never where
// NO_COLOR is set.
#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

using Clock = std::chrono::steady_clock;

/// Ends the tool with status 1; the text is a sentence for the user, and may run over several lines.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Ends the tool with status 2.
struct WrongUsage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Set by SIGINT, SIGTERM and SIGHUP. A blocking queue call returns soon after; a command that must tidy up clears it first.
extern volatile std::sig_atomic_t interrupted;

/// Makes those signals set `interrupted`, and a SIGALRM do nothing but end a blocking queue call.
void catchSignals();

/// "hubctl: " and the text on stderr, wrapped at the terminal's width and indented.
void complain(std::string_view text);

enum class Ink { bold = 1, dim = 2, red = 31, green = 32, yellow = 33, cyan = 36 };

/// The text in a colour, or as it is where `stream` (STDOUT_FILENO or STDERR_FILENO) wants none.
std::string inked(Ink ink, std::string_view text, int stream = STDOUT_FILENO);

/// The columns of the terminal behind `stream`, 0 where it is no terminal.
int terminalWidth(int stream = STDOUT_FILENO);

std::string humanSize(std::uint64_t bytes);                      // "512 B", "1.5 KiB"
std::string humanSpan(double seconds);                           // "3 s", "2:05", "1:02:05", "4 days"
std::string count(std::uint64_t number, std::string_view noun);  // "1 message", "3 messages"

double secondsSince(Clock::time_point start);
Clock::time_point after(double seconds);

/// Sleeps, but not beyond a SIGINT.
void nap(double seconds);

/// Shows a text on stderr, where that is a terminal, until the next line takes its place.
void showPassing(std::string_view text);

/// A bar with rate and time left on stderr, where that is a terminal.
class Progress {
 public:
  explicit Progress(std::uint64_t totalBytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  void show(std::uint64_t doneBytes);

 private:
  void draw();

  std::uint64_t total;
  Clock::time_point start = Clock::now();
  Clock::time_point drawn{};
  std::uint64_t done = 0;
  bool visible;
};
