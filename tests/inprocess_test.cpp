// The daemon's operations called in process, on the host layer's property area and journal, where
// a boot cannot reach them: an invalid category, an over-long copy, a command's leftovers.
#include <cutils/properties.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "archive.h"
#include "device.h"
#include "log_types.h"
#include "zq_mrdump_collect.h"

namespace {

TEST(InProcessTest, AnInvalidCategoryIsRefusedAndLoggedUntagged) {
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

TEST(InProcessTest, OnlyTheDefaultFolderHasAFallbackForAnOverlongCopy) {
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
    if (head.size() + value.size() + 3 + path.size() > length) {
      path.replace(path.size() - 2, 2, "/");
    }
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

TEST(InProcessTest, RunCommandWaitsForWhatTheCommandLeftRunningUpToItsBound) {
  InProcessPlatform platform;
  TemporaryDir tmp;
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0) << "as the daemon is";
  // The shell's result is returned once its leftover, as toybox's gzip, has finished writing.
  const std::string file = std::string(tmp.path) + "/archive";
  EXPECT_EQ(RunCommand("(sleep 0.2; echo whole >" + file + ") & exit 3"), 3 << 8);
  EXPECT_EQ(Slurp(file), "whole\n");
  EXPECT_EQ(platform.Log(), std::vector<std::string>{});

  // A leftover that never ends is left behind after the bound, with one line naming the command.
  const std::string pid = std::string(tmp.path) + "/pid";
  const std::string stuck = "sleep 600 & echo $! >" + pid;
  EXPECT_EQ(RunCommand(stuck, std::chrono::seconds(1)), 0);
  EXPECT_EQ(platform.Log(), std::vector<std::string>{
                                stuck + " left a process running after 1 s, going on without it"});
  const pid_t sleeper = std::stoi(Slurp(pid));
  kill(sleeper, SIGKILL);
  waitpid(sleeper, nullptr, 0);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
