// The exception database property is set by the platform's exception engine.
#include <stdint.h>

#include <string>

#include <android-base/logging.h>

#include "fuzz_support.h"
#include "staging.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string value(reinterpret_cast<const char*>(data), size);
  const std::string folder = extractKEPath(value);
  if (folder.empty()) return 0;
  // A folder, taken whole from after the first ':'.
  CHECK_EQ(folder.back(), '/');
  CHECK_EQ(value.find(folder, value.find(':') + 1), value.find(':') + 1);
  return 0;
}
