// What the kernel allows. Source: proc(5).
#pragma once

#include <cstddef>

/// Bytes of the longest message (kernel.msgmax); the usual 8192 where the kernel does not tell.
std::size_t longestMessage();
