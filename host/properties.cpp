// property_get and property_set of <cutils/properties.h> on a directory holding one file per
// property: /dev/__properties__, or the directory that HOST_PROPERTY_DIR names.
//
// A value that changes while its reader runs (the platform publishing the dump's progress) may be
// given instead as a schedule, the file ".schedule.NAME" beside the others: lines "SECONDS VALUE",
// each VALUE holding from SECONDS after this process first read NAME, on its own monotonic clock
// (libfaketime's, when it runs under it); before the first line's time NAME is unset. A schedule
// wins over NAME's own file, and a property_set of NAME ends it.
#include <cutils/properties.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>

#include <android-base/file.h>
#include <android-base/parsedouble.h>
#include <android-base/strings.h>
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

std::string SchedulePath(const char* key) {
  return AreaDir() + "/.schedule." + key;
}

double MonotonicSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The value that |schedule| gives |key| now; the first read of |key| starts its clock.
std::string ScheduledValue(const char* key, const std::string& schedule) {
  static std::map<std::string, double> first_read;
  const double now = MonotonicSeconds();
  const double elapsed = now - first_read.emplace(key, now).first->second;
  std::string value;
  for (const std::string& line : android::base::Split(schedule, "\n")) {
    const size_t blank = line.find(' ');
    double from = 0;
    if (blank == std::string::npos ||
        !android::base::ParseDouble(line.substr(0, blank).c_str(), &from) || from > elapsed) {
      continue;
    }
    value = line.substr(blank + 1);
  }
  return value;
}

// The stored value, read whole, until end of file rather than by its size.
std::string ReadValue(const char* key) {
  std::string value;
  if (!IsValidName(key)) return value;
  if (std::string schedule; android::base::ReadFileToString(SchedulePath(key), &schedule)) {
    return ScheduledValue(key, schedule);
  }
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
  if (written) unlink(SchedulePath(key).c_str());
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
