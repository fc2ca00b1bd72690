// Preloaded into the daemon by bench/run-sync: right before the daemon's first sync, another
// process leaves 512 MiB of dirty data on /data; then every fsync and syncfs of the daemon is
// timed, with what the block devices wrote while it ran. As the daemon exits, one log record in
// the journal: "syncs=N sync_ms=M written_kib=K dirty_kib=D", D the page cache's dirty data when
// the syncs began (the kernel may have written some of the 512 MiB back by then).
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android/log.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "journal.h"

namespace {

constexpr char kDirtyFile[] = "/data/sync-meter.dirty";
constexpr int kDirtyMiB = 512;

int syncs = 0;
std::chrono::steady_clock::duration syncing{};
long long written_sectors = 0;
long long dirty_kib = 0;

// "Dirty:" of /proc/meminfo, in KiB.
long long DirtyKib() {
  std::ifstream meminfo("/proc/meminfo");
  std::string name;
  long long kib = 0;
  while (meminfo >> name >> kib) {
    if (name == "Dirty:") return kib;
    meminfo.ignore(64, '\n');
  }
  return 0;
}

// Sectors written so far by the loop devices that hold the phone's partitions (/proc/diskstats:
// the tenth field of a line).
long long LoopSectorsWritten() {
  std::ifstream stats("/proc/diskstats");
  long long total = 0;
  std::string line;
  while (std::getline(stats, line)) {
    std::istringstream fields(line);
    std::string major, minor, name;
    long long value = 0;
    fields >> major >> minor >> name;
    for (int field = 4; field <= 10 && fields >> value; ++field) {
    }
    if (name.rfind("loop", 0) == 0) total += value;
  }
  return total;
}

// Another process writes, and leaves its data to the kernel's write-back.
void Dirty() {
  const pid_t writer = fork();
  if (writer == 0) {
    const int fd = open(kDirtyFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const std::vector<char> block(1 << 20, 'x');
    for (int mib = 0; fd >= 0 && mib < kDirtyMiB; ++mib) {
      if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) _exit(1);
    }
    _exit(fd >= 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(writer, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    host::JournalLog(LOG_ID_SYSTEM, ANDROID_LOG_ERROR, "zq-sync-meter", "could not write /data");
  }
}

template <typename Call>
int Measured(Call call) {
  if (syncs == 0) {
    Dirty();
    dirty_kib = DirtyKib();
  }
  const long long sectors = LoopSectorsWritten();
  const auto start = std::chrono::steady_clock::now();
  const int result = call();
  syncing += std::chrono::steady_clock::now() - start;
  written_sectors += LoopSectorsWritten() - sectors;
  ++syncs;
  return result;
}

// The daemon's commands are not measured.
__attribute__((constructor)) void Forget() {
  unsetenv("LD_PRELOAD");
}

__attribute__((destructor)) void Report() {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(syncing).count();
  const std::string report = "syncs=" + std::to_string(syncs) + " sync_ms=" + std::to_string(ms) +
                             " written_kib=" + std::to_string(written_sectors / 2) +
                             " dirty_kib=" + std::to_string(dirty_kib);
  host::JournalLog(LOG_ID_SYSTEM, ANDROID_LOG_INFO, "zq-sync-meter", report.c_str());
}

}  // namespace

extern "C" int fsync(int fd) {
  static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
  return Measured([fd] { return real(fd); });
}

extern "C" int syncfs(int fd) {
  static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "syncfs"));
  return Measured([fd] { return real(fd); });
}
