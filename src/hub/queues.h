// The message queues: which there are, how they are opened, and their handles. All of this belongs to the inbound
// thread; that is why nothing is locked. Queues are created where they are missing, and never closed or removed.
#pragma once

#include <hubkeeper/protocol.h>

// Handles: what the latest msgget(2) returned, -1 included. Written by createQues and openQueue.
extern int inboundQueue;     // from Ridgelink: read by the receive loop
extern int netstewardQueue;  // the only enlarged queue
extern int clockstewardQueue;
extern int chroniclerQueue;
extern int stagehandQueue;
extern int ridgelinkQueue;

/// The handle of a queue, as it stands at the moment.
int handleOf(hubkeeper_queue_index queue);

/// Opens a queue, or creates it, and returns the new handle, -1 on a failure with errno set by msgget(2).
int openQueue(hubkeeper_queue_index queue);

/// Opens all queues and enlarges Netsteward's to 10 MiB. A queue that cannot be opened ends the process; an
/// enlargement that is refused is logged.
void createQues();

/// Logs the ids of the queues, Clocksteward's excepted.
void logQueueIds();
