// Ctrl-C and its kin. The handler only leaves a mark, so that a command ends where it can tidy up behind itself.
#pragma once

/// Makes SIGINT, SIGTERM and SIGHUP leave that mark, but for those that were ignored at the start, as nohup(1) has it.
/// A reader of the output that goes away, or a file that may not grow (ulimit -f), ends nothing in the middle either: the
/// write fails.
void catchSignals();

/// Whether such a signal has come. A wait ends soon after.
bool interrupted();

/// What is under way may end now: the mark is there, and nobody is tidying up.
bool stopWanted();

/// While one of these lives, waits go on in spite of the mark: for what must be brought to its end.
class Shield {
 public:
  Shield();
  ~Shield();
  Shield(const Shield&) = delete;
  Shield& operator=(const Shield&) = delete;
};
