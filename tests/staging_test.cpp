// The staging stage: what a run leaves under /data/vendor/dump_collect/, end to end in the
// sandbox, and the two parses it rests on, in process.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "device.h"
#include "staging.h"

namespace {

namespace fs = std::filesystem;

const char kPinned[] = "@2024-05-01 03:04:05";
const char kFolder[] = "/data/vendor/dump_collect/panic_log_2024-05-01-03-04-05";
const char kStatus[] = "vendor.minidump.cp.status";

std::string Staged(const Device& device, const std::string& name = "") {
  return device.Path(std::string("data/vendor/dump_collect/panic_log_2024-05-01-03-04-05") +
                     (name.empty() ? "" : "/" + name));
}

std::string ReadFile(const std::string& path) {
  std::string text;
  EXPECT_TRUE(android::base::ReadFileToString(path, &text)) << path;
  return text;
}

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

class StagingTest : public ::testing::TestWithParam<std::string> {};

TEST_P(StagingTest, StagesTheKernelLogAndTheExceptionDatabase) {
  Device device;
  device.Panic();
  const CommandResult boot = device.Boot(GetParam(), kPinned);
  ASSERT_EQ(boot.status, 0) << boot.err;

  EXPECT_EQ(Entries(Staged(device)), (std::vector<std::string>{"db.00.tar.gz", "last_kmsg.txt"}));
  EXPECT_EQ(ReadFile(Staged(device, "last_kmsg.txt")),
            ReadFile(device.Path("data/vendor/aee_exp/last_kmsg.txt")));
  const CommandResult members = RunCommand({"tar", "-tzf", Staged(device, "db.00.tar.gz")});
  ASSERT_EQ(members.status, 0) << members.err;
  for (const std::string& member : android::base::Split(members.out, "\n")) {
    if (member.empty()) continue;
    EXPECT_TRUE(android::base::StartsWith(member, "db.00/")) << member;
  }
  EXPECT_NE(members.out.find("db.00/ZZ_INTERNAL\n"), std::string::npos) << members.out;

  EXPECT_EQ(device.Prop("vendor.restart_reason"), "KE at pc : do_mem_abort+0x64/0x108");
  EXPECT_EQ(device.Prop("vendor.zq_dump.exist"), "1");
  EXPECT_EQ(device.Prop("vendor.zq_dump.last_dump"), "panic_log_2024-05-01-03-04-05");

  // These lines are the record a platform engineer reads back from the field.
  const std::string folder = kFolder;
  const std::vector<std::string> expected = {
      "Created folder: " + folder,
      "last KE folder is /data/vendor/aee_exp/",
      "cp /data/vendor/aee_exp/last_kmsg.txt " + folder + "/last_kmsg.txt",
      "tar -zcvf " + folder + "/db.00.tar.gz -C /data/vendor/aee_exp/ db.00",
      "/data/vendor/aee_exp/ save as " + folder + "/db.00.tar.gz",
      "restart_info = KE at pc : do_mem_abort+0x64/0x108",
      "chmod -R 0770 /data/vendor/dump_collect/",
  };
  const std::vector<std::string> log = device.Log();
  auto at = log.begin();
  for (const std::string& line : expected) {
    at = std::find(at, log.end(), line);
    EXPECT_NE(at, log.end()) << "missing, or out of order: " << line;
  }

  for (const auto& entry :
       fs::recursive_directory_iterator(device.Path("data/vendor/dump_collect"))) {
    EXPECT_EQ(entry.status().permissions(), fs::perms(0770)) << entry.path();
  }
}

INSTANTIATE_TEST_SUITE_P(Userlands, StagingTest, ::testing::Values("host", "android"));

TEST(StagingEvidenceTest, BrokenEvidenceIsLoggedAndTheRunGoesOn) {
  const std::string folder = kFolder;
  struct Case {
    const char* label;
    std::vector<std::string> panic;
    std::function<void(Device&)> damage;
    std::vector<std::string> lines;
    std::optional<std::string> reason;
  } cases[] = {
      {"database property unset",
       {},
       [](Device& d) { d.SetProp("vendor.debug.mtk.aeev.db", ""); },
       {"last KE folder is ", "tar -zcvf " + folder + "/.tar.gz -C  ", " save failed",
        "Unable to open file: //ZZ_INTERNAL"},
       std::nullopt},
      {"no kernel log",
       {"--no-kmsg"},
       [](Device&) {},
       {"cp /data/vendor/aee_exp/last_kmsg.txt " + folder + "/last_kmsg.txt failed",
        "/data/vendor/aee_exp/ save as " + folder + "/db.00.tar.gz"},
       "KE at pc : do_mem_abort+0x64/0x108"},
      {"no KE at line",
       {"--reason", "Oops at pc : do_mem_abort"},
       [](Device&) {},
       {},
       std::nullopt},
      {"KE at line without a comma, ending in CR LF",
       {},
       [](Device& d) {
         ASSERT_TRUE(android::base::WriteStringToFile(
             "Exception Class: Kernel (KE)\nKE at pc : do_undefinstr\r\nKE at second,x\n",
             d.Path("data/vendor/aee_exp/db.00/ZZ_INTERNAL")));
       },
       {"restart_info = KE at pc : do_undefinstr\r"},
       "KE at pc : do_undefinstr\r"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    Device device;
    device.Panic(c.panic);
    c.damage(device);
    const CommandResult boot = device.Boot("host", kPinned);
    ASSERT_EQ(boot.status, 0) << boot.err;

    const std::vector<std::string> log = device.Log();
    for (const std::string& line : c.lines) EXPECT_TRUE(Contains(log, line)) << line;
    EXPECT_EQ(device.Prop("vendor.restart_reason"), c.reason);
    EXPECT_EQ(device.Prop("vendor.zq_dump.exist"), "1");
    EXPECT_EQ(device.Prop("vendor.zq_dump.last_dump"), "panic_log_2024-05-01-03-04-05");
    EXPECT_EQ(device.Prop(kStatus), "1");
  }
}

TEST(StagingFolderTest, AFileInTheWayStopsStagingButNotTheRun) {
  for (const bool staging_root : {true, false}) {
    SCOPED_TRACE(staging_root ? "a file at the folder's path" : "no staging root");
    Device device;
    device.Panic();
    if (staging_root) {
      ASSERT_TRUE(android::base::WriteStringToFile("not a folder", Staged(device)));
    } else {
      fs::remove(device.Path("data/vendor/dump_collect"));
    }
    const CommandResult boot = device.Boot("host", kPinned);
    ASSERT_EQ(boot.status, 0) << boot.err;

    const std::vector<std::string> log = device.Log();
    EXPECT_TRUE(Contains(log, std::string("Failed to create folder: ") + kFolder));
    EXPECT_TRUE(Contains(log, "Failed create_panic_folder(), stop copy_to_dump_collect()"));
    EXPECT_FALSE(Contains(log, "chmod -R 0770 /data/vendor/dump_collect/"));
    EXPECT_EQ(device.Prop("vendor.zq_dump.exist"), std::nullopt);
    EXPECT_EQ(device.Prop("vendor.zq_dump.last_dump"), std::nullopt);
    EXPECT_TRUE(Contains(log, "[Panic]prepare_type_log_and_dir: new_log_count: 0"))
        << "the archive stage runs all the same";
    EXPECT_EQ(device.Prop(kStatus), "1");
    if (staging_root) {
      EXPECT_EQ(ReadFile(Staged(device)), "not a folder") << "the file must stay";
    } else {
      EXPECT_TRUE(Contains(
          log, "Path is not a directory or does not exist: \"/data/vendor/dump_collect/\""));
    }
  }
}

TEST(StagingFolderTest, AnEarlierAttemptIsEmptiedAndTheFolderKept) {
  Device device;
  device.Panic();
  fs::create_directories(Staged(device, "empty_subfolder"));
  ASSERT_TRUE(android::base::WriteStringToFile("stale", Staged(device, "stale.txt")));
  struct stat before = {};
  ASSERT_EQ(stat(Staged(device).c_str(), &before), 0);

  ASSERT_EQ(device.Boot("host", kPinned).status, 0);
  EXPECT_TRUE(Contains(device.Log(), std::string("Folder already exists: ") + kFolder));
  EXPECT_EQ(Entries(Staged(device)), (std::vector<std::string>{"db.00.tar.gz", "last_kmsg.txt"}));
  struct stat after = {};
  ASSERT_EQ(stat(Staged(device).c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino) << "the folder itself is kept";
}

TEST(StagingFolderTest, AFolderThatCannotBeEmptiedEndsTheRunAbnormally) {
  Device device;
  device.Panic();
  ASSERT_TRUE(fs::create_directories(Staged(device, "subfolder")));
  ASSERT_TRUE(android::base::WriteStringToFile("x", Staged(device, "subfolder/file")));

  const CommandResult boot = device.Boot("host", kPinned);
  EXPECT_NE(boot.status, 0);
  EXPECT_EQ(device.Prop(kStatus), "running");
  EXPECT_EQ(device.Sets(kStatus), (std::vector<std::string>{"wait", "running"}));
  for (const std::string& line : device.Log()) {
    EXPECT_FALSE(android::base::StartsWith(line, "Time taken: ")) << line;
  }
}

void SetMtime(const std::string& path, time_t when) {
  const struct timespec times[2] = {{when, 0}, {when, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

TEST(StagingRetentionTest, KeepsTheTwoNewestFoldersByModificationTime) {
  Device device;
  device.Panic();
  const std::string root = device.Path("data/vendor/dump_collect/");
  const std::string outside = device.Path("data/vendor/outside");
  // Names sort the other way round from the modification times, which alone decide.
  for (const auto& [name, when] : std::vector<std::pair<std::string, time_t>>{
           {"panic_log_2099-01-01-00-00-00", 1'550'000'000},  // oldest
           {"panic_log_2000-01-01-00-00-00", 1'680'000'000},  // newest of the earlier ones
           {"panic_log_2098-01-01-00-00-00", 1'600'000'000}}) {
    ASSERT_TRUE(fs::create_directories(root + name + "/inner"));
    SetMtime(root + name, when);
  }
  ASSERT_TRUE(fs::create_directories(outside));
  ASSERT_TRUE(android::base::WriteStringToFile("keep me", outside + "/file"));
  fs::create_directory_symlink("/data/vendor/outside", root + "link_to_outside");
  SetMtime(outside, 1'500'000'000);  // the link counts with its target's time: oldest of all
  ASSERT_TRUE(android::base::WriteStringToFile("stray", root + "stray.tar.gz"));
  SetMtime(root + "stray.tar.gz", 1'000'000'000);

  const CommandResult boot = device.Boot("host", kPinned);
  ASSERT_EQ(boot.status, 0) << boot.err;

  EXPECT_EQ(Entries(root),
            (std::vector<std::string>{"panic_log_2000-01-01-00-00-00",
                                      "panic_log_2024-05-01-03-04-05", "stray.tar.gz"}));
  std::vector<std::string> deleted;
  for (const std::string& line : android::base::Split(boot.out, "\n")) {
    if (android::base::StartsWith(line, "Deleted directory: ")) deleted.push_back(line);
  }
  EXPECT_EQ(deleted,
            (std::vector<std::string>{
                "Deleted directory: \"/data/vendor/dump_collect/link_to_outside\"",
                "Deleted directory: \"/data/vendor/dump_collect/panic_log_2099-01-01-00-00-00\"",
                "Deleted directory: \"/data/vendor/dump_collect/panic_log_2098-01-01-00-00-00\"",
            }));
  EXPECT_EQ(ReadFile(outside + "/file"), "keep me") << "a link's target is never touched";
}

TEST(StagingParseTest, ExceptionFolderOfTheDatabaseProperty) {
  const std::pair<const char*, const char*> cases[] = {
      {"1:/data/vendor/aee_exp/db.01", "/data/vendor/aee_exp/"},
      {"1:/data/vendor/aee_exp/", "/data/vendor/aee_exp/"},
      {"1:/db.01", "/"},
      {"a:b:/x/db", "b:/x/"},  // only the first ':' separates
      {"", ""},
      {"/data/vendor/aee_exp/db.01", ""},
      {"1:", ""},
      {"1:db.01", ""},
  };
  for (const auto& [value, folder] : cases) {
    EXPECT_EQ(extractKEPath(value), folder) << '"' << value << '"';
  }
}

TEST(StagingParseTest, RestartReasonIsTheFirstKeAtLineUpToItsComma) {
  InProcessPlatform platform;
  TemporaryDir db;
  const std::string long_reason = "KE at " + std::string(90, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"abc KE at xyz,def,ghi\n", "KE at xyz"},
      {"head\nKE at first,a\nKE at second,b\n", "KE at first"},
      {"prefix, KE at pc,lr", "KE at pc"},
      {"KE at no comma\n", "KE at no comma"},
      {"KE at cr\r\n", "KE at cr\r"},
      {"KE at", "KE at"},
      {"ke at lower\nKE  at two blanks\nKE\n", "old"},
      {"", "old"},
      {long_reason + "\n", "old"},  // too long for a property: not stored
  };
  for (const auto& [contents, expected] : cases) {
    SCOPED_TRACE(contents);
    ASSERT_EQ(property_set("vendor.restart_reason", "old"), 0);
    ASSERT_TRUE(android::base::WriteStringToFile(contents, std::string(db.path) + "/ZZ_INTERNAL"));
    get_restart_info(db.path);
    EXPECT_EQ(platform.Prop("vendor.restart_reason"), expected);
  }
}

}  // namespace
