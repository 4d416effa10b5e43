#include "hub/queues.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "hub/end_process.h"
#include "logging/log_channel.h"

int inboundQueue;
int netstewardQueue;
int clockstewardQueue;
int chroniclerQueue;
int stagehandQueue;
int ridgelinkQueue;

namespace {

constexpr int openFlags = IPC_CREAT | HUBKEEPER_QUEUE_MODE;
constexpr msglen_t netstewardQueueSize = 10485760;  // 10 MiB

struct QueueRow {
  hubkeeper_queue_index name;
  key_t key;
  int* handle;
  const char* openFailed;  // at ERROR when the first opening fails, which ends the process
  const char* openPerror;  // what perror(3) is given then
  const char* idLabel;     // in front of the id at start; null for none
};

constexpr QueueRow queues[] = {
    {HUBKEEPER_QUEUE_INBOUND, HUBKEEPER_KEY_INBOUND, &inboundQueue, "HubKeeper failed to open inbound message queue",
     "msgget", "Ridgelink --> HubKeeper       Queue ID: "},
    {HUBKEEPER_QUEUE_NETSTEWARD, HUBKEEPER_KEY_NETSTEWARD, &netstewardQueue,
     "HubKeeper failed to open Netsteward inbound queue", "msgget", "HubKeeper --> Netsteward Queue ID: "},
    {HUBKEEPER_QUEUE_CLOCKSTEWARD, HUBKEEPER_KEY_CLOCKSTEWARD, &clockstewardQueue,
     "HubKeeper failed to open Clocksteward inbound queue", "msgget", nullptr},
    {HUBKEEPER_QUEUE_CHRONICLER, HUBKEEPER_KEY_CHRONICLER, &chroniclerQueue,
     "HubKeeper failed to open Chronicler inbound queue", "msgget", "HubKeeper --> Chronicler       Queue ID: "},
    {HUBKEEPER_QUEUE_STAGEHAND, HUBKEEPER_KEY_STAGEHAND, &stagehandQueue,
     "HubKeeper failed to open Stagehand inbound queue", "Out to stagehand queue setup failed",
     "HubKeeper --> Stagehand       Queue ID: "},
    {HUBKEEPER_QUEUE_RIDGELINK, HUBKEEPER_KEY_RIDGELINK, &ridgelinkQueue, "HubKeeper failed to open outbound queue",
     "In From Ridgelink queue setup failed", "HubKeeper --> Ridgelink       Queue ID: "},
};

constexpr bool standInOrder() {
  for (std::size_t place = 0; place < std::size(queues); ++place) {
    if (queues[place].name != place) return false;
  }
  return std::size(queues) == HUBKEEPER_QUEUE_COUNT;
}
static_assert(standInOrder(), "a row is found by its name, so rows and names stand in the same order");

// Reads the queue's state into `stats` and logs its size; after a failure the size is 0.
void logNetstewardSize(msqid_ds& stats) {
  std::memset(&stats, 0, sizeof stats);
  if (msgctl(netstewardQueue, IPC_STAT, &stats) == -1) {
    messagesChannel.error() << "HubKeeper failed to get Netsteward msg queue stats";
  }
  // A size is no error, but operators look for it at this priority.
  messagesChannel.error() << "HubKeeper Netsteward msg queue size is :" << static_cast<unsigned long>(stats.msg_qbytes);
}

void enlargeNetstewardQueue() {
  msqid_ds before;
  logNetstewardSize(before);
  before.msg_qbytes = netstewardQueueSize;
  if (msgctl(netstewardQueue, IPC_SET, &before) == -1) {
    const int reason = errno;
    messagesChannel.error() << "HubKeeper Netsteward msg queue size failed to be adjusted: " << std::strerror(reason);
  }
  msqid_ds after;
  logNetstewardSize(after);
}

}  // namespace

int handleOf(hubkeeper_queue_index queue) { return *queues[queue].handle; }

int openQueue(hubkeeper_queue_index queue) { return *queues[queue].handle = msgget(queues[queue].key, openFlags); }

void createQues() {
  messagesChannel.info() << "HubKeeper Attempting to createQues";
  for (const QueueRow& row : queues) {
    if (openQueue(row.name) == -1) endAfterFailure(row.openFailed, row.openPerror);
    if (row.name == HUBKEEPER_QUEUE_NETSTEWARD) enlargeNetstewardQueue();
  }
}

void logQueueIds() {
  for (const QueueRow& row : queues) {
    if (row.idLabel != nullptr) messagesChannel.info() << row.idLabel << *row.handle;
  }
}
