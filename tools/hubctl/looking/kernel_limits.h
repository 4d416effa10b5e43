// What the kernel allows. Source: proc(5).
#pragma once

#include <cstddef>
#include <string>

/// Bytes of the longest message (kernel.msgmax); the usual 8192 where the kernel does not tell.
std::size_t longestMessage();

/// A limit of queues, such as msgmnb; 0 where the kernel does not tell.
std::size_t queueLimit(const std::string& name);

/// How many queues there are in this IPC namespace.
std::size_t queuesInUse();
