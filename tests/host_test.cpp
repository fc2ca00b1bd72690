// The workstation's property area and journal behave as the phone's and lose no byte.
#include <cutils/properties.h>

#include <android-base/test_utils.h>
#include <gtest/gtest.h>

#include "in_process.h"
#include "journal.h"

namespace {

TEST(HostTest, PropertiesAreCutRefusedAndDefaultedAsOnThePhone) {
  InProcessPlatform platform;
  const std::string v91(91, 'v');
  char value[PROP_VALUE_MAX];
  EXPECT_EQ(property_get("p", value, (v91 + "v").c_str()), 91) << "an unset one, the default";
  ASSERT_TRUE(android::base::WriteStringToFile(v91 + "vvv", platform.AreaPath("p")));
  EXPECT_EQ(property_get("p", value, ""), 91);
  EXPECT_EQ(value, v91);
  ASSERT_EQ(property_set("p", ""), 0);
  EXPECT_EQ(property_get("p", value, "dflt"), 4) << "an empty one, the default";

  ASSERT_EQ(property_set("p", "old"), 0);
  EXPECT_EQ(property_set("p", (v91 + "v").c_str()), -1);
  EXPECT_EQ(platform.Prop("p"), "old") << "a refused value leaves the old one";
  EXPECT_FALSE(platform.LastOk()) << "and is logged as refused";
  EXPECT_EQ(property_set("p", v91.c_str()), 0);
  EXPECT_EQ(property_set("../p", "v"), -1);
  EXPECT_EQ(Entries(platform.AreaPath("")), std::vector<std::string>{"p"}) << "no temporary left";
  setenv("HOST_PROPERTY_DIR", platform.AreaPath("missing").c_str(), 1);
  EXPECT_EQ(property_set("p", "v"), -1);
}

TEST(HostTest, TheJournalKeepsEveryByteOrFallsBackToStderr) {
  std::string all;
  for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
  EXPECT_EQ(host::JournalUnescape(host::JournalEscape(all)), all);
  EXPECT_EQ(host::JournalEscape("\"\\\n\t\x01\x1f\xe9\xff/\x7f"),
            "\\\"\\\\\\n\\t\\u0001\\u001f\\u00e9\\u00ff/\x7f");

  InProcessPlatform platform;
  setenv("HOST_JOURNAL", "/nonexistent/journal", 1);
  CapturedStderr captured;
  host::JournalLog(3, 6, "tag", "it failed");
  EXPECT_EQ(property_set("p", "v"), 0) << "a missing journal does not affect properties";
  captured.Stop();
  EXPECT_EQ(captured.str(), "E/tag(" + std::to_string(getpid()) + "): it failed\n");
}

}  // namespace
