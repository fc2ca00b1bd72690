// Archive names parsed to their limits and category indexes refused, here and on the phone.
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "archive.h"

namespace {

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

// Callers see only "not 0"; -22 is what the units promise anyone else who calls them.
TEST(LogTypeIndexTest, FiveAndAboveAreInvalid) {
  for (const unsigned int type : {5U, 100U, 4294967295U}) {
    EXPECT_EQ(prepare_type_log_and_dir(type), -22) << type;
    EXPECT_EQ(create_type_new_zq_log_dir(type), -22) << type;
  }
}

}  // namespace
