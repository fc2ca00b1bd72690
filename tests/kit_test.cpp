// The integration kit against what the daemon really uses, checked by the platform's own tools: a
// renamed path or property, or a rule the platform forbids, must fail here, not on a phone.
#include <filesystem>

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "device.h"

namespace {

const std::string kKit = std::string(ZQ_SOURCE_DIR) + "/zq_mrdump/";

// checkpolicy on the kit's .te and |extra| rules, m4-expanded between the workstation stand-in of
// the platform's policy and its users; the binary policy goes to |out|.
Result CompilePolicy(const std::string& extra, const std::string& out) {
  const std::string stand_in = kKit + "sepolicy/workstation/";
  return Run(
      {"sh", "-c",
       R"(echo "$1" | m4 -E "$2" "$3" "$4" - "$5" >"$6.conf" && checkpolicy -M -c 30 -o "$6" "$6.conf")",
       "sh", extra, stand_in + "platform.te", kKit + "sepolicy/zq_mrdump_collect.te",
       stand_in + "readers.te", stand_in + "users", out});
}

// property_contexts rewritten as file_contexts, each property name a path ("/" + name), so that
// the SELinux tools for files look up and check property labels too.
std::string PropertiesAsPaths(const std::string& dir) {
  std::string paths;
  for (const std::string& line :
       android::base::Split(Slurp(kKit + "sepolicy/property_contexts"), "\n")) {
    std::vector<std::string> f = android::base::Split(line, " ");
    f.erase(std::remove(f.begin(), f.end(), ""), f.end());
    if (f.size() != 4 || f[0][0] == '#' || f[3] != "string") continue;
    paths += "/" + f[0] + (f[2] == "prefix" ? ".*" : "") + " " + f[1] + "\n";
  }
  EXPECT_TRUE(android::base::WriteStringToFile(paths, dir + "/property_paths"));
  return dir + "/property_paths";
}

// matchpathcon's labels for |names| by |contexts| (in file_contexts form): "<<none>>" for none.
Result Labels(const std::string& contexts, std::vector<std::string> names) {
  names.insert(names.begin(), {"matchpathcon", "-N", "-f", contexts});
  return Run(names);
}

// Every file a boot makes and every property it reads or sets has a label, and the init script
// makes the folders the daemon needs and starts it once.
TEST(KitTest, LabelsEveryPathAndPropertyOfABoot) {
  Device device;
  device.Panic({"--cbt"});
  ASSERT_EQ(device.Boot({"--faketime", "@2024-05-01 03:04:05"}).status, 0);
  std::vector<std::string> paths = {"/vendor/bin/zq_mrdump_collect"};
  for (const std::string tree : {"data/vendor/dump_collect", "mnt/vendor/zq_log"}) {
    paths.push_back("/" + tree);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(device.Path(tree))) {
      paths.push_back(entry.path().string().substr(device.Path("").size() - 1));
    }
  }
  std::vector<std::string> properties;  // the exception engine's are the platform's to label
  for (const Record& r : device.Journal()) {
    if (r.ev != "log" && !android::base::StartsWith(r.name, "vendor.debug.mtk.aeev.")) {
      properties.push_back("/" + r.name);
    }
  }
  const TemporaryDir tmp;
  for (const Result& labels : {Labels(kKit + "sepolicy/file_contexts", paths),
                               Labels(PropertiesAsPaths(tmp.path), properties)}) {
    EXPECT_TRUE(labels.status == 0 && labels.out.find("<<none>>") == std::string::npos)
        << labels.out << labels.err;
  }
  EXPECT_NE(Slurp(kKit + "sepolicy/zq_mrdump_collect.te")
                .find("get_prop(zq_mrdump_collect, vendor_aee_prop)"),
            std::string::npos);
  const std::string rc = Slurp(kKit + "zq_mrdump_collect.rc");
  for (const char* line :
       {"service zq_mrdump_collect /vendor/bin/zq_mrdump_collect\n", "    oneshot\n",
        "    mkdir /data/vendor/dump_collect 0770 system system\n",
        "    mkdir /mnt/vendor/zq_log 0770 system system\n",
        "    restorecon_recursive /mnt/vendor/zq_log\n"}) {
    EXPECT_NE(rc.find(line), std::string::npos) << line;
  }
  EXPECT_NE(Slurp(kKit + "Android.bp").find("init_rc: [\"zq_mrdump_collect.rc\"]"),
            std::string::npos);
}

// The platform's own tools take the kit: checkpolicy its policy, refusing what the phone's build
// refuses, sefcontext_compile its labels, bpfmt its build files.
TEST(KitTest, PassesThePlatformsTools) {
  const TemporaryDir tmp;
  const std::string policy = std::string(tmp.path) + "/policy";
  const Result shipped = CompilePolicy("", policy);
  ASSERT_EQ(shipped.status, 0) << shipped.out << shipped.err;
  // Every label the kit gives a file or a property exists in that policy.
  for (const std::string& contexts :
       {kKit + "sepolicy/file_contexts", PropertiesAsPaths(tmp.path)}) {
    const Result check =
        ::Run({"sefcontext_compile", "-p", policy, "-o", std::string(tmp.path) + "/fc", contexts});
    EXPECT_EQ(check.status, 0) << contexts << ": " << check.err;
  }
  const std::pair<const char*, const char*> refused[] = {
      {"a misspelt type", "allow zq_mrdump_collect zq_log_fil:dir search;"},
      {"a permission its class lacks", "allow zq_mrdump_collect zq_log_file:file search;"},
      {"a vendor domain running a /system/bin tool",
       "allow zq_mrdump_collect toolbox_exec:file rx_file_perms;"},
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
