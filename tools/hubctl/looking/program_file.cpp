#include "looking/program_file.h"

#include <elf.h>
#include <fmt/format.h>
#include <glob.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>

#include "base/failure.h"
#include "looking/elf_file.h"
#include "looking/hub.h"
#include "showing/text.h"

namespace {

constexpr std::size_t partRead = 65536;  // bytes of a program that are looked through

// Where dash(1) looks when its environment has no PATH.
constexpr const char* shellsPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

std::string absolutePath(const std::string& name, const StartPlace& place) {
  if (name.starts_with('/')) return name;
  if (name.find('/') != std::string::npos) return place.directory + "/" + name;
  std::istringstream directories(place.path);
  for (std::string directory; std::getline(directories, directory, ':');) {
    const std::string path = (directory.empty() ? place.directory : directory) + "/" + name;
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 0111) != 0) return path;
  }
  return "";
}

// The text without its comments and continued lines, and without what may stand beside a word.
std::string barely(const std::string& script) {
  std::string text;
  bool comment = false;
  for (std::size_t i = 0; i < script.size(); ++i) {
    const char c = script[i];
    if (c == '#' && (text.empty() || std::isspace(static_cast<unsigned char>(text.back())) != 0)) comment = true;
    if (c == '\n') comment = false;
    if (comment || c == '"' || c == '\'') continue;
    const bool continued = c == '\\' && i + 1 < script.size() && script[i + 1] == '\n';
    i += continued ? 1 : 0;
    text += continued || std::string_view("(){};&|`").find(c) != std::string_view::npos ? ' ' : c;
  }
  return text;
}

// A shell's script that replaces itself by a program under the script's own name, or under one that only its shell can tell.
bool handsItsNameOn(const std::string& text, const std::string& name) {
  std::istringstream words(text);
  bool options = false;
  for (std::string word; words >> word;) {
    const std::size_t letter = options && word[0] == '-' ? word.find('a') : std::string::npos;
    options = word == "exec" || (options && word[0] == '-');
    if (letter == std::string::npos || word.find('l') < letter) continue;  // a login shell's name gets a hyphen
    if (letter + 1 < word.size()) {
      word.erase(0, letter + 1);
    } else if (!(words >> word)) {
      break;
    }
    if (word == name || word.find('$') != std::string::npos) return true;
    options = false;
  }
  return false;
}

// A script of another language that may give its process the name: it knows it.
bool knowsItsName(const std::string& text, const std::string& name) {
  for (const std::string_view word : {std::string_view(name), std::string_view("$0"), std::string_view("argv[0]"),
                                      std::string_view("__file__"), std::string_view("setproctitle")}) {
    if (text.find(word) != std::string::npos) return true;
  }
  return false;
}

// What the first line names; behind env(1) the program that this looks for, which is what the process shows.
std::string interpreterOf(const std::string& script) {
  std::istringstream line(script.substr(2, script.find('\n') - 2));
  std::string first, word;
  line >> first;
  if (std::filesystem::path(first).filename() != "env") return first;
  while (line >> word) {
    if (word[0] != '-' && word.find('=') == std::string::npos) return word;
  }
  return first;
}

ProgramFile judgeScript(const std::string& script, const std::string& name, const StartPlace& place) {
  const std::string interpreter = interpreterOf(script), text = barely(script);
  const bool shell = interpreter.ends_with("sh");
  if (!shell && knowsItsName(text, name)) return {"", "a script, found again only if it gives its process that name"};
  const bool handsOn = shell && handsItsNameOn(text, name);
  std::error_code missing;
  if (handsOn && std::filesystem::canonical(absolutePath(interpreter, place), missing).filename() == "dash") {
    return {fmt::format("its interpreter, {}, knows no \"exec -a\"", harmless(interpreter)), ""};
  }
  if (handsOn) return {"", "a script, found again only if its \"exec -a\" is reached"};
  return {fmt::format("it is a script, so the process shows its interpreter, {}", harmless(interpreter)), ""};
}

ProgramFile judgeContent(const std::string& path, const std::string& name, std::uint64_t size,
                         const StartPlace& place) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return {"", "this user may not read it, so that it is a script cannot be ruled out"};
  std::string content(partRead, '\0');
  file.read(content.data(), partRead);
  content.resize(static_cast<std::size_t>(file.gcount()));
  if (content.starts_with("#!")) return judgeScript(content, name, place);
  if (!content.starts_with(std::string_view(ELFMAG, SELFMAG))) {
    return {"it is no program, so the shell runs it, and the process shows the shell", ""};
  }
  const ElfJudgement elf = judgeElf(content, size);
  return {elf.never, elf.unknown};
}

}  // namespace

StartPlace findStartPlace() {
  const char* path = std::getenv("PATH");
  StartPlace place = {"/", path == nullptr ? "" : path};
  try {
    const auto hub = lookAtHub().process;
    if (!hub) return place;
    struct stat status = {};
    if (stat(fmt::format("/proc/{}", hub->id).c_str(), &status) == 0) place.user = status.st_uid;
    std::error_code refused;
    const auto directory = std::filesystem::read_symlink(fmt::format("/proc/{}/cwd", hub->id), refused);
    if (!refused) place.directory = directory;
    std::ifstream environment(fmt::format("/proc/{}/environ", hub->id), std::ios::binary);
    if (environment.is_open()) place.path = shellsPath;
    for (std::string variable; std::getline(environment, variable, '\0');) {
      if (variable.starts_with("PATH=")) place.path = variable.substr(5);
    }
  } catch (const Failure&) {  // a queue that this user may not look at
  }
  return place;
}

namespace {

// Whether a user may execute the file. Of a group it is not known whether the user is in it.
ProgramFile judgeRight(const struct stat& status, uid_t user) {
  if ((status.st_mode & 0111) == 0) return {"it is not executable", ""};
  const mode_t rights = user == 0 ? 0111 : user == status.st_uid ? 0100 : 0011;
  if ((status.st_mode & rights) == 0) return {"HubKeeper's user may not execute it", ""};
  const bool byGroup = rights == 0011 && (status.st_mode & 0011) != 0011;
  return {"", byGroup ? "whether HubKeeper's user may execute it depends on its groups" : ""};
}

}  // namespace

ProgramFile judgeProgram(const std::string& name, const StartPlace& place) {
  const std::string path = absolutePath(name, place);
  struct stat status = {};
  if (path.empty()) return {"no program of that name in PATH", ""};
  if (stat(path.c_str(), &status) == -1) {
    const std::string seen = path == name ? "" : " from " + harmless(place.directory);
    if (errno == EACCES) return {"", "this user may not see whether there is such a program"};
    return {fmt::format("{}{}", errno == ENOENT ? "there is no such file" : std::strerror(errno), seen), ""};
  }
  struct statvfs disk = {};
  if (S_ISDIR(status.st_mode)) return {"it is a directory", ""};
  if (!S_ISREG(status.st_mode)) return {"it is no regular file", ""};
  const ProgramFile right = judgeRight(status, place.user);
  if (!right.never.empty() || !right.unknown.empty()) return right;
  if (statvfs(path.c_str(), &disk) == 0 && (disk.f_flag & ST_NOEXEC) != 0) return {"its disk is mounted noexec", ""};
  return judgeContent(path, name, static_cast<std::uint64_t>(status.st_size), place);
}

bool fitsItselfFirst(const std::string& name, const StartPlace& place) {
  const bool relative = !name.starts_with('/');
  const std::string base = relative ? place.directory + "/" : "";
  glob_t found = {};
  const int status = glob((base + name).c_str(), 0, nullptr, &found);
  const bool same = status == GLOB_NOMATCH || (status == 0 && base + name == found.gl_pathv[0]);
  globfree(&found);
  return same;
}
