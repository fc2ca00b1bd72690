// zq-power-cut K COMMAND...: runs COMMAND with every process it starts traced and, at the K-th
// system call of them all that changes a file, kills them all before that call runs, as a power
// cut would. With K of 0 nothing is cut, and the number of such calls is reported instead.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>

namespace {

constexpr int kCutStatus = 128 + SIGKILL;

std::string Link(pid_t pid, const std::string& name) {
  std::string target;
  android::base::Readlink(android::base::StringPrintf("/proc/%d/%s", pid, name.c_str()), &target);
  return target;
}

// The path argument at |address| of |pid|'s call, made absolute against |dirfd|; paths are as the
// process sees them, inside the sandbox.
std::string PathArg(pid_t pid, long long dirfd, unsigned long long address) {
  char buffer[4096] = {};
  const android::base::unique_fd mem(open(android::base::StringPrintf("/proc/%d/mem", pid).c_str(),
                                          O_RDONLY | O_CLOEXEC));
  if (pread(mem.get(), buffer, sizeof(buffer) - 1, static_cast<off_t>(address)) <= 0) return "";
  const std::string path = buffer;
  if (path.empty() || path[0] == '/') return path;
  return Link(pid, dirfd == AT_FDCWD ? "cwd" : android::base::StringPrintf("fd/%lld", dirfd)) + "/" +
         path;
}

std::string FdTarget(pid_t pid, unsigned long long fd) {
  return Link(pid, android::base::StringPrintf("fd/%llu", fd));
}

// Only the phone's persistent partitions count: the log and the properties live in memory there.
bool Persistent(const std::string& path) {
  return path.rfind("/data/", 0) == 0 || path.rfind("/mnt/", 0) == 0;
}

// Whether the call about to run changes a file of a persistent partition: its data, its mode, or
// a name in a directory.
bool Mutates(pid_t pid, const user_regs_struct& r) {
  const auto at = [&](unsigned long long dirfd, unsigned long long path) {
    return Persistent(PathArg(pid, static_cast<int>(dirfd), path));
  };
  switch (r.orig_rax) {
    case SYS_write:
    case SYS_writev:
    case SYS_pwrite64:
    case SYS_pwritev:
    case SYS_pwritev2:
    case SYS_sendfile:
    case SYS_ftruncate:
    case SYS_fallocate:
    case SYS_fchmod:
      return Persistent(FdTarget(pid, r.rdi));
    case SYS_copy_file_range:
    case SYS_splice:
      return Persistent(FdTarget(pid, r.rdx));
    case SYS_open:
      return (r.rsi & (O_CREAT | O_TRUNC)) != 0 && at(AT_FDCWD, r.rdi);
    case SYS_openat:
      return (r.rdx & (O_CREAT | O_TRUNC)) != 0 && at(r.rdi, r.rsi);
    case SYS_creat:
    case SYS_mkdir:
    case SYS_rmdir:
    case SYS_unlink:
    case SYS_chmod:
    case SYS_truncate:
      return at(AT_FDCWD, r.rdi);
    case SYS_rename:
    case SYS_link:
    case SYS_symlink:
      return at(AT_FDCWD, r.rsi);
    case SYS_mkdirat:
    case SYS_unlinkat:
    case SYS_fchmodat:
    case SYS_renameat:
    case SYS_renameat2:
      return at(r.rdi, r.rsi);
    case SYS_linkat:
      return at(r.rdx, r.r10);
    case SYS_symlinkat:
      return at(r.rsi, r.rdx);
    default:
      return false;
  }
}

}  // namespace

int main(int argc, char** argv) {
  unsigned long cut_at = 0;
  if (argc < 3 || !android::base::ParseUint(argv[1], &cut_at)) {
    fprintf(stderr, "usage: zq-power-cut K COMMAND... (K from 1; 0 counts without cutting)\n");
    return 2;
  }
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
  std::set<pid_t> in_call;
  unsigned long mutations = 0;
  int exit_status = 0;
  while (!tracees.empty()) {
    const pid_t pid = waitpid(-1, &status, __WALL);
    if (pid < 0) break;
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      tracees.erase(pid);
      in_call.erase(pid);
      if (pid == child) exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      continue;
    }
    // A new process reports first with a SIGSTOP of its own, which is not passed on.
    const bool is_new = tracees.insert(pid).second;
    int signal = 0;
    if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
      if (in_call.erase(pid) == 0) {
        in_call.insert(pid);
        user_regs_struct regs = {};
        ptrace(PTRACE_GETREGS, pid, nullptr, &regs);
        if (Mutates(pid, regs) && ++mutations == cut_at) {
          for (const pid_t p : tracees) kill(p, SIGKILL);
          while (waitpid(-1, &status, __WALL) > 0) {
          }
          fprintf(stderr, "zq-power-cut: power cut before system call %llu of pid %d, the %lu-th change\n",
                  regs.orig_rax, pid, mutations);
          return kCutStatus;
        }
      }
    } else if (status >> 16 == 0 && !(is_new && WSTOPSIG(status) == SIGSTOP)) {
      signal = WSTOPSIG(status);
    }
    ptrace(PTRACE_SYSCALL, pid, nullptr, signal);
  }
  fprintf(stderr, "zq-power-cut: %lu changes to files, no cut\n", mutations);
  return exit_status;
}
