// The persistent log archive: the name grammar, counting and rotation on category directories
// in process, and the archive tree that boots in a row leave on a simulated phone.
#include <cutils/properties.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "archive.h"
#include "device.h"
#include "log_types.h"

namespace {

namespace fs = std::filesystem;
using android::base::StringPrintf;

const char kStatus[] = "vendor.minidump.cp.status";

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

void Touch(const std::string& path) {
  ASSERT_TRUE(android::base::WriteStringToFile("x", path));
}

TEST(ArchiveNameTest, CountIsTheMiddleFieldOfThreeWhenAllDigits) {
  InProcessPlatform platform;
  const std::pair<const char*, long long> cases[] = {
      {"ZQpanic_0_log", 0},
      {"ZQpanic_007_x", 7},
      {"ZQpanic_10_y.tar.gz", 10},
      {"ZQpanic_3_2024-05-01-13-45-10", 3},
      {"ZQboot_1_x.tar.gz", 1},  // the prefix is the caller's test, not this one's
      {"ZQpanic_9223372036854775807_x", 9223372036854775807LL},
      {"ZQpanic_x_2024.tar.gz", -1},
      {"ZQpanic_-1_x", -1},
      {"ZQpanic_3_2024_05.tar.gz", -1},
      {"ZQpanic_3", -1},
      {"README", -1},
  };
  for (const auto& [name, count] : cases) {
    EXPECT_EQ(get_boot_count_by_file_name(name), count) << name;
  }
  const std::vector<std::string> log = platform.Log();
  EXPECT_TRUE(Contains(log, "error file name ZQpanic_x_2024.tar.gz ret.size() 3"));
  EXPECT_TRUE(Contains(log, "error file name ZQpanic_3_2024_05.tar.gz ret.size() 4"));
  EXPECT_TRUE(Contains(log, "error file name README ret.size() 1"));

  // Unguarded on purpose: these end a run.
  EXPECT_THROW(get_boot_count_by_file_name("ZQpanic__x"), std::invalid_argument);
  EXPECT_THROW(get_boot_count_by_file_name("ZQpanic_9223372036854775808_x"), std::out_of_range);
}

class CategoryDirTest : public ::testing::Test {
 protected:
  std::string Dir() const { return std::string(dir_.path) + "/"; }
  int NextCount(const std::string& prefix = "ZQpanic_") {
    return get_new_zq_log_count(Dir(), prefix);
  }
  int Rotate(long long count, int limit = 5, const std::string& prefix = "ZQpanic_") {
    return remove_old_and_trash_file(count, Dir(), prefix, limit);
  }

  InProcessPlatform platform_;
  TemporaryDir dir_;
};

TEST_F(CategoryDirTest, AnEmptyDirectoryStartsAtZeroAndKeepsEverything) {
  EXPECT_EQ(NextCount(), 0);
  EXPECT_EQ(Rotate(0), 0);
  EXPECT_TRUE(platform_.Log().empty());
}

TEST_F(CategoryDirTest, CountsNumericallyAndRotatesOutAllButTheNewest) {
  for (int n = 0; n <= 6; ++n) Touch(Dir() + StringPrintf("ZQpanic_%d_t%c.tar.gz", n, 'a' + n));
  const int next = NextCount();
  ASSERT_EQ(next, 7);
  EXPECT_EQ(Rotate(next), 0);
  EXPECT_EQ(Entries(Dir()),
            (std::vector<std::string>{"ZQpanic_3_td.tar.gz", "ZQpanic_4_te.tar.gz",
                                      "ZQpanic_5_tf.tar.gz", "ZQpanic_6_tg.tar.gz"}));

  fs::remove_all(Dir());
  fs::create_directory(Dir());
  Touch(Dir() + "ZQpanic_9_x.tar.gz");
  Touch(Dir() + "ZQpanic_10_y.tar.gz");
  EXPECT_EQ(NextCount(), 11) << "10 is newer than 9";
}

TEST_F(CategoryDirTest, TrashIsRemovedAndDotFilesStay) {
  Touch(Dir() + "ZQpanic_4_x.tar.gz");
  Touch(Dir() + "README");
  Touch(Dir() + ".keep");
  Touch(Dir() + "ZQboot_1_x.tar.gz");
  Touch(Dir() + "ZQpanic_x_2024.tar.gz");
  ASSERT_TRUE(fs::create_directories(Dir() + "foreign/inner"));
  Touch(Dir() + "foreign/inner/file");

  const int next = NextCount();
  EXPECT_EQ(next, 5);
  EXPECT_EQ(Rotate(next), 0);
  EXPECT_EQ(Entries(Dir()), (std::vector<std::string>{".keep", "ZQpanic_4_x.tar.gz"}));
  const std::vector<std::string> log = platform_.Log();
  EXPECT_TRUE(Contains(log, "find file :README"));
  EXPECT_TRUE(Contains(log, "find file :ZQpanic_4_x.tar.gz"));
  EXPECT_FALSE(Contains(log, "find file :ZQpanic_x_2024.tar.gz")) << "it logged its parse error";
  EXPECT_TRUE(Contains(log, "remove pass: " + Dir() + "foreign"));
}

TEST_F(CategoryDirTest, ALeftoverArchiveDirectoryIsCompressedAndRemoved) {
  const std::string name = "ZQpanic_3_2024-05-01-13-45-10";
  ASSERT_TRUE(fs::create_directory(Dir() + name));
  ASSERT_TRUE(android::base::WriteStringToFile("evidence", Dir() + name + "/last_kmsg.txt"));
  Touch(Dir() + "ZQpanic_2_old.tar.gz");

  EXPECT_EQ(Rotate(4), 0);
  EXPECT_EQ(Entries(Dir()), (std::vector<std::string>{"ZQpanic_2_old.tar.gz", name + ".tar.gz"}));
  const CommandResult members = RunCommand({"tar", "-tzf", Dir() + name + ".tar.gz"});
  EXPECT_EQ(members.out, name + "/\n" + name + "/last_kmsg.txt\n");
  EXPECT_EQ(fs::status(Dir() + name + ".tar.gz").permissions(), fs::perms(0770));
  EXPECT_EQ(platform_.Prop("vendor.zq_dump.last_panic_log"), name);
}

TEST_F(CategoryDirTest, BootKeepsTenArchives) {
  const LogType& boot = kLogTypes[0];
  for (int n = 0; n <= 11; ++n) Touch(Dir() + StringPrintf("ZQboot_%d_t.tar.gz", n));
  const int next = NextCount(boot.prefix);
  ASSERT_EQ(next, 12);
  EXPECT_EQ(Rotate(next, boot.max_log_num, boot.prefix), 0);
  EXPECT_EQ(Entries(Dir()).size(), 9u) << "nine kept; this run's archive makes ten";
  EXPECT_EQ(Entries(Dir()).front(), "ZQboot_10_t.tar.gz");
}

TEST(ArchiveCategoryTest, AnInvalidIndexTouchesNothing) {
  for (const unsigned int type : {5U, 100U, 4294967295U}) {
    SCOPED_TRACE(type);
    InProcessPlatform platform;
    const std::string suffix = ": error core_log_type: " + std::to_string(type);
    EXPECT_EQ(prepare_type_log_and_dir(type), -22);
    EXPECT_EQ(create_type_new_zq_log_dir(type), -22);
    clean_type_log_and_dir(type);
    copy_panic_log(type);
    EXPECT_EQ(platform.Log(), (std::vector<std::string>{
                                  "prepare_type_log_and_dir" + suffix,
                                  "create_type_new_zq_log_dir" + suffix,
                                  "clean_type_log_and_dir" + suffix,
                                  "copy_panic_log" + suffix,
                              }));
    EXPECT_TRUE(kLogTypes[4].new_log_path.empty());
  }
}

TEST(ArchiveCopyTest, OnlyTheDefaultFolderHasAFallbackForAnOverlongCommand) {
  InProcessPlatform platform;
  TemporaryDir target;
  const std::string head = "cp -r /data/vendor/dump_collect/";
  // A real folder path padded with "./" to give the command the length wanted.
  auto path_for = [&](const std::string& value, size_t length) {
    std::string path = std::string(target.path) + "/";
    const size_t fixed = head.size() + value.size() + 3;
    while (fixed + path.size() + 2 <= length) path += "./";
    if (fixed + path.size() < length) path.insert(path.size() - 1, "/");
    return path;
  };
  struct Case {
    std::string value;
    size_t length;
    bool fallback;
  } cases[] = {{"panic_log", 511, false},
               {"panic_log", 512, true},
               {"panic_log_2024-05-01-03-04-05", 512, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value + " " + std::to_string(c.length));
    ASSERT_EQ(property_set("vendor.zq_dump.last_dump", c.value.c_str()), 0);
    kLogTypes[4].new_log_path = path_for(c.value, c.length);
    const std::string command = head + c.value + "/* " + kLogTypes[4].new_log_path;
    ASSERT_EQ(command.size(), c.length);
    const size_t before = platform.Log().size();
    copy_panic_log(4);
    std::vector<std::string> log = platform.Log();
    log.erase(log.begin(), log.begin() + static_cast<long>(before));
    if (c.fallback) {
      // The fallback names the same folder; it too is cut to the buffer.
      const std::string fallback = head + "panic_log/* " + kLogTypes[4].new_log_path;
      EXPECT_EQ(log,
                (std::vector<std::string>{command + " exceed 512 length, using default path",
                                          "[Panic]copy_panic_log: " + fallback.substr(0, 511)}));
    } else {
      EXPECT_EQ(log, std::vector<std::string>{"[Panic]copy_panic_log: " + command.substr(0, 511)});
    }
  }
  kLogTypes[4].new_log_path.clear();
}

std::string Timestamp(int boot) {
  return StringPrintf("2024-05-01-03-%02d-05", boot);
}

class ArchiveBootsTest : public ::testing::TestWithParam<std::string> {};

// The members of archive |path|, or the error text of a listing that failed.
std::string Members(const std::string& path) {
  const CommandResult list = RunCommand({"tar", "-tzf", path});
  return list.status == 0 ? list.out : "error: " + list.err;
}

std::string ArchiveMembers(const std::string& name) {
  return name + "/\n" + name + "/db.00.tar.gz\n" + name + "/last_kmsg.txt\n";
}

TEST_P(ArchiveBootsTest, BootsInARowNumberCompressAndRotate) {
  Device device;
  const std::string dir = device.Path("mnt/vendor/zq_log/panic_log/");
  std::string previous;
  for (int boot = 0; boot <= 6; ++boot) {
    SCOPED_TRACE(boot);
    device.Panic();
    const CommandResult result =
        device.Boot(GetParam(), StringPrintf("@2024-05-01 03:%02d:05", boot));
    ASSERT_EQ(result.status, 0) << result.err;
    ASSERT_EQ(device.Prop(kStatus), "1");

    const std::string name = StringPrintf("ZQpanic_%d_", boot) + Timestamp(boot);
    EXPECT_EQ(device.Prop("vendor.zq_dump.last_panic_log"), name);
    std::vector<std::string> expected;
    for (int kept = std::max(0, boot - 4); kept < boot; ++kept) {
      expected.push_back(StringPrintf("ZQpanic_%d_", kept) + Timestamp(kept) + ".tar.gz");
    }
    expected.push_back(name);
    expected.push_back(name + ".tar.gz");
    EXPECT_EQ(Entries(dir), expected);
    EXPECT_EQ(Entries(dir + name), (std::vector<std::string>{"db.00.tar.gz", "last_kmsg.txt"}));
    EXPECT_EQ(fs::status(dir + name).permissions(), fs::perms(0770));
    EXPECT_EQ(fs::status(dir + name + ".tar.gz").permissions(), fs::perms(0770));
    // The previous boot's directory, compressed again by this boot's rotation, is whole.
    if (!previous.empty()) {
      EXPECT_EQ(Members(dir + previous + ".tar.gz"), ArchiveMembers(previous));
    }
    previous = name;
    fs::remove_all(device.Path("data/vendor/aee_exp/db.00"));
  }

  const std::string newest = dir + previous;
  const std::string members = Members(newest + ".tar.gz");
  if (GetParam() == "host") {
    EXPECT_EQ(members, ArchiveMembers(previous));
  } else {
    // toybox's tar returns while its gzip child still writes, and the end of the run takes that
    // child with it, as init does with a service's process group: the phone's userland may leave
    // the newest archive cut short. Its directory beside it is whole and is compressed again
    // on the next boot, as checked for every earlier boot above.
    EXPECT_TRUE(members == ArchiveMembers(previous) ||
                members.find("unexpected end of file") != std::string::npos)
        << members;
  }
  // The newest evidence, byte for byte, in the newest archive directory.
  std::string staged, archived;
  ASSERT_TRUE(android::base::ReadFileToString(
      device.Path("data/vendor/dump_collect/panic_log_" + Timestamp(6) + "/last_kmsg.txt"),
      &staged));
  ASSERT_TRUE(android::base::ReadFileToString(newest + "/last_kmsg.txt", &archived));
  EXPECT_EQ(staged, archived);
  EXPECT_EQ(Entries(device.Path("data/vendor/dump_collect")),
            (std::vector<std::string>{"panic_log_" + Timestamp(5), "panic_log_" + Timestamp(6)}));
}

INSTANTIATE_TEST_SUITE_P(Userlands, ArchiveBootsTest, ::testing::Values("host", "android"));

TEST(ArchiveBootTest, TheArchiveTimeComesFromTheLastDumpProperty) {
  // Staging fails on a file in its way, so the property keeps the value planted here.
  const std::pair<std::optional<std::string>, std::string> cases[] = {
      {std::nullopt, "ZQpanic_0_log"},
      {"panic_log_", "ZQpanic_0_2024-05-01-03-04-05"},
      {"panic", "ZQpanic_0_2024-05-01-03-04-05"},
      {"a_b_c", "ZQpanic_0_c"},
  };
  for (const auto& [value, name] : cases) {
    SCOPED_TRACE(value.value_or("(unset)"));
    Device device;
    device.Panic();
    if (value) device.SetProp("vendor.zq_dump.last_dump", *value);
    Touch(device.Path("data/vendor/dump_collect/panic_log_2024-05-01-03-04-05"));
    const CommandResult boot = device.Boot("host", "@2024-05-01 03:04:05");
    ASSERT_EQ(boot.status, 0) << boot.err;

    const std::string path = "/mnt/vendor/zq_log/panic_log/" + name + "/";
    EXPECT_TRUE(Contains(device.Log(), "[Panic]copy_panic_log: cp -r /data/vendor/dump_collect/" +
                                           value.value_or("panic_log") + "/* " + path));
    EXPECT_TRUE(fs::is_directory(device.Path("mnt" + path.substr(4))));
    const bool extracted = boot.out.find("Extracted date and time: ") != std::string::npos;
    EXPECT_EQ(extracted, name.find("2024") == std::string::npos) << boot.out;
    EXPECT_EQ(device.Prop(kStatus), "1");
  }
}

TEST(ArchiveBootTest, AReadOnlyLogPartitionIsReportedAndTheRunEnds) {
  Device device;
  device.Panic();
  const CommandResult boot = device.Boot("host", "", {}, {"--read-only", "mnt/vendor/zq_log"});
  ASSERT_EQ(boot.status, 0) << boot.err;
  const std::vector<std::string> log = device.Log();
  EXPECT_TRUE(Contains(log, "Cannot create: /mnt/vendor/zq_log/panic_log/ errgeneric:30"));
  EXPECT_TRUE(Contains(log,
                       "[Panic]prepare_type_log_and_dir: zq_create_dir_str fail create: "
                       "/mnt/vendor/zq_log/panic_log/"));
  EXPECT_TRUE(Contains(log, "[Panic]copy_to_zq_log: prepare_type_log_dir failed, result: -1"));
  for (const std::string& line : log) {
    EXPECT_EQ(line.find("cp -r"), std::string::npos) << "nothing may be copied: " << line;
  }
  EXPECT_EQ(device.Prop(kStatus), "1");
}

TEST(ArchiveBootTest, AnEntryThatCannotBeRemovedStopsTheRotation) {
  Device device;
  device.Panic();
  const std::string stuck = "mnt/vendor/zq_log/panic_log/stuck";
  ASSERT_TRUE(fs::create_directories(device.Path(stuck)));
  Touch(device.Path(stuck + "/file"));
  const CommandResult boot = device.Boot("host", "", {}, {"--read-only", stuck});
  ASSERT_EQ(boot.status, 0) << boot.err;
  const std::vector<std::string> log = device.Log();
  EXPECT_TRUE(Contains(log,
                       "[Panic]prepare_type_log_and_dir: remove_old_and_trash_file failed!, "
                       "prefix: ZQpanic_ ,new_log_count: 0"));
  EXPECT_TRUE(Contains(log, "[Panic]copy_to_zq_log: prepare_type_log_dir failed, result: -1"));
  EXPECT_TRUE(fs::exists(device.Path(stuck + "/file")));
  EXPECT_EQ(device.Prop(kStatus), "1");
}

TEST(ArchiveBootTest, AnEmptyCountFieldEndsTheRunAbnormally) {
  Device device;
  device.Panic();
  fs::create_directories(device.Path("mnt/vendor/zq_log/panic_log"));
  Touch(device.Path("mnt/vendor/zq_log/panic_log/ZQpanic__x"));
  EXPECT_NE(device.Boot("host").status, 0);
  EXPECT_EQ(device.Prop(kStatus), "running");
  EXPECT_TRUE(fs::exists(device.Path("mnt/vendor/zq_log/panic_log/ZQpanic__x")));
}

}  // namespace
