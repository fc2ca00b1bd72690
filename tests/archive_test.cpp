// The archive's name grammar, counting, rotation and guards, in process on category directories
// of a temporary folder.
#include <cutils/properties.h>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "archive.h"
#include "device.h"
#include "log_types.h"

namespace {

TEST(ArchiveNameTest, CountIsTheMiddleOfThreeFieldsWhenAllDigits) {
  InProcessPlatform platform;
  const std::pair<const char*, long long> cases[] = {
      {"ZQpanic_0_log", 0},
      {"ZQpanic_007_x", 7},
      {"ZQpanic_10_y.tar.gz", 10},
      {"ZQboot_1_x.tar.gz", 1},
      {"ZQpanic_x_2024.tar.gz", -1},
      {"ZQpanic_-1_x", -1},
      {"ZQpanic_3_2024_05.tar.gz", -1},
      {"README", -1},
      {"ZQpanic_9223372036854775807_x", 9223372036854775807LL},
  };
  for (const auto& [name, count] : cases)
    EXPECT_EQ(get_boot_count_by_file_name(name), count) << name;
  EXPECT_TRUE(InOrder(platform.Log(), {"error file name ZQpanic_x_2024.tar.gz ret.size() 3",
                                       "error file name ZQpanic_3_2024_05.tar.gz ret.size() 4",
                                       "error file name README ret.size() 1"}));
  // Unguarded on purpose: these end a run.
  EXPECT_THROW(get_boot_count_by_file_name("ZQpanic__x"), std::invalid_argument);
  EXPECT_THROW(get_boot_count_by_file_name("ZQpanic_9223372036854775808_x"), std::out_of_range);
}

TEST(ArchiveRotationTest, BootKeepsTenArchives) {
  InProcessPlatform platform;
  TemporaryDir tmp;
  const std::string dir = std::string(tmp.path) + "/";
  for (int n = 0; n <= 11; ++n) {
    ASSERT_TRUE(android::base::WriteStringToFile(
        "", dir + android::base::StringPrintf("ZQboot_%d_t.tar.gz", n)));
  }
  const LogType& boot = kLogTypes[0];
  const int next = get_new_zq_log_count(dir, boot.prefix);
  ASSERT_EQ(next, 12);
  EXPECT_EQ(remove_old_and_trash_file(next, dir, boot.prefix, boot.max_log_num), 0);
  EXPECT_EQ(Entries(dir).size(), 9u) << "nine kept; the archive of the run makes ten";
}

TEST(ArchiveCategoryTest, AnInvalidIndexIsRefusedUntagged) {
  for (const unsigned int type : {5U, 100U, 4294967295U}) {
    SCOPED_TRACE(type);
    InProcessPlatform platform;
    const std::string suffix = ": error core_log_type: " + std::to_string(type);
    EXPECT_EQ(prepare_type_log_and_dir(type), -22);
    EXPECT_EQ(create_type_new_zq_log_dir(type), -22);
    clean_type_log_and_dir(type);
    copy_panic_log(type);
    EXPECT_EQ(platform.Log(),
              (std::vector<std::string>{
                  "prepare_type_log_and_dir" + suffix, "create_type_new_zq_log_dir" + suffix,
                  "clean_type_log_and_dir" + suffix, "copy_panic_log" + suffix}));
  }
}

TEST(ArchiveCopyTest, OnlyTheDefaultFolderHasAFallbackForAnOverlongCommand) {
  InProcessPlatform platform;
  TemporaryDir target;
  const std::string head = "cp -r /data/vendor/dump_collect/";
  const std::tuple<std::string, size_t, bool> cases[] = {
      {"panic_log", 511, false},
      {"panic_log", 512, true},
      {"panic_log_2024-05-01-03-04-05", 512, false}};
  for (const auto& [value, length, fallback] : cases) {
    SCOPED_TRACE(value + " " + std::to_string(length));
    ASSERT_EQ(property_set("vendor.zq_dump.last_dump", value.c_str()), 0);
    // A real folder, its path padded with "./" to give the command the length wanted.
    std::string path = std::string(target.path) + "/";
    while (head.size() + value.size() + 3 + path.size() < length) path += "./";
    if (head.size() + value.size() + 3 + path.size() > length)
      path.replace(path.size() - 2, 2, "/");
    kLogTypes[4].new_log_path = path;
    const std::string command = head + value + "/* " + path;
    ASSERT_EQ(command.size(), length);
    const size_t before = platform.Log().size();
    copy_panic_log(4);
    const std::vector<std::string> log = platform.Log();
    std::vector<std::string> expected;
    if (fallback) expected.push_back(command + " exceed 512 length, using default path");
    // The fallback names the same default folder; both are cut to the 511 the buffer holds.
    expected.push_back("[Panic]copy_panic_log: " + command.substr(0, 511));
    EXPECT_EQ(std::vector<std::string>(log.begin() + static_cast<long>(before), log.end()),
              expected);
  }
  kLogTypes[4].new_log_path.clear();
}

}  // namespace
