// The integration kit against what the daemon really uses, checked by the platform's own tools: a
// renamed path or property, a missing grant, or a rule the platform forbids must fail here, not
// on a phone.
#include <unistd.h>

#include <filesystem>
#include <set>

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "device.h"

namespace {

using android::base::Split;

const std::string kKit = std::string(ZQ_SOURCE_DIR) + "/zq_mrdump/";
const std::string kStandIn = kKit + "sepolicy/workstation/";

// checkpolicy on the kit's .te and |extra| rules, m4-expanded between the workstation stand-in of
// the platform's policy and its users; the binary policy goes to |out|.
Result CompilePolicy(const std::string& extra, const std::string& out) {
  return Run(
      {"sh", "-c",
       R"(echo "$1" | m4 -E "$2" "$3" "$4" - "$5" >"$6.conf" && checkpolicy -M -c 30 -o "$6" "$6.conf")",
       "sh", extra, kStandIn + "platform.te", kKit + "sepolicy/zq_mrdump_collect.te",
       kStandIn + "readers.te", kStandIn + "users", out});
}

// The platform's file_contexts followed by the kit's, whose entries win where both match.
std::string FileContexts(const std::string& dir) {
  const std::string path = dir + "/file_contexts";
  EXPECT_TRUE(android::base::WriteStringToFile(
      Slurp(kStandIn + "file_contexts") + Slurp(kKit + "sepolicy/file_contexts"), path));
  return path;
}

// The platform's and the kit's property_contexts rewritten as file_contexts, each property name a
// path ("/" + name), so that the SELinux tools for files look up and check property labels too.
std::string PropertiesAsPaths(const std::string& dir) {
  std::string paths;
  for (const std::string& file :
       {kStandIn + "property_contexts", kKit + "sepolicy/property_contexts"}) {
    for (const std::string& line : Split(Slurp(file), "\n")) {
      std::vector<std::string> f = Split(line, " ");
      f.erase(std::remove(f.begin(), f.end(), ""), f.end());
      if (f.size() < 2 || f[0][0] == '#') continue;
      const bool exact = f.size() > 2 && f[2] == "exact";
      paths += "/" + f[0] + (exact ? "" : ".*") + " " + f[1] + "\n";
    }
  }
  EXPECT_TRUE(android::base::WriteStringToFile(paths, dir + "/property_paths"));
  return dir + "/property_paths";
}

// The type that |contexts| (in file_contexts form) gives each of |paths|, "<<none>>" for none.
std::vector<std::string> Types(const std::string& contexts, const std::vector<std::string>& paths) {
  std::vector<std::string> argv = {"matchpathcon", "-N", "-f", contexts};
  argv.insert(argv.end(), paths.begin(), paths.end());
  const Result labels = Run(argv);
  std::vector<std::string> types;
  for (const std::string& line : Split(labels.out, "\n")) {
    if (line.empty()) continue;
    const std::vector<std::string> context = Split(line.substr(line.find_last_of("\t ") + 1), ":");
    types.push_back(context.size() == 4 ? context[2] : context[0]);
  }
  EXPECT_EQ(types.size(), paths.size()) << labels.out << labels.err;
  return types;
}

// What a boot needs, by the access it makes: the permissions on each folder and file of a tree.
struct Use {
  const char* tree;  // phone path, relative to the device root
  const char* dir_perms;
  const char* file_perms;
};
constexpr Use kUses[] = {
    {"data/vendor/aee_exp", "search read open getattr", "read open getattr"},
    {"data/vendor/dump_collect", "search read open getattr write add_name remove_name create rmdir",
     "create read write open getattr setattr unlink"},
    {"mnt/vendor/zq_log",
     "search read open getattr write add_name remove_name create rmdir setattr",
     "create read write open getattr setattr unlink"},
    {"mnt/vendor/persist/CBT.txt", "", "read open getattr"},
    // The shells and tools of system(), the system's from Android 14 QPR3, the vendor's before.
    {"system/bin/sh", "", "read open getattr execute execute_no_trans map"},
    {"system/bin/toybox", "", "read open getattr execute execute_no_trans map"},
    {"vendor/bin/sh", "", "read open getattr execute execute_no_trans map"},
    {"vendor/bin/toybox_vendor", "", "read open getattr execute execute_no_trans map"},
};

// Every file and folder a boot reads or writes, every folder on the way to them and every property
// it reads or sets is labelled, with a type that the policy lets the daemon use as it does; and
// the log partition is mounted, checked and formatted in the domains that do it.
TEST(KitTest, GrantsWhatABootUses) {
  Device device;
  device.Panic({"--cbt"});
  ASSERT_EQ(device.Boot({"--faketime", "@2024-05-01 03:04:05"}).status, 0);
  const TemporaryDir tmp;
  const std::string policy = std::string(tmp.path) + "/policy";
  const Result compiled = CompilePolicy("", policy);
  ASSERT_EQ(compiled.status, 0) << compiled.err;

  std::vector<std::string> rows;  // "source path class permission", the path still to be labelled
  std::set<std::string> ways;
  auto use = [&](const std::string& path, const char* tclass, const std::string& perms) {
    for (const std::string& perm : Split(perms, " ")) {
      if (!perm.empty()) rows.push_back("zq_mrdump_collect " + path + " " + tclass + " " + perm);
    }
    for (std::string way = path.substr(0, path.rfind('/')); way.size() > 1;
         way = way.substr(0, way.rfind('/'))) {
      ways.insert(way);
    }
  };
  for (const Use& u : kUses) {
    use("/" + std::string(u.tree),
        std::filesystem::is_directory(device.Path(u.tree)) ? "dir" : "file",
        std::filesystem::is_directory(device.Path(u.tree)) ? u.dir_perms : u.file_perms);
    if (!std::filesystem::is_directory(device.Path(u.tree))) continue;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(device.Path(u.tree))) {
      use(entry.path().string().substr(device.Path("").size() - 1),
          entry.is_directory() ? "dir" : "file", entry.is_directory() ? u.dir_perms : u.file_perms);
    }
  }
  for (const std::string& way : ways) rows.push_back("zq_mrdump_collect " + way + " dir search");
  // The fstab line's block device and mount point, as fs_mgr takes them.
  const std::vector<std::string> fstab = [] {
    for (const std::string& line : Split(Slurp(kKit + "fstab.zq_log"), "\n")) {
      if (!line.empty() && line[0] != '#') return Split(line, " ");
    }
    return std::vector<std::string>{};
  }();
  ASSERT_FALSE(fstab.empty());
  rows.push_back("init /mnt/vendor/zq_log dir mounton");
  for (const char* domain : {"fsck", "e2fs"}) {
    for (const char* perm : {"open", "read", "write"}) {
      rows.push_back(std::string(domain) + " " + fstab.front() + " blk_file " + perm);
    }
  }
  // fs_mgr mounts the partition where the kit labels its files and the init script prepares them.
  EXPECT_NE(std::find(fstab.begin(), fstab.end(), "/mnt/vendor/zq_log"), fstab.end());
  // A partition that cannot be mounted or formatted must not fail mount_all, and with it the boot.
  EXPECT_NE(fstab.back().find("nofail"), std::string::npos) << fstab.back();

  std::vector<std::string> paths, properties;
  for (const std::string& row : rows) paths.push_back(Split(row, " ")[1]);
  for (const Record& r : device.Journal()) {
    if (r.ev == "get") rows.push_back("zq_mrdump_collect /" + r.name + " file read");
    if (r.ev == "set") rows.push_back("zq_mrdump_collect /" + r.name + " property_service set");
    if (r.ev == "get" || r.ev == "set") properties.push_back("/" + r.name);
  }
  const std::vector<std::string> file_types = Types(FileContexts(tmp.path), paths);
  const std::vector<std::string> property_types = Types(PropertiesAsPaths(tmp.path), properties);
  ASSERT_EQ(file_types.size() + property_types.size(), rows.size());
  std::string queries;
  for (size_t i = 0; i < rows.size(); ++i) {
    std::vector<std::string> f = Split(rows[i], " ");
    f[1] = i < file_types.size() ? file_types[i] : property_types[i - file_types.size()];
    EXPECT_NE(f[1], "<<none>>") << rows[i] << ": no label";
    queries += android::base::Join(f, " ") + "\n";
  }
  const std::string queries_file = std::string(tmp.path) + "/queries";
  ASSERT_TRUE(android::base::WriteStringToFile(queries, queries_file));
  const Result missing =
      ::Run({"sh", "-c", R"(/usr/bin/python3 -I "$1" "$2" <"$3")", "sh",
             std::string(ZQ_SOURCE_DIR) + "/tests/missing_grants.py", policy, queries_file});
  EXPECT_EQ(missing.status, 0) << missing.err;
  EXPECT_EQ(missing.out, "") << "not allowed (source type class permission):\n" << missing.out;
}

// Started as the init script says, user, groups and all, the daemon reads the exception engine's
// files with the owner and mode they have on the phone, on a freshly formatted log partition.
TEST(KitTest, TheInitScriptsUserReadsTheEvidence) {
  if (geteuid() != 0) GTEST_SKIP() << "starting the daemon as the init script's user needs root";
  Device device(true);
  device.Panic();
  const std::string kmsg = Slurp(device.Pull("/data/vendor/aee_exp/last_kmsg.txt"));
  const Result boot = device.Boot({"--faketime", "@2024-05-01 03:04:05"});
  ASSERT_EQ(boot.status, 0) << boot.err;
  EXPECT_NE(boot.err.find(", as system,"), std::string::npos) << boot.err;
  const std::string dir = device.Pull("/mnt/vendor/zq_log/panic_log/ZQpanic_0_2024-05-01-03-04-05");
  EXPECT_EQ(Slurp(dir + "/last_kmsg.txt"), kmsg);
}

// The platform's own tools take the kit: checkpolicy its policy, refusing what the phone's build
// refuses, sefcontext_compile its labels, bpfmt its build files.
TEST(KitTest, PassesThePlatformsTools) {
  const TemporaryDir tmp;
  const std::string policy = std::string(tmp.path) + "/policy";
  const Result shipped = CompilePolicy("", policy);
  ASSERT_EQ(shipped.status, 0) << shipped.out << shipped.err;
  // Every label the kit gives a file or a property exists in that policy.
  for (const std::string& contexts : {FileContexts(tmp.path), PropertiesAsPaths(tmp.path)}) {
    const Result check =
        ::Run({"sefcontext_compile", "-p", policy, "-o", std::string(tmp.path) + "/fc", contexts});
    EXPECT_EQ(check.status, 0) << contexts << ": " << check.err;
  }
  const std::pair<const char*, const char*> refused[] = {
      {"a misspelt type", "allow zq_mrdump_collect zq_log_fil:dir search;"},
      {"a permission its class lacks", "allow zq_mrdump_collect zq_log_file:file search;"},
      {"a capability that overrides file modes",
       "allow zq_mrdump_collect self:global_capability_class_set dac_read_search;"},
      {"a vendor domain opening a system-side data file",
       "allow zq_mrdump_collect aee_exp_data_file:file r_file_perms;"},
      {"a vendor domain running a system file other than the shell and toybox",
       "allow zq_mrdump_collect system_file:file rx_file_perms;"},
      {"fsck opening any block device", "allow fsck block_device:blk_file rw_file_perms;"},
      {"a system-side read of an internal vendor property",
       "get_prop(platform_app, vendor_zq_mrdump_internal_prop)"},
  };
  for (const auto& [what, rule] : refused) {
    EXPECT_NE(CompilePolicy(rule, policy + ".refused").status, 0) << what << ": " << rule;
  }
  const Result bpfmt =
      ::Run({"bpfmt", "-l", kKit + "Android.bp", std::string(ZQ_SOURCE_DIR) + "/tests/Android.bp"});
  EXPECT_TRUE(bpfmt.status == 0 && bpfmt.out.empty()) << "not in bpfmt's form: " << bpfmt.out;
}

}  // namespace
