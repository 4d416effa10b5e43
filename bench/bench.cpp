// Prints what the routing costs, against bare loops (bare.cpp) where that can be told as a ratio. The service is the
// unmodified executable in a process of its own; batches of the two alternate, so that whatever else the machine does
// hits both alike. Times are the inbound thread's CPU time: a batch is queued while the process is stopped and measured
// from its release until the thread waits again.
//
//   scripts/sandbox build/release/bench/bench [ROUNDS [OTHER]]
//
// With another build of the service as OTHER, that one stands beside it in place of the bare loops, in an IPC namespace of
// its own, and there are no goals. That takes root.

#include <sched.h>

#include "common.h"

namespace {

const std::string here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
const std::string hubkeeper = here + "/../src/hubkeeper";
const std::string bare = here + "/bare";
std::size_t rounds = 200;
std::string other;  // the other build, or empty
int spaces[2];      // IPC namespaces: this build's, and where its counterpart runs

using Words = std::vector<std::string>;

std::string times(const std::string& one, std::size_t count) {
  std::string all;
  while (count-- > 0) all += one;
  return all;
}

void runOnCpu(unsigned cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}

void schedule(int policy) {
  const sched_param none{};
  sched_setscheduler(0, policy, &none);
}

Words command(const std::string& program, Words words) {
  words.insert(words.begin(), program);
  return words;
}

double cpuOfBatch(const Subject& subject, const Queues& queues, const std::string& bundle, unsigned bundles) {
  const std::uint64_t before = subject.cpuWhenIdle(queues);
  subject.stop();
  for (unsigned i = 0; i < bundles; ++i) queues.send(bundle);
  subject.resume();
  const std::uint64_t after = subject.cpuWhenIdle(queues);
  queues.drain();
  return static_cast<double>(after - before);
}

// Both answers of a heartbeat, taken as soon as they are there.
double roundTrip(const Queues& queues, const std::string& heartbeat) {
  Message message;
  const double begin = nanoseconds();
  queues.send(heartbeat);
  queues.take(1003, message);
  queues.take(1003, message);
  return nanoseconds() - begin;
}

void enter(int side) {
  if (!other.empty() && setns(spaces[side], CLONE_NEWIPC) == -1) giveUp("setns");
}

int ownSpace() { return open("/proc/self/ns/ipc", O_RDONLY | O_CLOEXEC); }

void makeSpaces() {
  spaces[0] = ownSpace();
  if (unshare(CLONE_NEWIPC) == -1) giveUp("an IPC namespace for the other build, which takes root");
  spaces[1] = ownSpace();
  enter(0);
}

// What stands beside the service: a bare loop under other keys, or the other build.
Words counterpart(const Words& bareWords) { return other.empty() ? command(bare, bareWords) : Words{other}; }

void printRow(const char* label, std::vector<double> hubCosts, std::vector<double> otherCosts,
              std::vector<double> ratios, const char* goal) {
  std::printf("%-44s %8.0f %8.0f %7.3f  %s\n", label, median(hubCosts), median(otherCosts), median(ratios),
              other.empty() ? goal : "");
  std::fflush(stdout);
}

template <typename Measure>
void compare(const char* label, const char* goal, const Words& bareWords, double perUnit, Measure measure) {
  const Queues hubQueues;
  const Subject hub({hubkeeper});
  hub.cpuWhenIdle(hubQueues);
  enter(1);
  const Queues otherQueues(other.empty() ? 5000 : 0);
  const Subject beside(counterpart(bareWords));
  beside.cpuWhenIdle(otherQueues);
  std::vector<double> hubCosts, otherCosts, ratios;
  for (std::size_t round = 0; round < rounds + 5; ++round) {  // the first few warm up
    enter(0);
    const double hubCost = measure(hub, hubQueues) / perUnit;
    enter(1);
    const double otherCost = measure(beside, otherQueues) / perUnit;
    if (round < 5) continue;
    hubCosts.push_back(hubCost), otherCosts.push_back(otherCost), ratios.push_back(hubCost / otherCost);
  }
  enter(0);
  printRow(label, hubCosts, otherCosts, ratios, goal);
}

void compareCpu(const char* label, const char* goal, const Words& bareWords, const std::string& one, unsigned perBundle,
                unsigned bundles) {
  const std::string bundle = times(one, perBundle);
  compare(label, goal, bareWords, perBundle * bundles,
          [&](const Subject& subject, const Queues& queues) { return cpuOfBatch(subject, queues, bundle, bundles); });
}

void compareStart() {
  const Queues queues;
  std::vector<double> costs[2], ratios;
  for (std::size_t round = 0; round < rounds; ++round) {
    double cost[2];
    for (const int side : {0, 1}) {
      Message message;
      queues.send(packet(0x04));
      const double begin = nanoseconds();
      const Subject subject(side == 0 ? Words{hubkeeper} : counterpart({"start"}));
      queues.take(1003, message);
      queues.take(1003, message);
      cost[side] = nanoseconds() - begin;
      costs[side].push_back(cost[side]);
    }
    ratios.push_back(cost[0] / cost[1]);
  }
  for (std::vector<double>& side : costs) {
    for (double& cost : side) cost /= 1000;
  }
  printRow("start to first answer, us", costs[0], costs[1], ratios, "1.05");
}

std::string outputOf(const std::string& line) {
  std::FILE* output = popen(line.c_str(), "r");
  std::string text;
  for (char piece[256]; std::fgets(piece, sizeof piece, output) != nullptr;) text += piece;
  pclose(output);
  return text;
}

void count(const char* label, const std::string& packets) {
  constexpr long walks = 1000;
  const std::string route = here + "/route " + packets + " " + std::to_string(walks);
  const double allocations = std::atof(outputOf(route + " 2>/dev/null").c_str());
  const std::string collected = outputOf(
      "valgrind --tool=callgrind --callgrind-out-file=/dev/null --collect-atstart=no "
      "--toggle-collect='walkBundle*' " +
      route + " 2>&1 >/dev/null | sed -n 's/.*Collected : //p'");
  std::printf("%-44s %8.0f %8.2f\n", label, std::atof(collected.c_str()) / (8 * walks), allocations / (8 * walks));
}

void weigh(const std::string& program) {
  const Queues queues;
  const Subject hub({program});
  hub.cpuWhenIdle(queues);
  for (int i = 0; i < 1000; ++i) queues.send(times(packet(0x04), 8));
  hub.cpuWhenIdle(queues);
  const long resident = hub.memory("Rss");
  const long anonymous = hub.memory("Anonymous");
  std::printf("\n%s\nresident %ld kB, of it private anonymous %ld kB (goal 300)\n", program.c_str(), resident,
              anonymous);
  const std::string stripped = "/tmp/hubkeeper.stripped";
  outputOf("strip -o " + stripped + " " + program);
  std::printf("stripped executable %ju bytes (goal 73728)\n", std::filesystem::file_size(stripped));
}

}  // namespace

int main(int words, char** word) {
  if (words > 1) rounds = std::strtoul(word[1], nullptr, 10);
  if (words > 2) other = std::filesystem::absolute(word[2]), makeSpaces();
  const std::string heartbeat = packet(0x04);

  const char* const beside = other.empty() ? "bare" : "other";
  std::printf("%-44s %8s %8s %7s  %s\n", "CPU nanoseconds", "hub", beside, "ratio", other.empty() ? "goal" : "");
  runOnCpu(1);  // the subjects inherit it: HubKeeper's share is largest where no other CPU has to be woken
  compareCpu("forwarded Packet of 32 bytes, full Bundles", "1.08", {"loop", "32", "1000", "32"},
             packet(0x01, std::string(27, 'x')), 256, 8);
  compareCpu("forwarded Packet of 512 bytes, full Bundles", "1.08", {"loop", "512", "1000", "512"},
             packet(0x01, std::string(507, 'x')), 16, 64);
  compareCpu("heartbeat, 8 in a Bundle", "1.12", {"loop", "5", "1003", "512"}, heartbeat, 8, 128);
  compareCpu("bad opcode, 8 in a Bundle", "1.15", {"log"}, packet(0xFF), 8, 64);
  std::printf("\n%-44s %8s %8s %7s  %s\n", "elapsed", "hub", beside, "ratio", other.empty() ? "goal" : "");
  compare("round trip of a heartbeat, ns", "1.04", {"loop", "5", "1003", "512"}, 1,
          [&](const Subject&, const Queues& queues) {
            schedule(SCHED_BATCH);  // the bounce wakes this process, but the reply is sent before it runs
            std::vector<double> trips;
            for (int i = 0; i < 50; ++i) trips.push_back(roundTrip(queues, heartbeat));
            schedule(SCHED_OTHER);
            return median(trips);
          });
  compareStart();

  std::printf("\n%-44s %8s %8s\n", "a Packet, outside the kernel", "instr.", "allocs");
  count("forward, 32 bytes", "0x01 32");
  count("forward, 512 bytes", "0x01 512");
  count("heartbeat", "0x04 5");
  count("bad opcode", "0xFF 5");

  weigh(hubkeeper);
  if (!other.empty()) weigh(other);
  return 0;
}
