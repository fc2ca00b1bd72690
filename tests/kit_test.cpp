// The integration kit against what the daemon really uses, checked by the platform's own tools: a
// renamed path or property, or a rule the platform forbids, must fail here, not on a phone.
#include <filesystem>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "device.h"
#include "log_types.h"

namespace {

const std::string kKit = std::string(ZQ_SOURCE_DIR) + "/zq_mrdump/";

// checkpolicy on the kit's .te and |extra| rules, m4-expanded between the workstation stand-in of
// the platform's policy and its users; the binary policy goes to |out|.
Result CompilePolicy(const std::string& extra, const std::string& out) {
  const std::string stand_in = kKit + "sepolicy/workstation/";
  const TemporaryFile rules;
  const TemporaryFile conf;
  EXPECT_TRUE(android::base::WriteStringToFile(extra, rules.path));
  const Result m4 =
      Run({"m4", "-E", stand_in + "platform.te", kKit + "sepolicy/zq_mrdump_collect.te",
           stand_in + "readers.te", rules.path, stand_in + "users"});
  if (m4.status != 0) return m4;
  EXPECT_TRUE(android::base::WriteStringToFile(m4.out, conf.path));
  return Run({"checkpolicy", "-M", "-c", "30", "-o", out, conf.path});
}

// property_contexts rewritten as file_contexts, each property name a path ("/" + name), so that
// the SELinux tools for files look up and check property labels too.
std::string PropertiesAsPaths(const std::string& dir) {
  std::string paths;
  for (const std::string& line :
       android::base::Split(Slurp(kKit + "sepolicy/property_contexts"), "\n")) {
    std::istringstream fields(line);
    const std::vector<std::string> f{std::istream_iterator<std::string>(fields), {}};
    if (f.size() != 4 || f[0][0] == '#' || f[3] != "string") continue;
    paths += "/" + f[0] + (f[2] == "prefix" ? ".*" : "") + " " + f[1] + "\n";
  }
  EXPECT_TRUE(android::base::WriteStringToFile(paths, dir + "/property_paths"));
  return dir + "/property_paths";
}

// Every path and property a boot uses has a label, and the init script and build rule name what
// the daemon needs.
TEST(KitTest, CoversEveryPathAndPropertyOfABoot) {
  Device device;
  device.Panic({"--cbt"});
  ASSERT_EQ(device.Boot({"--faketime", "@2024-05-01 03:04:05"}).status, 0);
  const TemporaryDir tmp;
  std::set<std::string> properties;
  for (const Record& r : device.Journal()) {
    // The exception engine's properties are the platform's to label; the daemon reads them.
    if (r.ev != "log" && !android::base::StartsWith(r.name, "vendor.debug.mtk.aeev.")) {
      properties.insert("/" + r.name);
    }
  }
  std::vector<std::string> argv = {"matchpathcon", "-N", "-f", PropertiesAsPaths(tmp.path)};
  argv.insert(argv.end(), properties.begin(), properties.end());
  const Result property_labels = ::Run(argv);
  EXPECT_EQ(property_labels.out.find("<<none>>"), std::string::npos) << property_labels.out;
  EXPECT_NE(Slurp(kKit + "sepolicy/zq_mrdump_collect.te")
                .find("get_prop(zq_mrdump_collect, vendor_aee_prop)"),
            std::string::npos);

  const std::string staging_root = gDumpCollectDir.substr(0, gDumpCollectDir.size() - 1);
  const std::string log_root =
      std::filesystem::path(kLogTypes[4].log_dir).parent_path().parent_path();
  const Result file_labels = ::Run(
      {"matchpathcon", "-N", "-f", kKit + "sepolicy/file_contexts", "/vendor/bin/zq_mrdump_collect",
       staging_root, staging_root + "/panic_log_2024-05-01-03-04-05/last_kmsg.txt", log_root,
       kLogTypes[4].log_dir + "ZQpanic_0_2024-05-01-03-04-05.tar.gz", kLogTypes[0].log_dir});
  EXPECT_EQ(file_labels.status, 0) << file_labels.err;
  EXPECT_EQ(file_labels.out.find("<<none>>"), std::string::npos) << file_labels.out;

  const std::string rc = Slurp(kKit + "zq_mrdump_collect.rc");
  for (const std::string& line :
       std::vector<std::string>{"service zq_mrdump_collect /vendor/bin/zq_mrdump_collect",
                                "    oneshot", "    mkdir " + staging_root + " 0770 system system",
                                "    mkdir " + log_root + " 0770 system system",
                                "    restorecon_recursive " + log_root}) {
    EXPECT_NE(rc.find(line + "\n"), std::string::npos) << line;
  }
  EXPECT_NE(Slurp(kKit + "Android.bp").find("init_rc: [\"zq_mrdump_collect.rc\"]"),
            std::string::npos);
}

TEST(KitTest, PolicyCompilesAndKeepsThePlatformsRules) {
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
}

TEST(KitTest, BlueprintsAreBpfmtClean) {
  const Result bpfmt =
      ::Run({"bpfmt", "-l", kKit + "Android.bp", std::string(ZQ_SOURCE_DIR) + "/tests/Android.bp"});
  EXPECT_EQ(bpfmt.status, 0) << bpfmt.err;
  EXPECT_EQ(bpfmt.out, "") << "not in bpfmt's form";
}

}  // namespace
