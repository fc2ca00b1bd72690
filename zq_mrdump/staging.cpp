#include "staging.h"

#include <cutils/properties.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <utility>
#include <vector>

#include <android-base/logging.h>

#include "log_types.h"
#include "zq_mrdump_collect.h"

namespace fs = std::filesystem;

namespace {

constexpr char kDbProperty[] = "vendor.debug.mtk.aeev.db";
constexpr char kRestartReasonProperty[] = "vendor.restart_reason";
constexpr char kDumpExistProperty[] = "vendor.zq_dump.exist";
constexpr char kLastDumpProperty[] = "vendor.zq_dump.last_dump";
constexpr char kLastKmsg[] = "/data/vendor/aee_exp/last_kmsg.txt";

// 0 when the staging folder exists and is empty; 1 when it could not be created.
int create_panic_folder() {
  struct stat st = {};
  if (stat(gPanicLogDir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    // Not recursive: a missing staging root is a failure, and a file in the way stays.
    if (mkdir(gPanicLogDir.c_str(), 0770) == 0) {
      LOG(INFO) << "Created folder: " << gPanicLogDir;
      return 0;
    }
    LOG(INFO) << "Failed to create folder: " << gPanicLogDir;
    return 1;
  }
  LOG(INFO) << "Folder already exists: " << gPanicLogDir;
  // Throwing forms on purpose: a folder that cannot be emptied ends the run.
  for (const fs::directory_entry& entry : fs::directory_iterator(gPanicLogDir)) {
    fs::remove(entry.path());
  }
  return 0;
}

// Copies the kernel log and an archive of the exception database into the staging folder; each
// step runs whatever the one before it did. Always 0.
int copy_aee_files() {
  char db_property[PROP_VALUE_MAX] = {};
  property_get(kDbProperty, db_property, "");
  const std::string value = db_property;
  const std::string ke_folder = extractKEPath(value);
  const size_t last_slash = value.find_last_of('/');
  const std::string db_name = last_slash == std::string::npos ? "" : value.substr(last_slash + 1);
  LOG(INFO) << "last KE folder is " << ke_folder;

  const std::string copy_kmsg =
      std::string("cp ") + kLastKmsg + " " + gPanicLogDir + "/last_kmsg.txt";
  // Logged after it ran, unlike the archive command below.
  if (RunCommand(copy_kmsg) != 0) {
    LOG(INFO) << copy_kmsg << " failed";
  } else {
    LOG(INFO) << copy_kmsg;
  }

  const std::string archive = gPanicLogDir + "/" + db_name + ".tar.gz";
  const std::string tar_db = "tar -zcvf " + archive + " -C " + ke_folder + " " + db_name;
  LOG(INFO) << tar_db;
  if (RunCommand(tar_db) != 0) {
    LOG(INFO) << ke_folder << " save failed";
  } else {
    LOG(INFO) << ke_folder << " save as " << archive;
  }

  // The folder already ends in "/": the doubled slash is how the path has always been formed.
  get_restart_info(ke_folder + "/" + db_name);
  return 0;
}

}  // namespace

void copy_to_dump_collect() {
  if (create_panic_folder() != 0) {
    LOG(INFO) << "Failed create_panic_folder(), stop copy_to_dump_collect()";
    return;
  }
  copy_aee_files();
  property_set(kDumpExistProperty, "1");
  // The archive stage reads the time back from after the last "_" of this value.
  const std::string last_dump = "panic_log_" + gCurrentTimestamp;
  property_set(kLastDumpProperty, last_dump.c_str());

  const std::string chmod_staging = "chmod -R 0770 " + gDumpCollectDir;
  LOG(INFO) << chmod_staging;
  if (RunCommand(chmod_staging) != 0) {
    LOG(INFO) << "Error: " << chmod_staging << " failed";
  }
}

std::string extractKEPath(const std::string& db_property) {
  const size_t colon = db_property.find(':');
  if (colon == std::string::npos || colon + 1 == db_property.size()) return "";
  const std::string path = db_property.substr(colon + 1);
  const size_t last_slash = path.find_last_of('/');
  if (last_slash == std::string::npos) return "";
  return path.substr(0, last_slash + 1);
}

void get_restart_info(std::string db_dir) {
  const std::string path = db_dir + "/ZZ_INTERNAL";
  std::ifstream file(path);
  if (!file.is_open()) {
    LOG(ERROR) << "Unable to open file: " << path;
  }
  std::string line;
  while (std::getline(file, line)) {
    const size_t start = line.find("KE at");
    if (start == std::string::npos) continue;
    const size_t comma = line.find(',', start);
    const std::string reason =
        line.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    LOG(INFO) << "restart_info = " << reason;
    // A reason beyond the property size limit is simply not stored.
    property_set(kRestartReasonProperty, reason.c_str());
    break;
  }
}

void LimitFolderNum(const fs::path& dir, unsigned long keep) {
  if (!fs::exists(dir) || !fs::is_directory(dir)) {
    LOG(ERROR) << "Path is not a directory or does not exist: " << dir;
    return;
  }
  // Throwing forms on purpose: a folder that vanishes or cannot be removed ends the run.
  std::vector<std::pair<fs::path, fs::file_time_type>> folders;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
    if (fs::is_directory(entry.status())) {
      folders.emplace_back(entry.path(), fs::last_write_time(entry.path()));
    }
  }
  if (folders.size() <= keep) return;
  std::sort(folders.begin(), folders.end(),
            [](const auto& a, const auto& b) { return a.second < b.second; });
  const size_t excess = folders.size() - keep;
  for (size_t i = 0; i < excess; ++i) {
    fs::remove_all(folders[i].first);
    std::cout << "Deleted directory: " << folders[i].first << std::endl;
  }
}
