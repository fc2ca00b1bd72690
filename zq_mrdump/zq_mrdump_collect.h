// The run driver's clock helpers, shared with the archive stage.
#pragma once

#include <string>

// The current local time as "%Y-%m-%d-%H-%M-%S", through the system clock and localtime_r; names
// the run's staging folder.
std::string GetCurrentTimestamp();

// The same text through time() and localtime(); names archive directories.
std::string getCurrentTimeFormatted();
