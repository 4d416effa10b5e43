// All that the desk knows of a board, gathered in one look: the service, its queues, what it watches, its log, and what the
// board gives it. It takes and sends nothing and writes nothing. What this user may not see is missing, and `blind` tells so.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "desk/log_facts.h"
#include "looking/config.h"
#include "looking/hub.h"
#include "looking/queues.h"

struct HubFacts {
  HubState state;
  std::optional<Process> rival;  // who takes requests from the same queue, a second hub or a stranger
  std::string nowhere;           // why neither the hub nor a queue is seen, though there may be a hub elsewhere
  bool seen = false;             // what follows is known
  uid_t user = 0;
  double age = 0;  // seconds since its start
  std::uint64_t memory = 0;
  unsigned threads = 0;
  std::string version;  // the last line of the version file
  std::optional<bool> logOpen;
  double commandAge = 0;
};

struct QueueFacts {
  const Queue* queue = nullptr;
  std::optional<QueueState> state;
  LastUser reader;
  std::optional<Process> waiting;  // who waits for its next message
  bool hidden = false;             // whether anybody does cannot be seen
  std::string trouble;             // why messages pile up
};

struct ServiceFacts {
  std::string name;
  std::vector<pid_t> processes;  // that show its name
  double age = 0;                // of the youngest
  Restarts restarts;
};

struct ConfigFacts {
  std::string unread;  // why it could not be read
  bool missing = false, forbidden = false;
  Verdict verdict;
  double age = 0;  // seconds since it was changed
};

struct Place {
  const char* path = "";
  bool exists = false, readOnly = false;
  bool mount = false, wanted = false;  // it is one; /etc/fstab says that it should be
  unsigned mode = 0;
  std::uint64_t size = 0, room = 0;
};

struct Facts {
  HubFacts hub;
  std::array<QueueFacts, HUBKEEPER_QUEUE_COUNT> queues;
  ConfigFacts config;
  std::vector<ServiceFacts> services;
  LogFacts log;
  bool clockstewardRuns = false;
  Place logDirectory, tmp;
  std::uint64_t logSize = 0;  // both files
  std::size_t longest = 0, queueBytes = 0, queueTable = 0,
              queuesUsed = 0;                // msgmax, msgmnb, msgmni, and how many there are
  bool firmwareTool = false, pkill = false;  // in the service's PATH
  bool blind = false;                        // this user may not see everything
  bool hidden = false;                       // not even which processes there are
};

Facts lookAtBoard();
