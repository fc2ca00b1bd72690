// Panic evidence staging: the run's staging folder under the staging root, the exception files
// collected into it, the restart reason, and the retention of staging folders.
#pragma once

#include <filesystem>
#include <string>

// Creates or empties the staging folder, collects the kernel log and an archive of the
// exception database into it, publishes the staging properties and opens the staging tree to
// its group. Emptying a folder that holds a non-empty subfolder ends the process.
void copy_to_dump_collect();

// The folder holding the exception database named by |db_property| ("1:/path/db.NN"), with its
// trailing "/"; empty when the value has no ":" followed by a "/".
std::string extractKEPath(const std::string& db_property);

// Publishes as "vendor.restart_reason" the first "KE at" line of |db_dir|/ZZ_INTERNAL, from "KE at"
// up to the first "," after it.
void get_restart_info(std::string db_dir);

// Keeps the |keep| subdirectories of |dir| with the latest modification times and removes the
// others recursively, printing each removed path on standard output. Listing, timing or removal
// errors end the process.
void LimitFolderNum(const std::filesystem::path& dir, unsigned long keep);
