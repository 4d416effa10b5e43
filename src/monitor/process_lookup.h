// Finding a process by its command line, through proc(5). Belongs to the monitor thread: it uses strtok(3).
#pragma once

/// The id of the first process in /proc whose first argument, cut at its first blank, equals `name` exactly; -1 when
/// there is none or /proc cannot be opened, which is logged. Kernel threads and zombies have no command line.
long findProcess(const char* name);
