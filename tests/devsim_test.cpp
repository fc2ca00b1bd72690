// The simulator's refusals: one line naming the value at fault, exit 2, the phone as it was.
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "device.h"

namespace {

// The device root's files and folders, their modes, sizes, times and contents; not the lock.
std::string Snapshot(const std::string& root) {
  return Run({"sh", "-c",
              R"(find "$1" ! -name lock -printf '%p %M %s %T@\n' -type f -exec cat {} +)", "sh",
              root})
      .out;
}

TEST(SimulatorTest, RefusesInOneLineAndChangesNothing) {
  Device device;
  device.Panic();
  const std::string root = device.Path("").substr(0, device.Path("").size() - 1);
  const struct {
    std::vector<std::string> argv;
    const char* says;
  } refusals[] = {
      {{"init", ""}, "an empty DIR"},
      {{"init", device.Path("data/vendor"), "--force"}, "is not a device root"},
      {{"setprop", root, "vendor." + std::string(300, 'a'), "v"}, "of 307 bytes"},
      {{"setprop", root, "vendor..x", "v"}, "'vendor..x'"},
      {{"panic", root, "--db-size", "999999999"}, "999999999 KiB of database"},
      {{"boot", root, "--tmpfs", "data/vendor/aee_exp/last_kmsg.txt", "100"},
       "not 'data/vendor/aee_exp/last_kmsg.txt'"},
      {{"boot", root, "--slow-gzip", "0"}, "not '0'"},
      {{"boot", root, "--on-disk", "committed", "--power-cut", "end"}, "ext4"},
      {{"pull", root, "/vendor/bin/zq_mrdump_collect", device.Path("../x")}, "'/vendor/bin/"},
      {{"pull", root, "/data", device.Path("data/x")}, "inside the phone"},
      {{"boot", root, "--init-script", device.Path("data")}, "is none"},
      {{"flock", device.Path(".devsim/lock"), ZQ_DEVSIM, "boot", root}, "is busy"},
  };
  const std::string before = Snapshot(root);
  for (const auto& [argv, says] : refusals) {
    std::vector<std::string> command = argv;
    if (command.front() != "flock") command.insert(command.begin(), ZQ_DEVSIM);
    const Result result = ::Run(command, {{"ZQ_MRDUMP_COLLECT", ZQ_MRDUMP_COLLECT}});
    const std::string line = android::base::Join(command, " ");
    EXPECT_EQ(result.status, 2) << line;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << line << result.err;
    EXPECT_NE(result.err.find(says), std::string::npos) << line << ": " << result.err;
    EXPECT_EQ(Snapshot(root), before) << line;
  }
}

}  // namespace
