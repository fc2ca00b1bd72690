// Which line of the exception record becomes the restart reason, read back from the property.
#include <cutils/properties.h>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "device.h"
#include "staging.h"

namespace {

TEST(StagingParseTest, RestartReasonIsTheFirstKeAtLineUpToItsComma) {
  InProcessPlatform platform;
  TemporaryDir db;
  const std::pair<std::string, std::string> cases[] = {
      {"abc KE at xyz,def,ghi\n", "KE at xyz"},
      {"head\nKE at first,a\nKE at second,b\n", "KE at first"},
      {"prefix, KE at pc,lr", "KE at pc"},
      {"KE at cr\r\n", "KE at cr\r"},
      {"KE at", "KE at"},
      {"ke at lower\nKE  at two blanks\nKE\n", "old"},
      {"KE at " + std::string(90, 'x'), "old"},  // too long for a property: not stored
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
