// One panic as the reader hands it over, the parser completes it and the writers print it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace triage {

struct Panic {
  // Where it was found: the archive or its folder, the name it was filed under, the folder
  // under the given path that it came from.
  std::string path;
  std::string archive;
  std::string phone;
  std::optional<long> number;
  std::string time;  // the archive's, "YYYY-MM-DD HH:MM:SS"; empty when its name has none

  // What the reader took out of it.
  std::string kmsg;         // the last kernel log, as filed
  std::string kmsg_member;  // last_kmsg.txt, or db.NN/SYS_KERNEL_LOG when that is missing
  std::string record;       // ZZ_INTERNAL, empty when the database has none
  uint64_t cut_bytes = 0;   // left unread past the limit on one member
  std::string error;        // why it could not be read; empty when it was

  // What the parser found.
  std::string restart_reason, build, process, logged;
  std::string title, signature, kernel, comm, tainted;
  bool from_record = false;  // no crash report in the log: the title is the record's
  bool corrupted = false;
  std::optional<long> cpu, pid;
  std::vector<std::string> frames, also, excerpt;
};

}  // namespace triage
