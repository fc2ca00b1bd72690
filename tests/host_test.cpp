// The workstation's property area and journal, which every other test reads back through: they
// must behave as the phone's property service and logd do, and lose no byte.
#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include <android-base/test_utils.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "device.h"
#include "journal.h"

namespace {

std::string Get(const char* name, const char* default_value, int* length = nullptr) {
  char value[PROP_VALUE_MAX];
  memset(value, 'x', sizeof(value));
  const int n = property_get(name, value, default_value);
  if (length != nullptr) *length = n;
  return value;
}

TEST(HostPropertiesTest, GetCutsToTheLimitAndFallsBackToTheDefault) {
  InProcessPlatform platform;
  const std::string long_value(120, 'v');
  const std::tuple<std::optional<std::string>, const char*, std::string> cases[] = {
      {std::nullopt, "dflt", "dflt"},
      {std::nullopt, nullptr, ""},
      {"", "dflt", "dflt"},
      {"done ", "", "done "},
      {long_value, "", long_value.substr(0, 91)},
      {std::nullopt, long_value.c_str(), long_value.substr(0, 91)},
  };
  for (const auto& [stored, default_value, expected] : cases) {
    SCOPED_TRACE(stored.value_or("(unset)"));
    unlink(platform.AreaPath("p").c_str());
    if (stored) {
      ASSERT_TRUE(android::base::WriteStringToFile(*stored, platform.AreaPath("p")));
    }
    int length = -1;
    EXPECT_EQ(Get("p", default_value, &length), expected);
    EXPECT_EQ(length, static_cast<int>(expected.size()));
  }
}

TEST(HostPropertiesTest, SetRefusesWhatThePhoneRefusesAndReplacesWhole) {
  InProcessPlatform platform;
  ASSERT_EQ(property_set("p", "old"), 0);
  EXPECT_EQ(property_set("p", std::string(92, 'v').c_str()), -1);
  EXPECT_EQ(platform.Prop("p"), "old") << "a refused value leaves the old one";
  EXPECT_EQ(property_set("p", std::string(91, 'v').c_str()), 0);
  EXPECT_EQ(property_set("../p", "v"), -1);
  EXPECT_EQ(Entries(platform.AreaPath("")), std::vector<std::string>{"p"}) << "no temporary left";
  const std::vector<Record> journal = ReadJournal(getenv("HOST_JOURNAL"));
  ASSERT_EQ(journal.size(), 4u);
  EXPECT_EQ(journal[1].value, std::string(92, 'v'));
  EXPECT_FALSE(journal[1].ok);
  EXPECT_TRUE(journal[2].ok);

  setenv("HOST_PROPERTY_DIR", platform.AreaPath("missing").c_str(), 1);
  EXPECT_EQ(property_set("p", "v"), -1);
}

TEST(HostPropertiesTest, GetReadsAFifoUntilItsWriterCloses) {
  InProcessPlatform platform;
  ASSERT_EQ(mkfifo(platform.AreaPath("p").c_str(), 0644), 0);
  // Written in two pieces: a FIFO has no size, so only a read to end of file gets it whole.
  std::thread writer([&] {
    android::base::unique_fd fd(open(platform.AreaPath("p").c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(android::base::WriteStringToFd("dump", fd.get()));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(android::base::WriteStringToFd("ing", fd.get()));
  });
  EXPECT_EQ(Get("p", "dflt"), "dumping");
  writer.join();
}

TEST(HostJournalTest, EveryByteSurvivesEscaping) {
  std::string all;
  for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
  EXPECT_EQ(host::JournalUnescape(host::JournalEscape(all)), all);
  for (const auto& [raw, escaped] :
       std::vector<std::pair<std::string, std::string>>{{"\"\\", "\\\"\\\\"},
                                                        {"\n\t", "\\n\\t"},
                                                        {"\x01\x1f", "\\u0001\\u001f"},
                                                        {"\xe9\xff", "\\u00e9\\u00ff"},
                                                        {"a/b\x7f", "a/b\x7f"}}) {
    EXPECT_EQ(host::JournalEscape(raw), escaped);
  }
}

TEST(HostJournalTest, WithoutAJournalRecordsGoToStderrInBriefForm) {
  InProcessPlatform platform;
  setenv("HOST_JOURNAL", "/nonexistent/journal", 1);
  CapturedStderr captured;
  host::JournalLog(3, 6, "tag", "it failed");
  EXPECT_EQ(property_set("p", "v"), 0) << "a missing journal does not affect properties";
  captured.Stop();
  EXPECT_EQ(captured.str(), "E/tag(" + std::to_string(getpid()) + "): it failed\n");
}

}  // namespace
