// What every fuzz target needs: the host layer pointed at a scratch area, and a quiet log.
#pragma once

#include <stdlib.h>

#include <string>

#include <android-base/file.h>
#include <android-base/logging.h>

class FuzzPlatform {
 public:
  FuzzPlatform() {
    setenv("HOST_PROPERTY_DIR", area_.path, 1);
    setenv("HOST_JOURNAL", "/dev/null", 1);
  }
  std::string db_dir() const { return db_.path; }

 private:
  TemporaryDir area_;
  TemporaryDir db_;
};
