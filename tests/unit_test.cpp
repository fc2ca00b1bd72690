// The parses and the rotation's limit: tables that need no simulated phone, built into the
// workstation's tests and into the phone's zq_mrdump_collect_test.
#include <filesystem>
#include <stdexcept>
#include <string>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <gtest/gtest.h>

#include "archive.h"
#include "log_types.h"
#include "staging.h"

namespace {

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
  for (const auto& [value, folder] : cases) EXPECT_EQ(extractKEPath(value), folder) << value;
}

TEST(ArchiveNameTest, CountIsTheMiddleOfThreeFieldsWhenAllDigits) {
  const std::pair<const char*, long long> cases[] = {
      {"ZQpanic_0_log", 0},
      {"ZQpanic_007_x", 7},
      {"ZQpanic_10_y.tar.gz", 10},
      {"ZQboot_1_x.tar.gz", 1},  // the prefix is the caller's test, not this one's
      {"ZQpanic_9223372036854775807_x", 9223372036854775807LL},
      {"ZQpanic_x_2024.tar.gz", -1},
      {"ZQpanic_-1_x", -1},
      {"ZQpanic_3_2024_05.tar.gz", -1},
      {"README", -1},
  };
  for (const auto& [name, count] : cases) {
    EXPECT_EQ(get_boot_count_by_file_name(name), count) << name;
  }
  // Unguarded on purpose: these end a run.
  EXPECT_THROW(get_boot_count_by_file_name("ZQpanic__x"), std::invalid_argument);
  EXPECT_THROW(get_boot_count_by_file_name("ZQpanic_9223372036854775808_x"), std::out_of_range);
}

TEST(ArchiveRotationTest, BootKeepsTenArchives) {
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
  const auto kept = std::distance(std::filesystem::directory_iterator(dir),
                                  std::filesystem::directory_iterator());
  EXPECT_EQ(kept, 9) << "nine kept; the archive of the run makes ten";
}

}  // namespace
