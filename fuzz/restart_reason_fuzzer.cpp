// ZZ_INTERNAL is written by the platform's exception engine; its text reaches a property.
#include <cutils/properties.h>
#include <stdint.h>

#include <string>

#include <android-base/file.h>
#include <android-base/logging.h>

#include "fuzz_support.h"
#include "staging.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzPlatform platform;
  const std::string contents(reinterpret_cast<const char*>(data), size);
  CHECK(android::base::WriteStringToFile(contents, platform.db_dir() + "/ZZ_INTERNAL"));
  property_set("vendor.restart_reason", "");
  get_restart_info(platform.db_dir());
  char reason[PROP_VALUE_MAX] = {};
  if (property_get("vendor.restart_reason", reason, "") == 0) return 0;
  // The first "KE at" line, from "KE at" to before its first ',', never past its line.
  const std::string text = reason;
  CHECK_EQ(text.rfind("KE at", 0), 0u);
  CHECK_EQ(text.find_first_of(",\n"), std::string::npos);
  CHECK_NE(contents.find(text), std::string::npos);
  CHECK_EQ(contents.find("KE at"), contents.find(text));
  return 0;
}
