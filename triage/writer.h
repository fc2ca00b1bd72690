// Prints the panics; knows nothing of kernel logs.
#pragma once

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "panic.h"

namespace triage {

// The panics read that share a signature, and when, where and on which builds they were seen.
struct Group {
  std::vector<const Panic*> panics;  // in the order given
  std::string first, last;  // the earliest and latest archive times; empty when none has one
  std::set<std::string> phones, builds;
};

// The groups of the panics in |panics| that were read, the most frequent first, ties in signature
// order; they point into |panics|.
std::vector<Group> GroupPanics(const std::vector<Panic>& panics);

// One JSON object per panic, one a line, in the order given.
void WriteJson(const std::vector<Panic>& panics, std::ostream& out);

// One line per group of panics of the same signature, the most frequent first, then the panics
// that could not be read with their reasons.
void WriteTable(const std::vector<Panic>& panics, std::ostream& out);

}  // namespace triage
