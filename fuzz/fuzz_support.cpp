#include "fuzz_support.h"

// Logging costs more than the code under test; the checks say what matters.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                              const char*, unsigned int, const char*) {});
  return 0;
}
