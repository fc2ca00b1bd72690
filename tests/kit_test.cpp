// The kit against what a boot really uses, by the platform's own tools: a renamed path or
// property, a missing grant or a forbidden rule fails here, not on a phone.
#include <filesystem>

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "device.h"

namespace {

using android::base::Split;

const std::string kKit = std::string(ZQ_SOURCE_DIR) + "/zq_mrdump/";
const std::string kStandIn = kKit + "sepolicy/workstation/";

// checkpolicy on the kit's .te amid the platform's stand-in, whose neverallows refuse what the
// phone's build refuses; the policy to |out|.
Result CompilePolicy(const std::string& out) {
  return Run({"sh", "-c",
              R"(m4 -E "$1" "$2" "$3" >"$4.conf" && checkpolicy -M -c 30 -o "$4" "$4.conf")", "sh",
              kStandIn + "platform.te", kKit + "sepolicy/zq_mrdump_collect.te", kStandIn + "users",
              out});
}

// What a boot does with each tree it uses: the permissions on its folders and on its files. The
// shells and tools of system() are the system's from Android 14 QPR3, the vendor's before.
constexpr const char* kUses[][3] = {
    {"data/vendor/aee_exp", "search read open getattr", "read open getattr"},
    {"data/vendor/dump_collect", "search read open getattr write add_name remove_name create rmdir",
     "create read write open getattr setattr unlink"},
    {"mnt/vendor/zq_log",
     "search read open getattr write add_name remove_name create rmdir setattr",
     "create read write open getattr setattr unlink"},
    {"mnt/vendor/persist/CBT.txt", "", "read open getattr"},
    {"system/bin/sh system/bin/toybox vendor/bin/sh vendor/bin/toybox_vendor", "",
     "read open execute execute_no_trans map"},
};

// Every file and folder a boot uses, every folder on the way to them and every property it reads
// or sets has a label the policy knows and lets the daemon use as the boot did; and init, fsck and
// e2fs may mount, check and format the log partition of the fstab line.
TEST(KitTest, GrantsWhatABootUses) {
  Device device;
  device.Panic({"--cbt"});
  ASSERT_EQ(device.Boot({"--faketime", "@2024-05-01 03:04:05"}).status, 0);
  const TemporaryDir tmp;
  const std::string policy = std::string(tmp.path) + "/policy";
  const Result compiled = CompilePolicy(policy);
  ASSERT_EQ(compiled.status, 0) << compiled.out << compiled.err;
  std::string rows;  // "domain path class permission...", for kit_check.py
  for (const auto& [trees, dir_perms, file_perms] : kUses) {
    std::vector<std::string> paths;
    for (const std::string& tree : Split(trees, " ")) {
      paths.push_back(device.Path(tree));
      if (!std::filesystem::is_directory(paths.back())) continue;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(device.Path(tree))) {
        paths.push_back(entry.path());
      }
    }
    for (const std::string& path : paths) {
      const bool dir = std::filesystem::is_directory(path);
      rows += "zq_mrdump_collect " + path.substr(device.Path("").size() - 1) +
              (dir ? " dir " : " file ") + (dir ? dir_perms : file_perms) + "\n";
    }
  }
  std::vector<std::string> fstab;  // fs_mgr's fields: device, mount point, type, options, flags
  for (const std::string& line : Split(Slurp(kKit + "fstab.zq_log"), "\n")) {
    if (fstab.empty() && !line.empty() && line[0] != '#') fstab = Split(line, " ");
  }
  fstab.erase(std::remove(fstab.begin(), fstab.end(), ""), fstab.end());
  ASSERT_EQ(fstab.size(), 5U);
  EXPECT_EQ(fstab[1], "/mnt/vendor/zq_log");
  rows += "init " + fstab[1] + " dir mounton\ninit /vendor/bin/zq_mrdump_collect file execute\n";
  for (const char* domain : {"fsck", "e2fs"})
    rows += domain + (" " + fstab[0]) + " blk_file open read write\n";
  // What the init script asks of vendor_init: its setprops, its writes, and a read of each property
  // it triggers on outside the vendor's names, without which init drops the action.
  for (std::string line : Split(Slurp(kKit + "zq_mrdump_collect.rc"), "\n")) {
    line = android::base::Trim(line);
    const std::vector<std::string> words = Split(line, " ");
    if (words[0] == "setprop")
      rows += "vendor_init property:" + words[1] + " property_service set\n";
    if (words[0] == "write") rows += "vendor_init " + words[1] + " chr_file open write\n";
    for (size_t i = 1; words[0] == "on" && i < words.size(); ++i) {
      std::string_view name = words[i];
      name = name.substr(0, name.find('='));
      if (android::base::ConsumePrefix(&name, "property:") &&
          !android::base::StartsWith(name, "vendor.") &&
          !android::base::StartsWith(name, "ro.vendor.")) {
        rows += "vendor_init property:" + std::string(name) + " file read\n";
      }
    }
  }
  for (const Record& r : device.Journal()) {
    if (r.pid == 1) continue;  // init's
    if (r.ev == "get") rows += "zq_mrdump_collect property:" + r.name + " file read\n";
    if (r.ev == "set") rows += "zq_mrdump_collect property:" + r.name + " property_service set\n";
    // What it publishes, the system-side app that uploads the panic reads; its hand-over, nobody.
    if (r.ev == "set" && r.name != "vendor.zq_dump.last_dump") {
      rows += "platform_app property:" + r.name + " file read\n";
    }
  }
  const std::string rows_file = std::string(tmp.path) + "/rows";
  ASSERT_TRUE(android::base::WriteStringToFile(rows, rows_file));
  const Result check = ::Run({"sh", "-c", R"(/usr/bin/python3 -I "$1" "$2" "$3" "$4" <"$5")", "sh",
                              std::string(ZQ_SOURCE_DIR) + "/tests/kit_check.py", policy, kStandIn,
                              kKit + "sepolicy", rows_file});
  EXPECT_EQ(check.status, 0) << check.err;
  EXPECT_EQ(check.out, "");
}

}  // namespace
