// Preparing and starting the two service threads. The first four steps run on the main thread in the order of their
// declaration; nothing calls cancelThreads. A step that fails logs its line, writes to standard error as perror(3) does
// and ends the process with status 1.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <cstdint>

// All of this is written on the main thread, by the steps below; the ids are read by cancelThreads alone.
extern pthread_t inboundThreadId;
extern pthread_t monitorThreadId;
extern pthread_attr_t inboundAttr;  // live from initThreadAttributes to destroyThreadAttributes
extern pthread_attr_t monitorAttr;
extern std::int32_t inboundStatus;  // what the latest operation on that thread returned
extern std::int32_t monitorStatus;
extern std::int32_t maxPriority;  // of SCHED_RR
extern sched_param schedParam;    // holds maxPriority

void initThreadAttributes();
void setThreadScheduling();
/// Starts the inbound thread, then the monitor thread, both detached.
void createThreads();
void destroyThreadAttributes();

/// Cancels both threads. A thread that is logging at that moment takes the whole process down: cancellation unwinds its
/// stack like an exception, and a destructor of the C++ library does not let it pass.
void cancelThreads();
