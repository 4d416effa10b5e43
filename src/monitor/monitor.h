// The monitor thread, which keeps the configured services alive. It ends by itself, 40 seconds after its start, when the
// configuration cannot be opened, has the debug switch on or names no service.
#pragma once

/// Thread entry for pthread_create(3); the argument is not used, and the result is null.
void* monitorThread(void* unused);
