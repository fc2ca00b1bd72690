// Prints the panics; knows nothing of kernel logs.
#pragma once

#include <ostream>
#include <vector>

#include "panic.h"

namespace triage {

// One JSON object per panic, one a line, in the order given.
void WriteJson(const std::vector<Panic>& panics, std::ostream& out);

// One line per group of panics of the same signature, the most frequent first, then the panics
// that could not be read with their reasons.
void WriteTable(const std::vector<Panic>& panics, std::ostream& out);

}  // namespace triage
