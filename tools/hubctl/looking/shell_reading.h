// What the shell makes of an entry of the service configuration. The service runs the entry with "&" behind it and then
// looks for a process whose first argument is the entry, letter for letter; so the shell must take it for the name of a
// program, and for nothing else. Source: POSIX, Shell Command Language.
#pragma once

#include <string>
#include <string_view>

enum class Waits { no, perhaps, yes };

struct ShellReading {
  std::string other;         // why no process comes of it that shows the entry; empty when one may
  Waits waits = Waits::no;   // whether a command stays in the foreground, and the service waits with the shell
  std::string waitsBecause;  // where it does
  bool pattern = false;      // it stays as it is only where no other file's name fits
};

/// Reads what a C string holds: up to the first NUL byte. What follows one takes the "&" with it.
ShellReading readAsShell(std::string_view entry);
