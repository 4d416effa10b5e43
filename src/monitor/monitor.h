// The monitor thread, which keeps the configured services alive. It ends by itself when there is nothing to watch.
#pragma once

/// Thread entry for pthread_create(3); the argument is not used, and the result is null.
void* monitorThread(void* unused);
