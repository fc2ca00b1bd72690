#include "archive.h"

#include <cutils/properties.h>
#include <libgen.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <iostream>
#include <system_error>
#include <vector>

#include <android-base/logging.h>
#include <android-base/strings.h>

#include "log_types.h"
#include "zq_mrdump_collect.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kPanic = 4;
constexpr char kLastDumpProperty[] = "vendor.zq_dump.last_dump";
constexpr char kLastPanicLogProperty[] = "vendor.zq_dump.last_panic_log";
constexpr fs::perms kZqLogMode = fs::perms::owner_all | fs::perms::group_all;  // 0770
constexpr size_t kCommandSize = 512;
constexpr char kRemovedAside[] = ".zq_mrdump_removing";

std::string ErrorText(const std::error_code& ec) {
  return std::string(ec.category().name()) + ":" + std::to_string(ec.value());
}

bool StartsWith(const std::string& name, const std::string& prefix) {
  return name.find(prefix) == 0;
}

// dirname() and basename() may modify their argument, so each works on its own copy.
std::string DirName(const std::string& path) {
  std::vector<char> copy(path.begin(), path.end());
  copy.push_back('\0');
  return dirname(copy.data());
}

std::string BaseName(const std::string& path) {
  std::vector<char> copy(path.begin(), path.end());
  copy.push_back('\0');
  return basename(copy.data());
}

}  // namespace

void copy_to_zq_log() {
  const std::string tag = kLogTags[kPanic];
  const int result = prepare_type_log_and_dir(kPanic);
  if (result != 0) {
    LOG(ERROR) << tag << "copy_to_zq_log: prepare_type_log_dir failed, result: " << result;
    return;
  }
  copy_panic_log(kPanic);
  clean_type_log_and_dir(kPanic);
}

void copy_panic_log(uint32_t type) {
  if (type >= kLogTypeCount) {
    LOG(ERROR) << "copy_panic_log: error core_log_type: " << type;
    return;
  }
  const std::string tag = kLogTags[type];
  const std::string& new_log_path = kLogTypes[type].new_log_path;
  if (new_log_path.empty()) {
    LOG(ERROR) << tag << "copy_panic_log: new_log_path not exist!";
    return;
  }
  char last_dump[PROP_VALUE_MAX] = {};
  property_get(kLastDumpProperty, last_dump, "panic_log");
  const std::string command =
      std::string("cp -r /data/vendor/dump_collect/") + last_dump + "/* " + new_log_path;

  char buffer[kCommandSize] = {};
  // Only the default staging folder has a shorter fallback; any other over-long command is cut.
  if (command.size() >= kCommandSize && std::string(last_dump) == "panic_log") {
    LOG(WARNING) << command << " exceed 512 length, using default path";
    (void)snprintf(buffer, sizeof(buffer), "cp -r /data/vendor/dump_collect/panic_log/* %s",
                   new_log_path.c_str());
  } else {
    (void)snprintf(buffer, sizeof(buffer), "%s", command.c_str());
  }
  LOG(INFO) << tag << "copy_panic_log: " << buffer;
  RunCommand(buffer);  // a failed copy is not reported: whatever arrived is archived
}

int prepare_type_log_and_dir(unsigned int type) {
  if (type >= kLogTypeCount) {
    LOG(ERROR) << "prepare_type_log_and_dir: error core_log_type: " << type;
    return -22;
  }
  const std::string& tag = kLogTags[type];
  LogType& rec = kLogTypes[type];
  if (zq_create_dir_str(rec.log_dir) != 0) {
    LOG(ERROR) << tag << "prepare_type_log_and_dir: zq_create_dir_str fail create: " << rec.log_dir;
    return -1;
  }
  rec.new_log_count = get_new_zq_log_count(rec.log_dir, rec.prefix);
  // Informational, logged at ERROR on purpose.
  LOG(ERROR) << tag << "prepare_type_log_and_dir: new_log_count: " << rec.new_log_count;
  if (remove_old_and_trash_file(rec.new_log_count, rec.log_dir, rec.prefix, rec.max_log_num) != 0) {
    LOG(ERROR) << tag << "prepare_type_log_and_dir: remove_old_and_trash_file failed!, prefix: "
               << rec.prefix << " ,new_log_count: " << rec.new_log_count;
    return -1;
  }
  if (create_type_new_zq_log_dir(type) != 0) {
    LOG(ERROR) << tag << "prepare_type_log_and_dir: create_new_zq_log_dir failed!";
    return -1;
  }
  return 0;
}

int create_type_new_zq_log_dir(unsigned int type) {
  if (type >= kLogTypeCount) {
    LOG(ERROR) << "create_type_new_zq_log_dir: error core_log_type: " << type;
    return -22;
  }
  const std::string& tag = kLogTags[type];
  LogType& rec = kLogTypes[type];
  std::string time_string;
  if (type == kPanic) {
    // A panic archive carries the time of its staging folder; unset, that is "log".
    char last_dump[PROP_VALUE_MAX] = {};
    property_get(kLastDumpProperty, last_dump, "panic_log");
    const std::string value = last_dump;
    const size_t underscore = value.find_last_of('_');
    if (underscore != std::string::npos && underscore + 1 < value.size()) {
      time_string = value.substr(underscore + 1);
      std::cout << "Extracted date and time: " << time_string << std::endl;
    }
  }
  if (time_string.empty()) time_string = getCurrentTimeFormatted();
  rec.new_log_path_no_sign =
      rec.log_dir + kLogPrefixes[type] + std::to_string(rec.new_log_count) + "_" + time_string;
  rec.new_log_path = rec.new_log_path_no_sign + "/";
  LOG(INFO) << tag << "create_type_new_zq_log_dir: new_log_path: " << rec.new_log_path;
  return zq_create_dir_str(rec.new_log_path);
}

void clean_type_log_and_dir(unsigned int type) {
  if (type >= kLogTypeCount) {
    LOG(ERROR) << "clean_type_log_and_dir: error core_log_type: " << type;
    return;
  }
  const LogType& rec = kLogTypes[type];
  if (rec.new_log_path_no_sign.empty()) {
    LOG(ERROR) << kLogTags[type] << "clean_type_log_and_dir: new_log_path_no_sign not exist!";
    return;
  }
  // A panic directory stays beside its archive until the next run's rotation compresses it.
  tar_and_delete_dir(rec.new_log_path_no_sign, type != kPanic);
}

long long get_boot_count_by_file_name(std::string file_name) {
  const std::vector<std::string> fields = android::base::Split(file_name, "_");
  if (fields.size() == 3 && fields[1].find_first_not_of("0123456789") == std::string::npos) {
    // Unguarded on purpose: an empty or out-of-range count throws and ends the run.
    return std::stoll(fields[1]);
  }
  LOG(ERROR) << "error file name " << file_name << " ret.size() " << fields.size();
  return -1;
}

int get_new_zq_log_count(std::string log_dir, std::string prefix) {
  long long max = -1;
  for (const fs::directory_entry& entry : fs::directory_iterator(log_dir)) {
    const std::string name = entry.path().filename();
    if (StartsWith(name, prefix)) {
      const long long count = get_boot_count_by_file_name(name);
      if (count < 0) continue;
      if (count > max) max = count;
    }
    // Informational, logged at ERROR on purpose.
    LOG(ERROR) << "find file :" << name;
  }
  // Computed in 32 bits, as the count field of a name has always been read.
  return static_cast<int32_t>(static_cast<uint32_t>(max) + 1U);
}

int remove_old_and_trash_file(long long new_log_count, std::string log_dir, std::string prefix,
                              int max_log_num) {
  const long long threshold = new_log_count - static_cast<long long>(max_log_num);
  for (const fs::directory_entry& entry : fs::directory_iterator(log_dir)) {
    const std::string name = entry.path().filename();
    const std::string full = log_dir + name;
    if (!StartsWith(name, prefix)) {
      if (name[0] == '.') continue;
      if (ZQRemoveFile(full) != 0) return 1;
      continue;
    }
    const long long count = get_boot_count_by_file_name(name);
    if (count < 0 || count <= threshold) {
      if (ZQRemoveFile(full) != 0) return 1;
    } else if (name.find("tar") == std::string::npos) {
      tar_and_delete_dir(full, true);
    }
  }
  return 0;
}

int tar_and_delete_dir(std::string dir, bool remove_dir) {
  const std::string archive = dir + ".tar.gz";
  const std::string parent = DirName(dir);
  const std::string base = BaseName(dir);
  const std::string command = "tar -zcvf " + archive + " -C " + parent + " " + base;
  // Names the last compression attempted, whatever its category and outcome.
  property_set(kLastPanicLogProperty, base.c_str());
  LOG(INFO) << command << std::endl;
  if (RunCommand(command) != 0) {
    LOG(INFO) << parent << " save failed" << std::endl;
  } else {
    LOG(INFO) << parent << "/" << base << " save as " << archive << std::endl;
  }
  // Removed even when tar failed: the flag alone decides. The directory goes only once its archive,
  // whoever finished writing it, and the archive's name are on disk.
  if (remove_dir) {
    SyncToDisk(archive);
    SyncToDisk(parent);
    ZQRemoveFile(dir);
  }
  chang_to_zq_log_mod(archive);
  return 0;
}

void chang_to_zq_log_mod(std::string path) {
  // Throwing forms on purpose: a status or mode error ends the run.
  const fs::file_status status = fs::status(path);
  if (fs::status_known(status) && status.type() != fs::file_type::not_found) {
    fs::permissions(path, kZqLogMode, fs::perm_options::replace);
  }
}

int zq_create_dir_str(std::string path) {
  std::error_code ec;
  if (!fs::create_directories(path, ec)) {
    if (!fs::exists(fs::status(path))) {
      LOG(INFO) << "Cannot create: " << path << " err" << ErrorText(ec);
      return 1;
    }
  }
  chang_to_zq_log_mod(path);
  LOG(INFO) << "is create: " << path;
  return 0;
}

int ZQRemoveFile(std::string path) {
  if (!fs::exists(fs::status(path))) {
    // All three outcomes are logged at ERROR on purpose.
    LOG(ERROR) << "remove file not exist: " << path;
    return 0;
  }
  // Moved aside in one step before the tree goes entry by entry: a folder cut short halfway would
  // be compressed again by the next rotation, over the whole archive made from it. One such
  // leftover per directory at most; a dot keeps it out of the rotation.
  const fs::path aside = fs::path(path).parent_path() / kRemovedAside;
  std::error_code ignored;
  fs::remove_all(aside, ignored);
  fs::rename(path, aside, ignored);
  const bool moved = !ignored;
  std::error_code ec;
  fs::remove_all(moved ? aside : fs::path(path), ec);
  if (ec.value() == 0) {
    LOG(ERROR) << "remove pass: " << path;
    return 0;
  }
  if (moved) fs::rename(aside, path, ignored);  // what could not go stays where it was
  LOG(ERROR) << "remove failed: " << path << ErrorText(ec);
  return -1;
}
