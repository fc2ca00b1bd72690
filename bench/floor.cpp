// The floor of the daemon's cost: runs each line of standard input as the daemon runs each of its
// commands, leftovers waited for, and makes durable what the daemon makes durable: a line
// "fsync PATH" or "syncfs PATH" syncs PATH as the daemon does. It does nothing else.
#include <sys/prctl.h>

#include <iostream>
#include <string>

#include "zq_mrdump_collect.h"

int main() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::string command;
  while (std::getline(std::cin, command)) {
    if (command.rfind("fsync ", 0) == 0) {
      SyncToDisk(command.substr(6));
    } else if (command.rfind("syncfs ", 0) == 0) {
      SyncToDisk(command.substr(7), true);
    } else {
      RunCommand(command);
    }
  }
  return 0;
}
