// What the file system tells of a program that the service would start: whether a process comes of it, and whether that
// shows the program's own name.
#pragma once

#include <sys/types.h>

#include <string>

/// Where names and paths begin, for a service that runs or would run.
struct StartPlace {
  std::string directory = "/";  // where a relative path begins
  std::string path;             // PATH, by which a name without "/" is found
  uid_t user = 0;               // who starts it
};

/// HubKeeper's own where it runs and this user may see them; else the root directory and this process's PATH.
StartPlace findStartPlace();

struct ProgramFile {
  std::string never;    // why no process shows the name; empty when one may
  std::string unknown;  // what cannot be told from here
};

ProgramFile judgeProgram(const std::string& name, const StartPlace& place);

/// Whether the shell, which puts the names that fit in a pattern's place, leaves the name in front, as it is.
bool fitsItselfFirst(const std::string& name, const StartPlace& place);
