// Every byte a log line or property holds must come back out of the journal unchanged.
#include <stdint.h>

#include <string>

#include <android-base/logging.h>

#include "fuzz_support.h"
#include "journal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string escaped = host::JournalEscape(bytes);
  for (const char c : escaped) CHECK(c >= 0x20 && c <= 0x7f) << escaped;  // printable ASCII only
  CHECK(host::JournalUnescape(escaped) == bytes);
  // And what the decoder takes from any text, the encoder gives back as the same JSON bytes.
  if (const std::optional<std::string> decoded = host::JournalUnescape(bytes)) {
    CHECK(host::JournalUnescape(host::JournalEscape(*decoded)) == decoded);
  }
  return 0;
}
