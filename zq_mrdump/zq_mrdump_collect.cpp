// Entry point: waits for the RAM dump to finish, then stages the panic evidence and files it
// into the persistent log partition.
#include "zq_mrdump_collect.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <thread>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>

#include "archive.h"
#include "log_types.h"
#include "staging.h"

namespace {

constexpr char kStatusProperty[] = "vendor.minidump.cp.status";
constexpr char kRamdumpProperty[] = "vendor.debug.mtk.aeev.ramdump";
constexpr char kNeedUploadProperty[] = "vendor.minidump.need_upload";
constexpr char kCbtFile[] = "/mnt/vendor/persist/CBT.txt";
constexpr char kTimestampFormat[] = "%Y-%m-%d-%H-%M-%S";
constexpr char kLogPartition[] = "/mnt/vendor/zq_log/";

constexpr int kRamdumpPolls = 30;
constexpr std::chrono::nanoseconds kRamdumpPollInterval{10'000'000'000};
constexpr unsigned long kStagingFoldersKept = 2;

// Polls the dump property until it leaves "dumping"; true only when it then reads "done".
bool waitForRamdumpCompletion() {
  char value[PROP_VALUE_MAX] = {};
  int remaining = kRamdumpPolls;
  while (true) {
    property_get(kRamdumpProperty, value, "");
    if (std::string(value) != "dumping") break;
    LOG(INFO) << "Ramdump(mrdump) in progress, waiting for 10 seconds...\n";
    std::this_thread::sleep_for(kRamdumpPollInterval);
    // A dump that finishes during the last interval still times out: no read after it.
    if (--remaining == 0) {
      LOG(ERROR) << "Ramdump timed out.\n";
      property_set(kStatusProperty, "not_valid");
      return false;
    }
  }
  if (std::string(value) == "done") {
    LOG(INFO) << "Ramdump completed.\n";
    return true;
  }
  LOG(ERROR) << "Unexpected property value: " << value << "\n";
  property_set(kStatusProperty, "not_valid");
  return false;
}

// Makes durable what this run staged: the files of its staging folder, the folder, and the
// staging root's entries (the new folder, those retention removed). Only these: a syncfs of
// /data would write back every process's data at the boot's busiest moment.
void SyncStaged() {
  namespace fs = std::filesystem;
  std::error_code error;
  if (!fs::exists(gDumpCollectDir, error)) return;  // nothing of this run there
  if (fs::is_directory(gPanicLogDir, error)) {
    for (fs::directory_iterator it(gPanicLogDir, error); !error && it != fs::directory_iterator();
         it.increment(error)) {
      std::error_code ignored;
      if (fs::is_regular_file(it->symlink_status(ignored))) SyncToDisk(it->path());
    }
    SyncToDisk(gPanicLogDir);
  }
  SyncToDisk(gDumpCollectDir);
}

// Publishes whether the upload marker can be opened; its contents never matter.
void checkCBTFile() {
  std::ifstream marker(kCbtFile);
  const bool exists = !marker.fail() && !marker.bad();
  gCbtFileExists = exists;
  property_set(kNeedUploadProperty, exists ? "1" : "0");
}

}  // namespace

std::string GetCurrentTimestamp() {
  const time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  struct tm local = {};
  localtime_r(&now, &local);
  std::ostringstream text;
  text << std::put_time(&local, kTimestampFormat);
  return text.str();
}

int RunCommand(const std::string& command, std::chrono::milliseconds bound) {
  const int result = system(command.c_str());
  // toybox's tar returns while its gzip still writes the archive; init would kill that gzip with
  // the service's process group when the run ends, so whatever the command left is waited for.
  sigset_t child_exit;
  sigset_t previous;
  sigemptyset(&child_exit);
  sigaddset(&child_exit, SIGCHLD);
  sigprocmask(SIG_BLOCK, &child_exit, &previous);
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (true) {
    const pid_t pid = waitpid(-1, nullptr, WNOHANG);
    if (pid > 0) continue;
    if (pid < 0) break;  // none left
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) {
      LOG(WARNING) << command << " left a process running after "
                   << std::chrono::duration_cast<std::chrono::seconds>(bound).count()
                   << " s, going on without it";
      break;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const struct timespec timeout = {seconds.count(),
                                     std::chrono::nanoseconds(left - seconds).count()};
    // Blocked, a SIGCHLD stays pending until taken here: no exit between the checks is missed.
    sigtimedwait(&child_exit, nullptr, &timeout);
  }
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  return result;
}

bool SyncToDisk(const std::string& path, bool whole_file_system) {
  const android::base::unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd.get() < 0 || (whole_file_system ? syncfs(fd.get()) : fsync(fd.get())) != 0) {
    PLOG(ERROR) << (whole_file_system ? "syncfs " : "fsync ") << path;
    return false;
  }
  return true;
}

std::string getCurrentTimeFormatted() {
  const time_t now = time(nullptr);
  const struct tm* local = localtime(&now);  // not re-entrant; the daemon has one thread
  char text[64] = {};
  (void)strftime(text, sizeof(text), kTimestampFormat, local);
  return text;
}

int main(int /*argc*/, char** argv) {
  // Overrides whatever the service inherited, so that INFO progress is never filtered out.
  setenv("ANDROID_LOG_TAGS", "*:d", 1);
  android::base::InitLogging(argv, android::base::LogdLogger(android::base::SYSTEM),
                             android::base::DefaultAborter);
  LOG(INFO) << "zq_mrdump_collect start!!";
  // Orphans of the shell commands come to the daemon, so that RunCommand can wait for them.
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    PLOG(WARNING) << "prctl(PR_SET_CHILD_SUBREAPER)";
  }
  property_set(kStatusProperty, "wait");
  const auto start = std::chrono::steady_clock::now();

  if (waitForRamdumpCompletion()) {
    LOG(INFO) << "Get vendor.debug.mtk.aeev.ramdump is done";
    gCurrentTimestamp = GetCurrentTimestamp();
    gPanicLogDir = gPanicLogDir + "_" + gCurrentTimestamp;
    property_set(kStatusProperty, "running");
    checkCBTFile();
    // Each stage runs whatever the one before it did; failures are logged where they happen.
    copy_to_dump_collect();
    LimitFolderNum(std::filesystem::path(gDumpCollectDir), kStagingFoldersKept);
    copy_to_zq_log();
    // A panic reboots without writing back the page cache: the final "1" means that what this
    // run staged and filed is on disk. The log partition is the daemon's alone: all of it.
    SyncStaged();
    std::error_code missing;
    if (std::filesystem::exists(kLogPartition, missing)) SyncToDisk(kLogPartition, true);
  } else {
    LOG(INFO) << "mrdump is not dumping or done.";
  }

  const auto end = std::chrono::steady_clock::now();
  const int64_t elapsed_ns = std::chrono::nanoseconds(end - start).count();
  LOG(INFO) << "Time taken: " << elapsed_ns / 1'000'000 << " ms" << std::endl;
  property_set(kStatusProperty, "1");
  return 0;
}
