// Preparing and starting the two service threads. The steps run on the main thread in the order of their declaration. A
// step that fails logs its line, writes to standard error as perror(3) does and ends the process with status 1.
#pragma once

void initThreadAttributes();
void setThreadScheduling();
/// Starts the inbound thread, then the monitor thread, both detached.
void createThreads();
void destroyThreadAttributes();

/// Cancels both threads. Nothing in the system uses it.
void cancelThreads();
