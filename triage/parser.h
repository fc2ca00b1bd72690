// Finds the crash report in a panic's kernel log and says what crashed; knows nothing of archives.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "panic.h"

namespace triage {

struct Line {
  std::string text;   // the kernel's message: prefixes stripped, NULs and bad UTF-8 replaced
  std::string clean;  // the same with what varies between phones masked: every rule reads this
  int cpu = -1;       // the CPU its prefix names, if any
  int pid = -1;       // the task its prefix names, if any, and its name
  std::string comm;
};

// The one normalisation of a log's line: without its timestamp, task, CPU and level prefixes,
// with addresses, offsets and sizes masked as X. Decimals stay, for the fields that read them
// (PID, CPU); titles drop them. |is_text| says whether the line is text, not binary.
Line Normalise(std::string_view raw, bool* is_text = nullptr);

// Completes |panic| from its kernel log and exception record: title, frames, signature, fields,
// or its error when the log is empty or binary.
void Parse(Panic& panic);

}  // namespace triage
