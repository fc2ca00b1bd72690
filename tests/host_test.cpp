// The workstation's property area and journal, in process: what the simulator and every other
// test read back depends on them behaving as the phone's property service and logd do.
#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/test_utils.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "device.h"
#include "journal.h"

namespace {

class HostLayerTest : public ::testing::Test {
 protected:
  std::string Get(const char* name, const char* default_value, int* length = nullptr) {
    char value[PROP_VALUE_MAX];
    memset(value, 'x', sizeof(value));
    const int n = property_get(name, value, default_value);
    if (length != nullptr) *length = n;
    return value;
  }
  std::string File(const std::string& name) { return platform_.AreaPath(name); }
  std::vector<JournalRecord> Journal() { return platform_.Journal(); }

  InProcessPlatform platform_;
};

TEST_F(HostLayerTest, GetCutsValuesAndFallsBackToTheDefault) {
  const std::string long_value(120, 'v');
  struct Case {
    const char* label;
    std::optional<std::string> stored;
    const char* default_value;
    std::string expected;
  } cases[] = {
      {"unset", std::nullopt, "dflt", "dflt"},
      {"unset, no default", std::nullopt, nullptr, ""},
      {"empty counts as unset", "", "dflt", "dflt"},
      {"stored as is, no newline added", "done", "dflt", "done"},
      {"trailing blank kept", "done ", "", "done "},
      {"cut to 91 bytes", long_value, "", long_value.substr(0, 91)},
      {"long default cut too", std::nullopt, long_value.c_str(), long_value.substr(0, 91)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    unlink(File("p").c_str());
    if (c.stored) {
      ASSERT_TRUE(android::base::WriteStringToFile(*c.stored, File("p")));
    }
    int length = -1;
    EXPECT_EQ(Get("p", c.default_value, &length), c.expected);
    EXPECT_EQ(length, static_cast<int>(c.expected.size()));
  }
}

TEST_F(HostLayerTest, SetRefusesWhatThePhoneRefusesAndReplacesAtomically) {
  ASSERT_EQ(property_set("p", "old"), 0);
  EXPECT_EQ(property_set("p", std::string(92, 'v').c_str()), -1);
  EXPECT_EQ(Get("p", ""), "old") << "a refused value must leave the old one";
  ASSERT_EQ(property_set("p", std::string(91, 'v').c_str()), 0);
  EXPECT_EQ(Get("p", ""), std::string(91, 'v'));
  EXPECT_EQ(property_set("../escape", "v"), -1);

  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(File(""))) {
    names.push_back(entry.path().filename());
  }
  EXPECT_EQ(names, std::vector<std::string>{"p"}) << "no temporary file may be left behind";

  const std::vector<JournalRecord> journal = Journal();
  ASSERT_GE(journal.size(), 3u);
  EXPECT_EQ(journal[1].ev, "set");
  EXPECT_EQ(journal[1].value, std::string(92, 'v'));
  EXPECT_FALSE(journal[1].ok);
  EXPECT_TRUE(journal[0].ok);
}

TEST_F(HostLayerTest, SetFailsWhenTheAreaCannotBeWritten) {
  setenv("HOST_PROPERTY_DIR", File("missing").c_str(), 1);
  EXPECT_EQ(property_set("p", "v"), -1);
  EXPECT_EQ(Get("p", "dflt"), "dflt");
}

TEST_F(HostLayerTest, GetReadsAFifoUntilItsWriterCloses) {
  ASSERT_EQ(mkfifo(File("p").c_str(), 0644), 0);
  for (const std::string value : {"dumping", "done"}) {
    // In two pieces: a FIFO has no size, so only a read until end of file gets the whole value.
    std::thread writer([&] {
      android::base::unique_fd fd(open(File("p").c_str(), O_WRONLY | O_CLOEXEC));
      ASSERT_TRUE(android::base::WriteStringToFd(value.substr(0, 3), fd.get()));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ASSERT_TRUE(android::base::WriteStringToFd(value.substr(3), fd.get()));
    });
    EXPECT_EQ(Get("p", "dflt"), value);
    writer.join();
  }
}

TEST_F(HostLayerTest, JournalEscapingKeepsEveryByte) {
  std::string all_bytes;
  for (int b = 1; b < 256; ++b) all_bytes += static_cast<char>(b);
  const std::string escaped = host::JournalEscape(all_bytes);
  EXPECT_EQ(DecodeJournalString(escaped), all_bytes);
  for (const auto& [raw, expected] :
       std::vector<std::pair<std::string, std::string>>{{"\"", "\\\""},
                                                        {"\\", "\\\\"},
                                                        {"\n", "\\n"},
                                                        {"\x01", "\\u0001"},
                                                        {"\x1f", "\\u001f"},
                                                        {"\xe9", "\\u00e9"},
                                                        {"\xff", "\\u00ff"},
                                                        {"a/b", "a/b"}}) {
    EXPECT_EQ(host::JournalEscape(raw), expected) << raw;
  }
}

TEST_F(HostLayerTest, LogRecordsReachTheJournalWithBufferPriorityAndTag) {
  LOG(WARNING) << "caf\xe9 \"quoted\"\ttab";

  const std::vector<JournalRecord> journal = Journal();
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].ev, "log");
  EXPECT_EQ(journal[0].buf, "system");
  EXPECT_EQ(journal[0].prio, "W");
  EXPECT_EQ(journal[0].msg, "caf\xe9 \"quoted\"\ttab");
  EXPECT_EQ(journal[0].pid, getpid());
}

TEST_F(HostLayerTest, WithoutAJournalRecordsGoToStderrInBriefForm) {
  setenv("HOST_JOURNAL", "/nonexistent/dir/journal", 1);
  CapturedStderr captured;
  host::JournalLog(3, 6, "tag", "it failed");
  EXPECT_EQ(property_set("p", "v"), 0) << "a missing journal must not affect properties";
  captured.Stop();
  EXPECT_EQ(captured.str(), "E/tag(" + std::to_string(getpid()) + "): it failed\n");
}

}  // namespace
