// The run driver's helpers shared with the stages: the clock, and the runner of shell commands.
#pragma once

#include <chrono>
#include <string>

// How long a command's leftover processes are waited for before the run goes on without them.
constexpr std::chrono::seconds kLeftoverWait{60};

// The current local time as "%Y-%m-%d-%H-%M-%S", through the system clock and localtime_r; names
// the run's staging folder.
std::string GetCurrentTimestamp();

// The same text through time() and localtime(); names archive directories.
std::string getCurrentTimeFormatted();

// Runs |command| with system(), then waits up to |bound| for every process it left running (the
// daemon is their reaper); past |bound|, one WARNING naming |command|. system()'s result.
int RunCommand(const std::string& command, std::chrono::milliseconds bound = kLeftoverWait);
