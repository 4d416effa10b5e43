// Whose turn it is to talk to HubKeeper. Two sessions at once would take each other's answers, so they queue up by a lock
// on a file of root's in /run, one for each IPC namespace, or a user who may not open it on the namespace. Source: fcntl(2).
#pragma once

class Turn {
 public:
  /// Waits until no other session has the lock, with a sentence that tells so, and throws a Failure after `patience`
  /// seconds.
  explicit Turn(double patience);
  ~Turn();
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  int descriptor;
};
