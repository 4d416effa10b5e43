// What runs through a live hub, seen from outside, or what ran through one, from a recording.
#include <fmt/format.h>
#include <sys/time.h>

#include <csignal>
#include <deque>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/clock.h"
#include "base/failure.h"
#include "base/signals.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "looking/processes.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "tracing/filter.h"
#include "tracing/lines.h"
#include "tracing/recording.h"
#include "tracing/service.h"
#include "tracing/stats.h"
#include "tracing/tracer.h"
#include "tracing/watcher.h"

namespace {

struct Options {
  std::vector<std::string> queues, opcodes;
  std::string write, read;
  unsigned most = 0;
  int process = 0;
  double period = 0;
  bool lost = false, json = false, follow = false;
};

volatile std::sig_atomic_t ticked = 0;

// A signal ten times a second ends a wait for the hub's next call, so that Ctrl-C never waits for the hub, and what is in
// our buffers is not older than that.
void tick(bool on) {
  struct sigaction action = {};
  action.sa_handler = [](int) { ticked = 1; };
  sigaction(SIGALRM, &action, nullptr);
  const itimerval timer = {{0, on ? 100'000 : 0}, {0, on ? 100'000 : 0}};
  setitimer(ITIMER_REAL, &timer, nullptr);
}

// What becomes of the events: recorded, shown as lines, summed up.
class Output {
 public:
  explicit Output(const Options& itsOptions)
      : options(itsOptions), filter(options.queues, options.opcodes, options.lost) {
    if (!options.write.empty()) recorder.emplace(options.write);
  }

  void take(const Event& event) {
    if (recorder) recorder->write(event);
    recorded += isMessage(event) ? 1 : 0;
    story.take(event);
  }
  bool wantsMore() const { return !interrupted() && !reached(); }

  // Ten times a second, as long as a hub is traced.
  void refresh() {
    if (recorder) recorder->flush();
    flushOutput();
    if (options.period <= 0 || secondsSince(drawn) < options.period) return;
    drawn = Clock::now();
    sumUp(traceTime(), false, true);
  }

  void finish(bool live) {
    story.finish();
    if (options.period > 0) sumUp(live ? traceTime() : stats.end(), true, live);
    if (!recorder) return;
    recorder->flush();
    complain(fmt::format("{} recorded", count(recorded, "message")));
  }

 private:
  bool reached() const { return options.most != 0 && shown >= options.most; }

  void show(const Line& line) {
    if (reached() || !filter.wants(line)) return;
    shown += isMessage(line.event) ? 1 : 0;
    if (options.period > 0) return stats.take(line);
    if (recorder && !options.json) return;
    if (options.json) {
      printJson(lineJson(line));
    } else if (!isInner(line)) {
      printer.print(line);
    }
  }

  void sumUp(std::int64_t now, bool last, bool live) {
    if (options.json) return printJson(stats.json(now, last));
    if (live && terminalWidth() > 0) print("\033[H\033[2J");  // a recording has one table, and erases nothing
    stats.print(now, last);
    if (terminalWidth() == 0 && !last) print("\n");
  }

  const Options& options;
  Filter filter;
  std::optional<Recorder> recorder;
  Story story{[this](const Line& line) { show(line); }};
  LinePrinter printer;
  Stats stats;
  Clock::time_point drawn = Clock::now();
  std::uint64_t recorded = 0;
  unsigned shown = 0;
};

std::optional<Service> awaitService(const Options& options) {
  if (options.process != 0) return namedService(options.process);
  auto service = findService();
  if (!service && someAreHidden()) {
    throw Failure(isProcMounted()
                      ? "whether HubKeeper runs only its own user and root can see: run hubctl trace as root"
                      : "whether HubKeeper runs cannot be seen without /proc");
  }
  if (!service) complain("no hubkeeper runs beside these queues; waiting for one, Ctrl-C ends");
  for (; !service && !interrupted(); service = findService()) nap(0.02);
  return service;
}

// Events that have been seen and not been shown yet: showing one takes longer than the hub needs for a whole Packet, so it
// waits until the hub waits too, or until there are too many of them.
class Backlog {
 public:
  explicit Backlog(Output& itsOutput) : output(itsOutput) {}
  void add(Event event) { events.push_back(std::move(event)); }
  bool empty() const { return events.empty(); }
  bool full() const { return events.size() >= 10000; }
  void showOne() {
    output.take(events.front());
    events.pop_front();
  }
  void showAll() {
    while (!empty()) showOne();
  }

 private:
  Output& output;
  std::deque<Event> events;
};

// Until the service has ended (true), or nothing more is wanted.
bool traceService(const Service& service, Output& output) {
  Backlog backlog(output);
  Watcher watcher([&backlog](Event event) { backlog.add(std::move(event)); });
  Tracer tracer(service.id, [&watcher](const Returned& returned) { watcher.take(returned); });
  output.take({{HUBKEEPER_CAPTURE_ATTACHED, 0, service.id, service.user, 0}, traceTime(), {}});
  output.refresh();
  bool ended = false, quiet = false;
  while (!ended && output.wantsMore()) {
    const bool leisure = !backlog.empty() && tracer.serviceWaits();
    const Tracer::Step step = tracer.step(!leisure);
    ended = step == Tracer::Step::ended;
    quiet = quiet && step == Tracer::Step::nothing;
    if (backlog.full() || (leisure && step == Tracer::Step::nothing)) backlog.showOne();
    if (ticked == 0) continue;
    if (quiet) backlog.showAll();  // it stands still for longer, whatever it waits for: a second, a disk, a terminal
    output.refresh();
    ticked = 0;
    quiet = true;
  }
  tracer.release();
  backlog.showAll();
  if (ended) output.take({{HUBKEEPER_CAPTURE_ENDED, 0, tracer.ending(), 0, 0}, traceTime(), {}});
  return ended;
}

// The same where the service ends while it is being seized.
bool traceLiving(const Service& service, Output& output) {
  try {
    return traceService(service, output);
  } catch (const Failure&) {
    if (lives(service.id)) throw;
    return true;
  }
}

int traceLive(const Options& options) {
  Output output(options);
  bool ended = false;
  do {
    const auto service = awaitService(options);
    if (!service) break;
    tick(true);
    ended = traceLiving(*service, output);
    tick(false);
    while (ended && !interrupted() && lives(service->id)) nap(0.01);
  } while (ended && options.follow && !interrupted());
  output.finish(true);
  if (ended && !options.follow) complain("HubKeeper has ended; --follow waits for it to come back");
  return ended && !options.follow ? 1 : 0;
}

int showRecording(const Options& options) {
  Recording recording(options.read);
  Output output(options);
  while (output.wantsMore()) {
    const auto event = recording.next();
    if (!event) break;
    output.take(*event);
  }
  output.finish(false);
  if (recording.cut()) complain(fmt::format("{} ends in the midst of a message: that one is missing", options.read));
  return 0;
}

}  // namespace

Action addTrace(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.add_option("--queue", options->queues, "Only this queue's messages")->type_name("QUEUE,...")->delimiter(',');
  app.add_option("--opcode", options->opcodes, "Only these Packets, as 04, 20-28 or heartbeat, and what they caused")
      ->type_name("OPCODE,...")
      ->delimiter(',');
  app.add_flag("--lost", options->lost, "Only what was lost");
  addNumber(app, "-c,--count", options->most, "N", 1, "Stop after N Packets, bounces, replies, forwards");
  auto* write = addFile(app, "--write", options->write, "Record all of it (- is standard output)");
  auto* read = addFile(app, "--read", options->read, "Show a recording instead (- is standard input)");
  addNumber(app, "--stats", options->period, "[SECONDS]", 0.1, "Sums instead of lines, anew every SECONDS (default 1)")
      ->expected(0, 1)
      ->default_str("1");
  auto* process = addNumber(app, "--pid", options->process, "PID", 1, "The service's process, where there are several");
  auto* follow = app.add_flag("--follow", options->follow, "Stay when the service ends, and trace the next one");
  app.add_flag("--json", options->json, "Print each line as one JSON object");
  read->excludes(write)->excludes(process)->excludes(follow);
  process->excludes(follow);
  app.footer("Takes, sends and changes nothing. Slows the hub down while it is attached: see hubctl(1).");
  return [options] {
    if (options->write == "-" && (options->json || options->period > 0)) {
      throw WrongUsage("--write - takes standard output, so --json and --stats cannot go with it");
    }
    return options->read.empty() ? traceLive(*options) : showRecording(*options);
  };
}
