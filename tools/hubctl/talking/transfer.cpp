#include "talking/transfer.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <sstream>

#include "base/failure.h"
#include "base/signals.h"
#include "base/sum.h"
#include "showing/progress.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "talking/board.h"
#include "talking/requests.h"

namespace {

constexpr std::size_t smallestQueue = HUBKEEPER_HEADER_SIZE + HUBKEEPER_COMMAND_MAX + 1;
constexpr int unbouncedBundles = 2;  // as many full ones as a queue of the usual size holds
constexpr const char* endHint = "hubctl raw 05 00 00 00 72";

// Leaves in $o the file of the transfer that stands open, as the hub holds it: of all that the hub has opened itself, and so
// marked close-on-exec (02000000), it alone is a regular file open for reading and writing (2) but not for appending (02000).
constexpr const char* findOpen =
    "p=/proc/$PPID o=; for f in $p/fdinfo/*; do [ -r $f ] && while read x v; do "
    "[ $x = flags: ] && [ $((v & 02002003)) = $((02000002)) ] && [ -f $p/fd/${f##*/} ] && o=$p/fd/${f##*/}; "
    "done <$f; done; ";

// The path without links, with all that a name may hold, newlines too; nothing where the links lead nowhere.
constexpr const char* followLinks = "r=$(readlink -f \"$t\" 2>/dev/null && echo .) && printf %s \"${r%??}\"";

// What stands at the target: a verdict in the first line, and in the last one the reason.
constexpr const char* look =
    "a=$r.hubctl-; "
    "if [ ! -r $p/fdinfo/0 ]; then echo blind; "
    "elif [ \"$o\" ]; then echo open; readlink $o; "
    "elif [ -d \"$r\" ]; then echo no; echo it is a directory; "
    "elif [ -L \"$r\" ]; then echo no; echo it is a link that leads nowhere; "
    "elif [ ! -d \"${r%/*}/\" ]; then echo no; echo its directory does not exist; "
    "elif [ -e \"$r\" ] && [ ! -f \"$r\" ]; then echo no; echo it is not a regular file; "
    "elif [ \"$r\" -ef /tmp/cmdresp.txt ] || for f in $p/fd/*; do [ \"$r\" -ef $f ] && break; done; then "
    "echo no; echo it is a file of HubKeeper\\'s own; "
    "elif [ -f \"${a}old\" ] || [ -f \"${a}new\" ]; then echo aside; "
    "elif [ -e \"${a}old\" ] || [ -e \"${a}new\" ]; then echo no; echo \"there is something else at ${a}old or "
    "${a}new\"; "
    "else echo ok; fi";

// Device and inode, then the kilobytes that are free.
constexpr const char* measure =
    "stat -c '%d %i' \"$r\" 2>/dev/null || echo none; df -Pk \"${r%/*}/\" | sed -n '$s/.* \\([0-9][0-9]*\\)  *[0-9]*% "
    ".*/\\1/p'";

// Where another process left things so, $k is set, and what it has written of a new file stays: it may be somebody's by now.
// A transfer that stands open is ours when it is known to have begun, $b, or is that of this target.
constexpr const char* putBack =
    "[ \"$o\" ] && { [ \"$b\" ] || [ \"$o\" -ef \"$r\" ]; } && echo open; a=$r.hubctl-; if [ -f \"${a}old\" ]; then mv "
    "-f \"${a}old\" \"$r\" && echo old; "
    "elif [ -f \"${a}new\" ]; then { [ \"$k\" ] || rm -f \"$r\"; } && rm -f \"${a}new\" && echo new; else echo none; "
    "fi";

// A shell whose HubKeeper has ended meanwhile may be overtaken by the putting back, and by a next transfer: it overwrites nothing,
// and puts back itself what it has put aside.
constexpr const char* putAside =
    "a=$r.hubctl-; if [ -e \"$r\" ]; then mv -n \"$r\" \"${a}old\" && { m=$(stat -c %a \"${a}old\" 2>/dev/null) || :; "
    "}; "
    "else (: >\"${a}new\"); fi && (set -C; : >\"$r\") && { [ -z \"$m\" ] || chmod $m \"$r\"; } && "
    "{ kill -0 $PPID 2>/dev/null || { ";
constexpr const char* putAsideEnd = "; exit; } >/dev/null 2>&1; echo ok; }";

// Size and sum first. Only when they are right the old file goes, behind its owner and mode; then the second line says so.
constexpr const char* compareAndKeep =
    "a=$r.hubctl-; n=$(wc -c <\"$r\"); h=$(sha256sum <\"$r\" 2>/dev/null); h=${h%% *}; "
    "kill -0 $PPID 2>/dev/null || exit; echo $n $h; "
    "if [ $n = $s ] && { [ -z \"$h\" ] || [ -z \"$w\" ] || [ $h = $w ]; }; then "
    "c=$({ if [ ! -f \"${a}old\" ]; then [ -z \"$m\" ] || chmod $m \"$r\"; else chown $(stat -c %u:%g \"${a}old\") "
    "\"$r\" && chmod $(stat -c %a \"${a}old\") "
    "\"$r\"; fi; } "
    "2>&1); rm -f \"${a}old\" \"${a}new\" && echo kept && printf %s \"$c\"; fi";

constexpr const char* sumUp =
    "[ ! -f \"$r\" ] || { s=\"$(wc -c <\"$r\") $(sha256sum <\"$r\" 2>/dev/null)\"; kill -0 $PPID 2>/dev/null && echo "
    "$s; }";

std::string withPath(const std::string& path, const std::string& script) {
  return fmt::format("r={}; {}", shellQuote(path), script);
}

// As the board's shell finds it; a reply that is full may have been cut.
std::string pathOnBoard(Session& session, const std::string& name) {
  const std::string path = runScript(session, fmt::format("t={}; {}", shellQuote(name), followLinks));
  if (path.size() >= roomForOutput) throw Failure(name + ": without links, its path is too long");
  return path.empty() ? name : path;
}

std::string firstLine(std::string& answer) {
  const std::size_t end = answer.find('\n');
  std::string line = answer.substr(0, end);
  answer.erase(0, end == std::string::npos ? end : end + 1);
  return line;
}

std::string lastLine(std::string text) {
  while (text.ends_with('\n')) text.pop_back();
  return text.substr(text.rfind('\n') + 1);
}

// One transfer, from the first look to the last.
class Transfer {
 public:
  Transfer(Session& itsSession, const Order& itsOrder) : session(itsSession), order(itsOrder) {}

  Result run() {
    lookFirst();
    const Clock::time_point start = Clock::now();
    Result result = {};
    try {
      begin();
      result.here = sendChunks();
      sendPacket(session, HUBKEEPER_OPCODE_TRANSFER_END);
      awaitBounce(session, HUBKEEPER_OPCODE_TRANSFER_END);
      result.seconds = secondsSince(start);
      compare(result);
    } catch (const std::exception& trouble) {
      throw Failure(fmt::format("{}\n{}", trouble.what(), undo()));
    }
    return result;
  }

 private:
  [[noreturn]] void refuse(const std::string& why) {
    throw Failure(
        fmt::format("cannot send to {}: {}", order.target, why.empty() ? "the board's shell was ended" : why));
  }

  void lookFirst();
  void prepare();
  void requireOther(const std::string& identity);
  void requireRoom(const std::string& kilobytes);
  void begin();
  Sum sendChunks();
  void compare(Result& result);
  std::string undo();
  std::string putInOrder(const std::string& settings = "");

  Session& session;
  const Order& order;
  std::string path;  // of the target, without links
  bool begun = false;
  bool finishing = false;
};

void Transfer::lookFirst() {
  try {
    prepare();
  } catch (const Failure& trouble) {
    if (!interrupted()) throw;
    throw Failure(fmt::format("{}\nnothing was sent to {}", trouble.what(), order.target));
  }
}

// Touches nothing but what an earlier transfer has left aside.
void Transfer::prepare() {
  if (session.longestBundle() < smallestQueue) {
    refuse(fmt::format("queue 1002, or a message, has room for {} bytes only, and {} are needed",
                       session.longestBundle(), smallestQueue));
  }
  path = pathOnBoard(session, order.target);
  if (path.ends_with(".hubctl-old") || path.ends_with(".hubctl-new")) {
    refuse("names that end so are for what stands aside during a transfer");
  }
  std::string answer = runScript(session, withPath(path, std::string(findOpen) + look));
  const std::string verdict = firstLine(answer);
  if (verdict == "aside") {
    complain("an earlier transfer to this target was killed\n" + putInOrder("k=1; "));
    return prepare();
  }
  if (verdict == "open") {
    refuse(fmt::format("an earlier transfer stands open, that of {}\nif nobody else is sending, end it with: {}",
                       lastLine(answer), endHint));
  }
  if (verdict == "blind") refuse("what HubKeeper has open cannot be seen, a transfer that stands open for one");
  if (verdict != "ok") refuse(lastLine(answer));
  answer = runScript(session, withPath(path, measure));
  requireOther(firstLine(answer));
  requireRoom(firstLine(answer));
}

// Device and inode, which are the same wherever the file is looked at.
void Transfer::requireOther(const std::string& identity) {
  struct stat status = {};
  if (fstat(fileno(order.file), &status) != 0) return;
  if (identity == fmt::format("{} {}", status.st_dev, status.st_ino)) refuse("it is the very file that is to be sent");
}

// The old file stays until the new one is whole.
void Transfer::requireRoom(const std::string& kilobytes) {
  std::uint64_t free = 0;
  if (!(std::istringstream(kilobytes) >> free) || order.size <= free * 1024) return;
  refuse(fmt::format("its disk has {} free, and the file has {}", humanSize(free * 1024), humanSize(order.size)));
}

void Transfer::begin() {
  const std::string script = std::string(putAside) + putBack + putAsideEnd;
  const std::string answer = runScript(session, fmt::format("m={}; ", order.mode) + withPath(path, script));
  if (lastLine(answer) != "ok") refuse(answer.empty() ? "it cannot be opened" : lastLine(answer));
  Bytes name(order.target.begin() + 1, order.target.end());
  name.push_back(0);  // the service drops the last byte
  sendPacket(session, HUBKEEPER_OPCODE_TRANSFER_START, name);
  awaitBounce(session, HUBKEEPER_OPCODE_TRANSFER_START);
  session.bindHub(true);
  begun = runScript(session, withPath(path, findOpen) + "[ \"$o\" -ef \"$r\" ] && echo begun") == "begun\n";
  if (begun) return;
  throw Failure(
      fmt::format("HubKeeper has not begun this transfer: its log tells why\n"
                  "if an earlier one stands open, end it with: {}",
                  endHint));
}

Sum Transfer::sendChunks() {
  Progress progress(order.size);
  Bytes chunk(session.longestBundle() - HUBKEEPER_HEADER_SIZE);
  std::uint64_t sent = 0;
  for (int unbounced = 0;; ++unbounced) {
    if (stopWanted()) throw Failure(fmt::format("interrupted after {} of {}", humanSize(sent), humanSize(order.size)));
    const std::size_t got = std::fread(chunk.data(), 1, chunk.size(), order.file);
    if (std::ferror(order.file) != 0) throw Failure("the file cannot be read on");
    if (got == 0) return {sent, sha256Of(fileno(order.file))};
    for (; unbounced >= unbouncedBundles; --unbounced) awaitBounce(session, HUBKEEPER_OPCODE_TRANSFER_CHUNK);
    sendPacket(session, HUBKEEPER_OPCODE_TRANSFER_CHUNK, {chunk.data(), got});
    progress.show(sent += got);
  }
}

void Transfer::compare(Result& result) {
  finishing = true;
  const std::string script = fmt::format("s={} w={} m={}; ", result.here.bytes, result.here.sha256, order.mode);
  {
    const Passing text("comparing size and SHA-256 on the board ...");
    // The end of a transfer costs HubKeeper a second, before it takes anything else.
    result.complaint = runScript(session, script + withPath(path, compareAndKeep), 1 + order.compareWait);
  }
  std::istringstream sum(firstLine(result.complaint));
  if (!(sum >> result.board.bytes)) throw Failure("the board cannot read what it has written: " + result.complaint);
  sum >> result.board.sha256;
  session.bindHub(false);
  if (result.board.bytes != result.here.bytes) {
    throw Failure(fmt::format("{} has {} bytes on the board instead of {}; is its disk full?", order.target,
                              result.board.bytes, result.here.bytes));
  }
  if (!result.unsummed() && result.board.sha256 != result.here.sha256) {
    throw Failure(
        fmt::format("{} differs on the board: SHA-256 {} instead of {}; the file may have been written to meanwhile",
                    order.target, result.board.sha256, result.here.sha256));
  }
  if (firstLine(result.complaint) != "kept") throw Failure("the board's shell was ended before all was in order");
}

// Ends the transfer if it stands open, and tells the state of the target. What HubKeeper has not read yet it need not read.
std::string Transfer::undo() {
  session.bindHub(false);
  session.takeBack();
  try {
    try {
      return putInOrder();
    } catch (const std::exception&) {
      if (finishing) throw;
      return putInOrder();  // a HubKeeper that is being killed takes a last request with it
    }
  } catch (const std::exception& trouble) {
    if (finishing) {
      return fmt::format(
          "{}\nso the comparison may still go on: if it is good, the new {} stays; otherwise the next "
          "hubctl send to it first puts back what was there",
          trouble.what(), order.target);
    }
    return fmt::format(
        "{}\nso the transfer may stand open ({} ends it), and what was at {} is kept beside it, as "
        "{}.hubctl-old, if there was a file: the next hubctl send to it puts that back",
        trouble.what(), endHint, order.target, path);
  }
}

std::string Transfer::putInOrder(const std::string& settings) {
  const Shield shield;
  const std::string answer =
      runScript(session, settings + (begun ? "b=1; " : "") + withPath(path, std::string(findOpen) + putBack));
  if (answer.find("open\n") != std::string::npos) {
    sendPacket(session, HUBKEEPER_OPCODE_TRANSFER_END);
    awaitBounce(session, HUBKEEPER_OPCODE_TRANSFER_END);
  }
  const std::string state = lastLine(answer);
  if (state == "old") return order.target + " is again what it was before";
  if (state == "new" && !settings.empty()) return order.target + " may be incomplete: it was new, and stays as it is";
  if (state == "new") return order.target + " was removed again: there was no such file before";
  if (state != "none") throw Failure("the board could not put it in order; it said\n" + answer);
  return order.target + (finishing ? " is complete all the same, and has been compared" : " was not touched");
}

}  // namespace

Result transfer(Session& session, const Order& order) { return Transfer(session, order).run(); }

Sum sumOnBoard(Session& session, const std::string& file, double wait, std::string& path) {
  path = pathOnBoard(session, file);
  const std::string answer = runScript(session, withPath(path, sumUp), wait);
  Sum sum;
  std::istringstream figures(answer);
  if (!(figures >> sum.bytes)) throw Failure(fmt::format("{} is not a file on the board that can be read", file));
  figures >> sum.sha256;
  if (sum.sha256.size() != 64) sum.sha256.clear();
  return sum;
}
