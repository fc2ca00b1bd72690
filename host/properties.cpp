// property_get and property_set of <cutils/properties.h> on a directory holding one file per
// property: /dev/__properties__, or the directory that HOST_PROPERTY_DIR names.
#include <cutils/properties.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include "journal.h"

namespace {

constexpr char kDefaultArea[] = "/dev/__properties__";

std::string AreaDir() {
  const char* named = getenv("HOST_PROPERTY_DIR");
  return named != nullptr ? named : kDefaultArea;
}

// A name must stay a single file inside the area.
bool IsValidName(const char* key) {
  return key != nullptr && key[0] != '\0' && key[0] != '.' && strchr(key, '/') == nullptr;
}

// The stored value, read until end of file rather than by size, so that a FIFO at the path
// serves one value per read.
std::string ReadValue(const char* key) {
  std::string value;
  if (!IsValidName(key)) return value;
  android::base::unique_fd fd(
      TEMP_FAILURE_RETRY(open((AreaDir() + "/" + key).c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd.get() < 0 || !android::base::ReadFdToString(fd.get(), &value)) value.clear();
  return value;
}

bool StoreValue(const char* key, const char* value) {
  if (!IsValidName(key)) return false;
  const std::string dir = AreaDir();
  std::string temp = dir + "/.set." + key + ".XXXXXX";
  android::base::unique_fd fd(mkostemp(temp.data(), O_CLOEXEC));
  if (fd.get() < 0) return false;
  const bool written = fchmod(fd.get(), 0644) == 0 &&
                       android::base::WriteStringToFd(value, fd.get()) &&
                       rename(temp.c_str(), (dir + "/" + key).c_str()) == 0;
  if (!written) unlink(temp.c_str());
  return written;
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
  std::string result = ReadValue(key);
  if (result.empty() && default_value != nullptr) result = default_value;
  result.resize(std::min<size_t>(result.size(), PROP_VALUE_MAX - 1));
  memcpy(value, result.data(), result.size());
  value[result.size()] = '\0';
  host::JournalPropertyGet(key, result.c_str());
  return static_cast<int>(result.size());
}

int property_set(const char* key, const char* value) {
  if (value == nullptr) value = "";
  const bool ok = strlen(value) < PROP_VALUE_MAX && StoreValue(key, value);
  host::JournalPropertySet(key, value, ok);
  return ok ? 0 : -1;
}
