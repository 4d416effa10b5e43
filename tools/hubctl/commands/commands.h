// The subcommands, one function each. It declares the options of its subcommand on `app` and returns what is to be done
// once the command line has been read: a function that returns the exit status, or throws a Failure (status 1) or a
// WrongUsage (status 2). main.cpp holds the table of them.
#pragma once

#include <functional>

namespace CLI {
class App;
}

using Action = std::function<int()>;

/// Stands for the "--" before a COMMAND, which CLI11 would take for itself.
constexpr const char* endOfOptions = "\x01--";

Action addPing(CLI::App& app);
Action addRun(CLI::App& app);
Action addVersion(CLI::App& app);
Action addClocksteward(CLI::App& app);
Action addSend(CLI::App& app);
Action addQueues(CLI::App& app);
Action addPeek(CLI::App& app);
Action addPeers(CLI::App& app);
Action addTrace(CLI::App& app);
Action addRaw(CLI::App& app);
Action addPacket(CLI::App& app);
Action addGet(CLI::App& app);
Action addCheckConfig(CLI::App& app);
Action addLog(CLI::App& app);
Action addExplain(CLI::App& app);
Action addStatus(CLI::App& app);
Action addMetrics(CLI::App& app);
