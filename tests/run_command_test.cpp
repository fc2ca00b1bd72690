// The bound on waiting for what a command leaves running, which a boot reaches only after a minute.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "in_process.h"
#include "zq_mrdump_collect.h"

namespace {

TEST(RunCommandTest, LeavesAStuckLeftoverBehindAfterItsBound) {
  InProcessPlatform platform;
  TemporaryDir tmp;
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0) << "as the daemon is";
  // One line names the command whose leftover never ends, and the run goes on.
  const std::string pid = std::string(tmp.path) + "/pid";
  const std::string stuck = "sleep 600 & echo $! >" + pid;
  EXPECT_EQ(RunCommand(stuck, std::chrono::seconds(1)), 0);
  EXPECT_EQ(platform.Log(), std::vector<std::string>{
                                stuck + " left a process running after 1 s, going on without it"});
  const pid_t sleeper = std::stoi(Read(pid).value_or(""));
  kill(sleeper, SIGKILL);
  waitpid(sleeper, nullptr, 0);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
