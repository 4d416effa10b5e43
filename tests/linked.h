// What only a linked test reaches: the core of the service within the test's own process, and calls that fail on demand.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

/// From now on `call`, one of those that are wrapped, succeeds `skip` times and then fails with `error`.
void planFailure(const std::string& call, int skip, int error);
