// Writes the panics as one page that opens from disk; knows nothing of kernel logs.
#pragma once

#include <ostream>
#include <vector>

#include "panic.h"

namespace triage {

// One self-contained HTML page of |panics| to |out|, nothing fetched when it opens: the groups,
// the most frequent first; panics per day stacked by group; each group's panics and an excerpt of
// its report; the panics that could not be read. Every text taken from an archive is escaped.
void WriteHtml(const std::vector<Panic>& panics, std::ostream& out);

}  // namespace triage
