// The floor of the daemon's cost: runs each line of standard input as the daemon runs each of its
// commands, leftovers waited for, and does nothing else.
#include <sys/prctl.h>

#include <iostream>
#include <string>

#include "zq_mrdump_collect.h"

int main() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::string command;
  while (std::getline(std::cin, command)) RunCommand(command);
  return 0;
}
