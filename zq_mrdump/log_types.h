// The log categories of the persistent log partition and the process-wide paths of a run.
#pragma once

#include <cstdint>
#include <string>

// Number of log categories; a category index must be below it.
constexpr uint32_t kLogTypeCount = 5;

// One log category: where its archives live, how they are named and how many are kept. The
// last three fields describe the archive being made in this run.
struct LogType {
  bool flag;                         // stored only; no operation selects a category by it
  int32_t max_log_num;               // archives kept, the one of this run included
  int64_t new_log_count;             // count of this run's archive
  std::string prefix;                // archive name prefix, e.g. "ZQpanic_"
  std::string log_dir;               // category directory, ends in "/"
  std::string new_log_path;          // this run's archive directory, ends in "/"
  std::string new_log_path_no_sign;  // the same without the trailing "/"
};

// Indexed by category: 0 boot, 1 crash, 2 rescue, 3 ota, 4 panic.
extern const std::string kLogTypeNames[kLogTypeCount];
extern const std::string kLogTags[kLogTypeCount];
extern const std::string kLogPrefixes[kLogTypeCount];
extern LogType kLogTypes[kLogTypeCount];

// The staging root, with its trailing "/".
extern const std::string gDumpCollectDir;
// The staging folder of this run: "panic_log" under the staging root until main appends the
// run timestamp; no trailing "/".
extern std::string gPanicLogDir;
// The run timestamp, "%Y-%m-%d-%H-%M-%S" in local time.
extern std::string gCurrentTimestamp;
// Whether the upload marker could be opened; recorded, read by nobody.
extern bool gCbtFileExists;
