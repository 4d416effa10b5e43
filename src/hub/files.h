// How HubKeeper opens its files.
#pragma once

#include <cstdio>

/// fopen64(3) with the descriptor marked close-on-exec, so that neither a remote command nor a restarted service
/// inherits it. Null on a failure, with errno set.
std::FILE* openFile(const char* path, const char* mode);
