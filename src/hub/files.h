// How HubKeeper opens its files.
#pragma once

#include <cstdio>

/// Marks the stream's descriptor close-on-exec and returns the stream, which may be null.
std::FILE* keepFromShells(std::FILE* file);

/// fopen64(3) with the descriptor marked close-on-exec, so that neither a remote command nor a restarted service
/// inherits it. Null on a failure, with errno set.
std::FILE* openFile(const char* path, const char* mode);
