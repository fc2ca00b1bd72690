// The host layer on temporary files, for tests that call the daemon in process.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <android-base/file.h>

std::optional<std::string> Read(const std::string& path);  // nullopt: it cannot be read
std::vector<std::string> Entries(const std::string& dir);  // sorted

class InProcessPlatform {
 public:
  InProcessPlatform();
  ~InProcessPlatform();

  std::string AreaPath(const std::string& name) const { return area_.path + ("/" + name); }
  std::optional<std::string> Prop(const std::string& name) const { return Read(AreaPath(name)); }
  // The journal's log messages, and whether the last record was of something done.
  std::vector<std::string> Log() const;
  bool LastOk() const;

 private:
  TemporaryDir area_;
  TemporaryFile journal_;
};
