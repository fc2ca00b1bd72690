// The run driver's helpers shared with the stages: the clock, the runner of shell commands and
// the sync that makes evidence durable.
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

// Writes what the page cache holds of |path| to disk: the file or directory itself (fsync), or
// with |whole_file_system| everything of the file system that holds it (syncfs). A failure is
// logged at ERROR with |path| and the error, and the run goes on; false then.
bool SyncToDisk(const std::string& path, bool whole_file_system = false);
