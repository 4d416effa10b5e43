// How HubKeeper opens its files.
#pragma once

#include <cstdio>

/// Marks the stream's descriptor close-on-exec and returns the stream, which may be null. A shell that another thread
/// starts in the moment between opening and marking still inherits it.
std::FILE* keepFromShells(std::FILE* file);

/// fopen64(3) with the descriptor marked close-on-exec, so that neither a remote command nor a restarted service
/// inherits it. What the monitor opens again and again asks for "e" in its mode and leaves no such moment. Null on a
/// failure, with errno set.
std::FILE* openFile(const char* path, const char* mode);
