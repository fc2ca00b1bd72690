// Archive names come from whatever lies in the log partition.
#include <stdint.h>

#include <stdexcept>
#include <string>

#include <android-base/logging.h>

#include "archive.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string name(reinterpret_cast<const char*>(data), size);
  long long count = 0;
  try {
    count = get_boot_count_by_file_name(name);
  } catch (const std::invalid_argument&) {  // an empty count field: ends a run by design
    return 0;
  } catch (const std::out_of_range&) {  // a count beyond 64 bits: ends a run by design
    return 0;
  }
  const size_t first = name.find('_');
  const size_t second = name.find('_', first + 1);
  if (count < 0) return 0;
  // A count is only ever read from the middle of exactly three fields, all digits.
  CHECK(first != std::string::npos && second != std::string::npos);
  CHECK_EQ(name.find('_', second + 1), std::string::npos);
  CHECK_EQ(std::stoll(name.substr(first + 1, second - first - 1)), count);
  return 0;
}
