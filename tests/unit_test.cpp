// Category indexes refused, here and on the phone.
#include <gtest/gtest.h>

#include "archive.h"

namespace {

// Callers see only "not 0"; -22 is what the units promise anyone else who calls them.
TEST(LogTypeIndexTest, FiveAndAboveAreInvalid) {
  for (const unsigned int type : {5U, 100U, 4294967295U}) {
    EXPECT_EQ(prepare_type_log_and_dir(type), -22) << type;
    EXPECT_EQ(create_type_new_zq_log_dir(type), -22) << type;
  }
}

}  // namespace
