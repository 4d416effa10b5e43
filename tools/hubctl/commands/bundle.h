// What raw and packet have in common: a Bundle goes out, and whatever comes back for a while is shown.
#pragma once

#include "base/pieces.h"
#include "commands/session_options.h"

int sendAndShow(const Bytes& bundle, const TalkOptions& options);
