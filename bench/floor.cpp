// The floor of the daemon's cost: runs each line of standard input as the daemon runs each of its
// commands, leftovers waited for, and makes durable what the daemon makes durable: a line
// "fsync PATH" or "syncfs PATH" syncs PATH as the daemon does. As it exits it reports, on standard
// error, the wall time its syncs took: what durability adds to the run.
#include <stdio.h>
#include <sys/prctl.h>

#include <chrono>
#include <iostream>
#include <string>

#include "zq_mrdump_collect.h"

int main() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::chrono::steady_clock::duration syncing{};
  std::string command;
  while (std::getline(std::cin, command)) {
    const bool fsync_line = command.rfind("fsync ", 0) == 0;
    if (fsync_line || command.rfind("syncfs ", 0) == 0) {
      const auto start = std::chrono::steady_clock::now();
      SyncToDisk(command.substr(command.find(' ') + 1), !fsync_line);
      syncing += std::chrono::steady_clock::now() - start;
    } else {
      RunCommand(command);
    }
  }
  const auto sync_ms = std::chrono::duration_cast<std::chrono::milliseconds>(syncing).count();
  (void)fprintf(stderr, "zq-floor: sync_ms=%lld\n", static_cast<long long>(sync_ms));
  return 0;
}
