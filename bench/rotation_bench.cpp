// Counting and rotating a category directory that has filled up, at two sizes: the time must
// stay well under a second and grow in proportion to the entries.
#include <stdlib.h>

#include <string>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <benchmark/benchmark.h>

#include "archive.h"

namespace {

void BM_CountAndRotate(benchmark::State& state) {
  // The log records go to a journal, as they go to logd on the phone.
  TemporaryFile journal;
  setenv("HOST_JOURNAL", journal.path, 1);
  android::base::SetLogger(android::base::LogdLogger(android::base::SYSTEM));
  for (auto _ : state) {
    state.PauseTiming();
    TemporaryDir tmp;
    const std::string dir = std::string(tmp.path) + "/";
    for (int64_t n = 0; n < state.range(0); ++n) {
      android::base::WriteStringToFile(
          "",
          dir + android::base::StringPrintf("ZQpanic_%lld_t.tar.gz", static_cast<long long>(n)));
    }
    state.ResumeTiming();
    const int next = get_new_zq_log_count(dir, "ZQpanic_");
    benchmark::DoNotOptimize(remove_old_and_trash_file(next, dir, "ZQpanic_", 5));
  }
  state.SetComplexityN(state.range(0));
}

BENCHMARK(BM_CountAndRotate)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

}  // namespace

BENCHMARK_MAIN();
