// The run driver end to end: one boot of a simulated phone in the sandbox, judged by what a
// platform engineer would look at: the status protocol, the log and the files.
#include <filesystem>
#include <string>

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "device.h"

namespace {

namespace fs = std::filesystem;

const char kStatus[] = "vendor.minidump.cp.status";
const char kRamdump[] = "vendor.debug.mtk.aeev.ramdump";
const char kInProgress[] = "Ramdump(mrdump) in progress, waiting for 10 seconds...";

// The milliseconds of the "Time taken: " line, or -1.
long long TimeTaken(const std::vector<std::string>& log) {
  for (const std::string& line : log) {
    if (android::base::StartsWith(line, "Time taken: ") && android::base::EndsWith(line, " ms")) {
      return std::stoll(line.substr(12));
    }
  }
  return -1;
}

size_t CountOf(const std::vector<std::string>& log, const std::string& line) {
  return std::count(log.begin(), log.end(), line);
}

std::vector<std::string> StagingFolders(const Device& device) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(device.Path("data/vendor/dump_collect"))) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class FinishedDumpTest : public ::testing::TestWithParam<std::string> {};

TEST_P(FinishedDumpTest, RunsEveryStageAndEndsWithStatusOne) {
  Device device;
  device.Panic({"--cbt"});
  const CommandResult boot = device.Boot(GetParam(), "@2024-05-01 03:04:05");
  ASSERT_EQ(boot.status, 0) << boot.err;

  EXPECT_EQ(device.Sets(kStatus), (std::vector<std::string>{"wait", "running", "1"}));
  EXPECT_EQ(device.Gets(kRamdump), 1u) << "a finished dump is read once";
  const std::vector<std::string> log = device.Log();
  EXPECT_EQ(log.front(), "zq_mrdump_collect start!!");
  EXPECT_EQ(CountOf(log, kInProgress), 0u);
  EXPECT_TRUE(Contains(log, "Ramdump completed."));
  EXPECT_TRUE(Contains(log, "Get vendor.debug.mtk.aeev.ramdump is done"));
  const long long ms = TimeTaken(log);
  EXPECT_GE(ms, 0);
  EXPECT_LT(ms, 10000) << "no poll interval may be slept when the dump is done";

  // Zero-padded month, day, hour, minute and second, one "_" after "panic_log".
  EXPECT_EQ(StagingFolders(device), std::vector<std::string>{"panic_log_2024-05-01-03-04-05"});
  EXPECT_EQ(device.Prop("vendor.zq_dump.last_dump"), "panic_log_2024-05-01-03-04-05");
  EXPECT_EQ(device.Prop("vendor.minidump.need_upload"), "1");
  EXPECT_EQ(device.Prop(kStatus), "1");

  for (const JournalRecord& r : device.Journal()) {
    if (r.ev != "log") continue;
    EXPECT_EQ(r.buf, "system") << r.msg;
    EXPECT_EQ(r.tag, "zq_mrdump_collect") << r.msg;
  }
}

INSTANTIATE_TEST_SUITE_P(Userlands, FinishedDumpTest, ::testing::Values("host", "android"));

TEST(RunDriverTest, UnexpectedRamdumpValueEndsTheRunEarly) {
  for (const std::optional<std::string>& value :
       {std::optional<std::string>(), std::optional<std::string>("Done"),
        std::optional<std::string>("done "), std::optional<std::string>("dumping_"),
        std::optional<std::string>("1")}) {
    SCOPED_TRACE(value.value_or("(unset)"));
    Device device;
    device.Panic();
    device.SetProp(kRamdump, value.value_or(""));
    const CommandResult boot = device.Boot("host");
    ASSERT_EQ(boot.status, 0) << boot.err;

    EXPECT_EQ(device.Sets(kStatus), (std::vector<std::string>{"wait", "not_valid", "1"}));
    EXPECT_EQ(device.Gets(kRamdump), 1u);
    const std::vector<std::string> log = device.Log();
    EXPECT_TRUE(Contains(log, "Unexpected property value: " + value.value_or("")));
    EXPECT_TRUE(Contains(log, "mrdump is not dumping or done."));
    EXPECT_GE(TimeTaken(log), 0);
    EXPECT_TRUE(StagingFolders(device).empty()) << "nothing may be staged";
    EXPECT_EQ(device.Prop("vendor.minidump.need_upload"), std::nullopt);
  }
}

TEST(RunDriverTest, DumpInProgressIsPolledUntilDone) {
  Device device;
  device.Panic({"--dumping", "20"});  // served "dumping" twice through a FIFO, then "done"
  ASSERT_TRUE(fs::is_fifo(device.Path(std::string("properties/") + kRamdump)));
  const CommandResult boot = device.Boot("host", "x100");
  ASSERT_EQ(boot.status, 0) << boot.err;

  EXPECT_EQ(device.Gets(kRamdump), 3u);
  const std::vector<std::string> log = device.Log();
  EXPECT_EQ(CountOf(log, kInProgress), 2u);
  EXPECT_TRUE(Contains(log, "Ramdump completed."));
  EXPECT_EQ(device.Sets(kStatus), (std::vector<std::string>{"wait", "running", "1"}));
  EXPECT_GE(TimeTaken(log), 20000);
}

TEST(RunDriverTest, DumpThatNeverFinishesTimesOutAfterThirtyPolls) {
  Device device;
  device.Panic();
  device.SetProp(kRamdump, "dumping");
  const CommandResult boot = device.Boot("host", "x100");
  ASSERT_EQ(boot.status, 0) << boot.err;

  EXPECT_EQ(device.Gets(kRamdump), 30u) << "no read after the last interval";
  const std::vector<std::string> log = device.Log();
  EXPECT_EQ(CountOf(log, kInProgress), 30u);
  EXPECT_TRUE(Contains(log, "Ramdump timed out."));
  EXPECT_TRUE(Contains(log, "mrdump is not dumping or done."));
  EXPECT_EQ(device.Sets(kStatus), (std::vector<std::string>{"wait", "not_valid", "1"}));
  const long long ms = TimeTaken(log);
  EXPECT_GE(ms, 300000);
  EXPECT_LT(ms, 310000);
}

TEST(RunDriverTest, UploadMarkerIsPublishedOnEveryRun) {
  Device device;
  device.Panic({"--cbt"});
  ASSERT_EQ(device.Boot("host").status, 0);
  EXPECT_EQ(device.Prop("vendor.minidump.need_upload"), "1");

  device.Panic({"--no-cbt"});
  ASSERT_EQ(device.Boot("host").status, 0);
  EXPECT_EQ(device.Prop("vendor.minidump.need_upload"), "0") << "an old \"1\" must be replaced";
}

TEST(RunDriverTest, InheritedLogFilterDoesNotHideProgress) {
  Device device;
  device.Panic();
  ASSERT_EQ(device.Boot("host", "", {{"ANDROID_LOG_TAGS", "*:e"}}).status, 0);
  const std::vector<std::string> log = device.Log();
  EXPECT_TRUE(Contains(log, "zq_mrdump_collect start!!"));
  EXPECT_TRUE(Contains(log, "Ramdump completed."));
}

}  // namespace
