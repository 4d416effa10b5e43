// Whose turn it is to talk to HubKeeper. Two sessions at once would take each other's answers, so they queue up by a lock
// on a file of root's in /run, one for each IPC namespace, or a user who may not open it on the namespace. Source: fcntl(2).
#pragma once

/// Waits until no other process has the turn, with a sentence that tells so, and throws a Failure after `patience` seconds. The
/// turn is this process's until its end: as long as it lives, the next one would take it for a reader of its own kind.
void takeTurn(double patience);
