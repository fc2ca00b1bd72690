// The integration kit against what the daemon really uses: a renamed path or property must fail
// here, not on a phone.
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

std::string Kit(const std::string& name) {
  return Slurp(std::string(ZQ_SOURCE_DIR) + "/zq_mrdump/" + name);
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
  const std::string staging_root = gDumpCollectDir.substr(0, gDumpCollectDir.size() - 1);
  const std::string log_root =
      std::filesystem::path(kLogTypes[4].log_dir).parent_path().parent_path();
  for (const std::string& path :
       {std::string("/vendor/bin/zq_mrdump_collect"), staging_root,
        staging_root + "/panic_log_2024-05-01-03-04-05/last_kmsg.txt", log_root,
        kLogTypes[4].log_dir + "ZQpanic_0_2024-05-01-03-04-05.tar.gz", kLogTypes[0].log_dir}) {
    const std::string context = ContextOf(files, path);
    EXPECT_FALSE(context.empty()) << path;
    EXPECT_NE(te.find("type " + Split(context, ":")[2] + ","), std::string::npos) << path;
  }

  const std::string rc = Kit("zq_mrdump_collect.rc");
  for (const std::string& line :
       std::vector<std::string>{"service zq_mrdump_collect /vendor/bin/zq_mrdump_collect",
                                "    oneshot", "    mkdir " + staging_root + " 0770 system system",
                                "    mkdir " + log_root + " 0770 system system"}) {
    EXPECT_NE(rc.find(line + "\n"), std::string::npos) << line;
  }
  EXPECT_NE(Kit("Android.bp").find("init_rc: [\"zq_mrdump_collect.rc\"]"), std::string::npos);
}

}  // namespace
