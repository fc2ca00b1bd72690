// The integration kit against what the daemon really uses, and its policy compiled by the
// platform's own tool: a renamed path or property, or a rule the platform forbids, must fail here,
// not on a phone.
#include <regex.h>

#include <filesystem>
#include <set>
#include <string>

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "device.h"
#include "log_types.h"

namespace {

using android::base::Split;

const std::string kKit = std::string(ZQ_SOURCE_DIR) + "/zq_mrdump/";

std::string Kit(const std::string& name) {
  return Slurp(kKit + name);
}

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

// The blank-separated fields of each line of a contexts file, comments left out.
std::vector<std::vector<std::string>> Fields(const std::string& text) {
  std::vector<std::vector<std::string>> lines;
  for (const std::string& line : Split(text, "\n")) {
    if (line.empty() || line[0] == '#') continue;
    lines.emplace_back();
    for (const std::string& field : Split(line, " ")) {
      if (!field.empty()) lines.back().push_back(field);
    }
  }
  return lines;
}

// The context that |entries| ("regex context" lines) give |path|, as file_contexts matches.
std::string ContextOf(const std::string& entries, const std::string& path) {
  std::string context;
  for (const std::vector<std::string>& f : Fields(entries)) {
    regex_t whole = {};  // file_contexts patterns match whole paths
    if (regcomp(&whole, ("^(" + f.front() + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0) continue;
    if (regexec(&whole, path.c_str(), 0, nullptr, 0) == 0) context = f.back();
    regfree(&whole);
  }
  return context;
}

TEST(KitTest, CoversEveryPathAndPropertyOfABoot) {
  Device device;
  device.Panic({"--cbt"});
  ASSERT_EQ(device.Boot({"--faketime", "@2024-05-01 03:04:05"}).status, 0);
  const std::string te = Kit("sepolicy/zq_mrdump_collect.te");

  std::set<std::string> names;  // every property the boot read or wrote
  for (const Record& r : device.Journal()) {
    if (r.ev != "log") names.insert(r.name);
  }
  const std::string properties = Kit("sepolicy/property_contexts");
  for (const std::string& name : names) {
    bool covered = false;  // by "name context exact|prefix string"
    for (const std::vector<std::string>& f : Fields(properties)) {
      covered |= f.size() == 4 && f[3] == "string" &&
                 (name == f[0] || (f[2] == "prefix" && name.rfind(f[0], 0) == 0));
    }
    // The exception engine's properties are the platform's to label; the daemon reads them.
    const bool platform = name.rfind("vendor.debug.mtk.aeev.", 0) == 0;
    EXPECT_TRUE(covered != platform) << name;
  }
  EXPECT_NE(te.find("get_prop(zq_mrdump_collect, vendor_aee_prop)"), std::string::npos);

  const std::string files = Kit("sepolicy/file_contexts");
  // Its label is checked here; that the label exists, by the policy test below.
  const std::string staging_root = gDumpCollectDir.substr(0, gDumpCollectDir.size() - 1);
  const std::string log_root =
      std::filesystem::path(kLogTypes[4].log_dir).parent_path().parent_path();
  for (const std::string& path :
       {std::string("/vendor/bin/zq_mrdump_collect"), staging_root,
        staging_root + "/panic_log_2024-05-01-03-04-05/last_kmsg.txt", log_root,
        kLogTypes[4].log_dir + "ZQpanic_0_2024-05-01-03-04-05.tar.gz", kLogTypes[0].log_dir}) {
    EXPECT_FALSE(ContextOf(files, path).empty()) << path;
  }

  const std::string rc = Kit("zq_mrdump_collect.rc");
  for (const std::string& line :
       std::vector<std::string>{"service zq_mrdump_collect /vendor/bin/zq_mrdump_collect",
                                "    oneshot", "    mkdir " + staging_root + " 0770 system system",
                                "    mkdir " + log_root + " 0770 system system",
                                "    restorecon_recursive " + log_root}) {
    EXPECT_NE(rc.find(line + "\n"), std::string::npos) << line;
  }
  EXPECT_NE(Kit("Android.bp").find("init_rc: [\"zq_mrdump_collect.rc\"]"), std::string::npos);
}

TEST(KitTest, PolicyCompilesAndKeepsThePlatformsRules) {
  const TemporaryDir tmp;
  const std::string policy = std::string(tmp.path) + "/policy";
  const Result shipped = CompilePolicy("", policy);
  ASSERT_EQ(shipped.status, 0) << shipped.out << shipped.err;

  // Every label the kit gives a file or a property exists in that policy. sefcontext_compile
  // reads file_contexts; the property names pass for paths so that it checks those labels too.
  std::string properties;
  for (const std::vector<std::string>& f : Fields(Kit("sepolicy/property_contexts"))) {
    properties += "/" + f[0] + " " + f[1] + "\n";
  }
  const std::string property_paths = std::string(tmp.path) + "/property_paths";
  ASSERT_TRUE(android::base::WriteStringToFile(properties, property_paths));
  for (const std::string& contexts : {kKit + "sepolicy/file_contexts", property_paths}) {
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
