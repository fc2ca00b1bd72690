// zq-power-cut WHEN COMMAND...: runs COMMAND with every process it starts traced, and cuts the
// power as WHEN says: "K", before the K-th system call of them all that changes a file of the
// phone's persistent partitions; "sync:N", right after the N-th call that writes such a file back
// to disk. A cut kills them all at once. With "0" nothing is cut, and every change and sync is
// listed.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>

namespace {

constexpr int kCutStatus = 128 + SIGKILL;

// What a traced call does to the files it names, and where its arguments say which files.
enum class Effect { kWritesFd, kNamesPath, kOpens, kSyncs };
struct Call {
  long nr;
  const char* name;
  Effect effect;
  int fd_arg;     // the descriptor written or synced; for a path, its directory (-1: the cwd)
  int path_arg;   // the path argument, if any
  int flags_arg;  // open's flags: only a create or a truncation changes a file
};

// The calls arm64 lacks, having only their *at forms.
#ifdef SYS_open
#define LEGACY_CALLS                                         \
  {SYS_open, "open", Effect::kOpens, -1, 0, 1},              \
      {SYS_creat, "creat", Effect::kNamesPath, -1, 0, -1},   \
      {SYS_mkdir, "mkdir", Effect::kNamesPath, -1, 0, -1},   \
      {SYS_rmdir, "rmdir", Effect::kNamesPath, -1, 0, -1},   \
      {SYS_unlink, "unlink", Effect::kNamesPath, -1, 0, -1}, \
      {SYS_chmod, "chmod", Effect::kNamesPath, -1, 0, -1},   \
      {SYS_rename, "rename", Effect::kNamesPath, -1, 1, -1}, \
      {SYS_link, "link", Effect::kNamesPath, -1, 1, -1},     \
      {SYS_symlink, "symlink", Effect::kNamesPath, -1, 1, -1},
#else
#define LEGACY_CALLS
#endif

const Call kCalls[] = {
    LEGACY_CALLS{SYS_write, "write", Effect::kWritesFd, 0, -1, -1},
    {SYS_writev, "writev", Effect::kWritesFd, 0, -1, -1},
    {SYS_pwrite64, "pwrite64", Effect::kWritesFd, 0, -1, -1},
    {SYS_pwritev, "pwritev", Effect::kWritesFd, 0, -1, -1},
    {SYS_pwritev2, "pwritev2", Effect::kWritesFd, 0, -1, -1},
    {SYS_sendfile, "sendfile", Effect::kWritesFd, 0, -1, -1},
    {SYS_copy_file_range, "copy_file_range", Effect::kWritesFd, 2, -1, -1},
    {SYS_splice, "splice", Effect::kWritesFd, 2, -1, -1},
    {SYS_ftruncate, "ftruncate", Effect::kWritesFd, 0, -1, -1},
    {SYS_fallocate, "fallocate", Effect::kWritesFd, 0, -1, -1},
    {SYS_fchmod, "fchmod", Effect::kWritesFd, 0, -1, -1},
    {SYS_openat, "openat", Effect::kOpens, 0, 1, 2},
    {SYS_mkdirat, "mkdirat", Effect::kNamesPath, 0, 1, -1},
    {SYS_unlinkat, "unlinkat", Effect::kNamesPath, 0, 1, -1},
    {SYS_fchmodat, "fchmodat", Effect::kNamesPath, 0, 1, -1},
    {SYS_truncate, "truncate", Effect::kNamesPath, -1, 0, -1},
    {SYS_renameat, "renameat", Effect::kNamesPath, 2, 3, -1},
    {SYS_renameat2, "renameat2", Effect::kNamesPath, 2, 3, -1},
    {SYS_linkat, "linkat", Effect::kNamesPath, 2, 3, -1},
    {SYS_symlinkat, "symlinkat", Effect::kNamesPath, 1, 2, -1},
    {SYS_fsync, "fsync", Effect::kSyncs, 0, -1, -1},
    {SYS_fdatasync, "fdatasync", Effect::kSyncs, 0, -1, -1},
    {SYS_syncfs, "syncfs", Effect::kSyncs, 0, -1, -1},
    {SYS_sync, "sync", Effect::kSyncs, -1, -1, -1},
};

std::string Link(pid_t pid, const std::string& name) {
  char target[PATH_MAX] = {};
  const std::string link = "/proc/" + std::to_string(pid) + "/" + name;
  return readlink(link.c_str(), target, sizeof(target) - 1) > 0 ? target : "";
}

// The file behind |pid|'s descriptor |fd|, or its working directory for -1 (AT_FDCWD).
std::string FdTarget(pid_t pid, long long fd) {
  return Link(pid, fd == -1 || fd == AT_FDCWD ? "cwd" : "fd/" + std::to_string(fd));
}

// The path argument at |address| of |pid|'s call, made absolute against |dirfd|; paths are as the
// process sees them, inside the sandbox.
std::string PathArg(pid_t pid, long long dirfd, unsigned long long address) {
  char buffer[PATH_MAX] = {};
  const std::string mem = "/proc/" + std::to_string(pid) + "/mem";
  const int fd = open(mem.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "";
  const ssize_t got = pread(fd, buffer, sizeof(buffer) - 1, static_cast<off_t>(address));
  close(fd);
  const std::string path = got > 0 ? buffer : "";
  if (path.empty() || path[0] == '/') return path;
  return FdTarget(pid, dirfd) + "/" + path;
}

// Only the phone's persistent partitions count: the log and the properties live in memory there.
bool Persistent(const std::string& path) {
  return path.rfind("/data/", 0) == 0 || path.rfind("/mnt/", 0) == 0;
}

// The file of the persistent partitions that the call about to run changes or syncs, or "" when
// it touches none; |call| is set to the call's entry.
std::string Target(pid_t pid, const __ptrace_syscall_info& info, const Call** call) {
  const auto& e = info.entry;
  for (const Call& c : kCalls) {
    if (static_cast<long long>(e.nr) != c.nr) continue;
    *call = &c;
    std::string path;
    if (c.effect == Effect::kWritesFd || (c.effect == Effect::kSyncs && c.fd_arg >= 0)) {
      path = FdTarget(pid, static_cast<long long>(e.args[c.fd_arg]));
    } else if (c.effect == Effect::kSyncs) {
      return "(every file system)";
    } else if (c.effect == Effect::kOpens && (e.args[c.flags_arg] & (O_CREAT | O_TRUNC)) == 0) {
      return "";
    } else {
      const long long dirfd = c.fd_arg < 0 ? -1 : static_cast<int>(e.args[c.fd_arg]);
      path = PathArg(pid, dirfd, e.args[c.path_arg]);
    }
    return Persistent(path) ? path : "";
  }
  return "";
}

struct When {
  unsigned long change = 0;  // cut before this change; 0: no cut
  unsigned long sync = 0;    // cut after this sync; 0: none
};

bool ParseWhen(const char* text, When* when) {
  const bool sync = strncmp(text, "sync:", 5) == 0;
  const char* digits = sync ? text + 5 : text;
  char* end = nullptr;
  errno = 0;
  const unsigned long n = strtoul(digits, &end, 10);
  if (*digits < '0' || *digits > '9' || *end != '\0' || errno != 0 || (sync && n == 0)) {
    return false;
  }
  (sync ? when->sync : when->change) = n;
  return true;
}

void KillAll(const std::set<pid_t>& tracees) {
  for (const pid_t p : tracees) kill(p, SIGKILL);
  int status = 0;
  while (waitpid(-1, &status, __WALL) > 0) {
  }
}

}  // namespace

int main(int argc, char** argv) {
  When when;
  if (argc < 3 || !ParseWhen(argv[1], &when)) {
    fprintf(stderr, "usage: zq-power-cut K|sync:N COMMAND... (K from 1, N from 1; 0 lists)\n");
    return 2;
  }
  const bool listing = when.change == 0 && when.sync == 0;
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    execvp(argv[2], argv + 2);
    perror(argv[2]);
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ptrace(PTRACE_SETOPTIONS, child, nullptr,
         PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
             PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL);
  ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);

  std::set<pid_t> tracees = {child};
  std::set<pid_t> syncing;  // in a sync call that counts, until it returns
  unsigned long changes = 0;
  unsigned long syncs = 0;
  int exit_status = 0;
  while (!tracees.empty()) {
    const pid_t pid = waitpid(-1, &status, __WALL);
    if (pid < 0) break;
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      tracees.erase(pid);
      syncing.erase(pid);
      if (pid == child)
        exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      continue;
    }
    // A new process reports first with a SIGSTOP of its own, which is not passed on.
    const bool is_new = tracees.insert(pid).second;
    int signal = 0;
    if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
      __ptrace_syscall_info info = {};
      ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof(info), &info);
      const Call* call = nullptr;
      if (info.op == PTRACE_SYSCALL_INFO_EXIT && syncing.erase(pid) == 1 && ++syncs == when.sync) {
        KillAll(tracees);
        fprintf(stderr, "zq-power-cut: power cut after sync %lu, of pid %d\n", syncs, pid);
        return kCutStatus;
      }
      const std::string target =
          info.op == PTRACE_SYSCALL_INFO_ENTRY ? Target(pid, info, &call) : "";
      if (!target.empty() && call->effect == Effect::kSyncs) {
        syncing.insert(pid);
        if (listing) fprintf(stderr, "  sync %lu: %s %s\n", syncs + 1, call->name, target.c_str());
      } else if (!target.empty()) {
        if (++changes == when.change) {
          KillAll(tracees);
          fprintf(stderr, "zq-power-cut: power cut before change %lu, %s %s\n", changes, call->name,
                  target.c_str());
          return kCutStatus;
        }
        if (listing) fprintf(stderr, "change %lu: %s %s\n", changes, call->name, target.c_str());
      }
    } else if (status >> 16 == 0 && !(is_new && WSTOPSIG(status) == SIGSTOP)) {
      signal = WSTOPSIG(status);
    }
    ptrace(PTRACE_SYSCALL, pid, nullptr, signal);
  }
  fprintf(stderr, "zq-power-cut: %lu changes to files and %lu syncs, no cut\n", changes, syncs);
  return exit_status;
}
