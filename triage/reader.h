// Finds the panics under the paths given and reads each as a stream, nothing extracted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "panic.h"

namespace triage {

// A member is read up to this size; the rest is counted as cut.
constexpr uint64_t kMemberLimit = uint64_t{64} << 20;

// The panics under |paths|: archives, archive folders, any folder holding them at any depth.
// An archive folder beside the .tar.gz of the same name is the same panic, read from the .tar.gz.
// Sorted by path; a path that cannot be walked is a panic with its error set.
std::vector<Panic> FindPanics(const std::vector<std::string>& paths);

// Fills in |panic|'s kernel log and exception record from its path, or its error.
void ReadPanic(Panic& panic);

}  // namespace triage
