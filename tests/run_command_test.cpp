// The runner of the daemon's shell commands, in process: what a command leaves running is waited
// for, within a bound that a boot could only reach by waiting a minute.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "device.h"
#include "zq_mrdump_collect.h"

namespace {

TEST(RunCommandTest, WaitsForWhatTheCommandLeftRunningUpToItsBound) {
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
