// The workstation's property area and journal, which every other test reads back through: they
// must behave as the phone's property service and logd do, and lose no byte.
#include <cutils/properties.h>
#include <sys/stat.h>

#include <android-base/test_utils.h>
#include <gtest/gtest.h>

#include "device.h"
#include "journal.h"

namespace {

TEST(HostTest, PropertiesAreCutRefusedAndDefaultedAsOnThePhone) {
  InProcessPlatform platform;
  const std::string long_value(120, 'v');
  // What is stored, or unset; the default; what property_get gives.
  const std::tuple<std::optional<std::string>, const char*, std::string> gets[] = {
      {std::nullopt, nullptr, ""},
      {"", "dflt", "dflt"},
      {long_value, "", long_value.substr(0, 91)},
      {std::nullopt, long_value.c_str(), long_value.substr(0, 91)}};
  for (const auto& [stored, default_value, expected] : gets) {
    SCOPED_TRACE(stored.value_or("(unset)"));
    unlink(platform.AreaPath("p").c_str());
    ASSERT_TRUE(!stored || android::base::WriteStringToFile(*stored, platform.AreaPath("p")));
    char value[PROP_VALUE_MAX];
    memset(value, 'x', sizeof(value));
    EXPECT_EQ(property_get("p", value, default_value), static_cast<int>(expected.size()));
    EXPECT_EQ(value, expected);
  }

  ASSERT_EQ(property_set("p", "old"), 0);
  EXPECT_EQ(property_set("p", std::string(92, 'v').c_str()), -1);
  EXPECT_EQ(platform.Prop("p"), "old") << "a refused value leaves the old one";
  EXPECT_EQ(property_set("p", std::string(91, 'v').c_str()), 0);
  EXPECT_EQ(property_set("../p", "v"), -1);
  EXPECT_EQ(Entries(platform.AreaPath("")), std::vector<std::string>{"p"}) << "no temporary left";
  const std::vector<Record> journal = ReadJournal(getenv("HOST_JOURNAL"));
  EXPECT_TRUE(journal.size() > 3 && !journal[journal.size() - 3].ok) << "the refusal is logged";
  setenv("HOST_PROPERTY_DIR", platform.AreaPath("missing").c_str(), 1);
  EXPECT_EQ(property_set("p", "v"), -1);
}

TEST(HostTest, TheJournalKeepsEveryByteOrFallsBackToStderr) {
  std::string all;
  for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
  EXPECT_EQ(host::JournalUnescape(host::JournalEscape(all)), all);
  const std::pair<std::string, std::string> escapes[] = {{"\"\\", "\\\"\\\\"},
                                                         {"\n\t", "\\n\\t"},
                                                         {"\x01\x1f", "\\u0001\\u001f"},
                                                         {"\xe9\xff", "\\u00e9\\u00ff"},
                                                         {"a/b\x7f", "a/b\x7f"}};
  for (const auto& [raw, escaped] : escapes) EXPECT_EQ(host::JournalEscape(raw), escaped);

  InProcessPlatform platform;
  setenv("HOST_JOURNAL", "/nonexistent/journal", 1);
  CapturedStderr captured;
  host::JournalLog(3, 6, "tag", "it failed");
  EXPECT_EQ(property_set("p", "v"), 0) << "a missing journal does not affect properties";
  captured.Stop();
  EXPECT_EQ(captured.str(), "E/tag(" + std::to_string(getpid()) + "): it failed\n");
}

}  // namespace
