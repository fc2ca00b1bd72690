// Preloaded into the daemon by the benchmark: reports its own CPU time and peak resident memory,
// its commands' excluded, as it exits.
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>

namespace {

// The commands the daemon runs are measured as the floor's are, not as the daemon.
__attribute__((constructor)) void Forget() {
  unsetenv("LD_PRELOAD");
}

__attribute__((destructor)) void Report() {
  struct rusage self = {};
  getrusage(RUSAGE_SELF, &self);
  const long cpu_us = (self.ru_utime.tv_sec + self.ru_stime.tv_sec) * 1'000'000L +
                      self.ru_utime.tv_usec + self.ru_stime.tv_usec;
  (void)fprintf(stderr, "zq-rusage: cpu_us=%ld maxrss_kib=%ld\n", cpu_us, self.ru_maxrss);
}

}  // namespace
