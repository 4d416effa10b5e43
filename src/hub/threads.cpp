#include "hub/threads.h"

#include <initializer_list>

#include "hub/end_process.h"
#include "hub/inbound.h"
#include "monitor/monitor.h"

pthread_t inboundThreadId;
pthread_t monitorThreadId;
pthread_attr_t inboundAttr;
pthread_attr_t monitorAttr;
std::int32_t inboundStatus;
std::int32_t monitorStatus;
std::int32_t maxPriority;
sched_param schedParam;

// The pthread functions return their error number and leave errno alone.
static void require(std::int32_t status, const char* line, const char* cause) {
  if (status != 0) endAfterFailure(line, cause, status);
}

void initThreadAttributes() {
  for (pthread_attr_t* attributes : {&inboundAttr, &monitorAttr}) {
    pthread_attr_init(attributes);
    pthread_attr_setschedpolicy(attributes, SCHED_RR);
  }
}

void setThreadScheduling() {
  maxPriority = sched_get_priority_max(SCHED_RR);
  if (maxPriority == -1) {
    endAfterFailure("HubKeeper scheduling thread priority failed", "sched_get_priority_max failed");
  }
  schedParam.sched_priority = maxPriority;

  inboundStatus = pthread_attr_setschedparam(&inboundAttr, &schedParam);
  require(inboundStatus, "HubKeeper scheduling inbound thread param failed",
          "pthread_attr_setschedparam inbound failed");
  inboundStatus = pthread_attr_setdetachstate(&inboundAttr, PTHREAD_CREATE_DETACHED);
  require(inboundStatus, "HubKeeper scheduling inbound thread detach state failed",
          "pthread_attr_setdetachstate inbound failed");
  monitorStatus = pthread_attr_setschedparam(&monitorAttr, &schedParam);
  require(monitorStatus, "HubKeeper scheduling monitor thread param failed",
          "pthread_attr_setschedparam monitor failed");
  monitorStatus = pthread_attr_setdetachstate(&monitorAttr, PTHREAD_CREATE_DETACHED);
  require(monitorStatus, "HubKeeper scheduling monitor detach state failed",
          "pthread_attr_setdetachstate monitor failed");
}

void createThreads() {
  inboundStatus = pthread_create(&inboundThreadId, &inboundAttr, inboundThread, nullptr);
  require(inboundStatus, "HubKeeper failed to create inbound thread", "pthread_create inbound failed");
  monitorStatus = pthread_create(&monitorThreadId, &monitorAttr, monitorThread, nullptr);
  require(monitorStatus, "HubKeeper failed to create monitor thread", "pthread_create monitor failed");
}

void destroyThreadAttributes() {
  inboundStatus = pthread_attr_destroy(&inboundAttr);
  require(inboundStatus, "HubKeeper failed to destroy inbound thread", "pthread_attr_destroy inbound failed");
  monitorStatus = pthread_attr_destroy(&monitorAttr);
  require(monitorStatus, "HubKeeper failed to destroy monitor thread", "pthread_attr_destroy monitor failed");
}

void cancelThreads() {
  inboundStatus = pthread_cancel(inboundThreadId);
  require(inboundStatus, "HubKeeper failed to cancel inbound thread", "pthread_cancel inbound failed");
  monitorStatus = pthread_cancel(monitorThreadId);
  require(monitorStatus, "HubKeeper failed to cancel monitor thread", "pthread_cancel monitor failed");
}
