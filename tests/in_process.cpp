#include "in_process.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>

#include <android-base/logging.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

namespace {

// |field| of each of the journal's records of event |ev|, as Python's json reads them; each string
// goes back out as the bytes it stands for.
std::vector<std::string> Fields(const std::string& journal, const std::string& ev,
                                const std::string& field) {
  const std::string command =
      "/usr/bin/python3 -I -c 'import json, sys\n"
      "for line in open(sys.argv[1], \"rb\"):\n"
      "    r = json.loads(line)\n"
      "    if r[\"ev\"] == sys.argv[2]:\n"
      "        sys.stdout.buffer.write(str(r.get(sys.argv[3])).encode(\"latin-1\") + b\"\\0\")' " +
      journal + " " + ev + " " + field;
  FILE* out = popen(command.c_str(), "r");
  std::string text;
  for (int c; (c = fgetc(out)) != EOF;) text += static_cast<char>(c);
  EXPECT_EQ(pclose(out), 0) << journal;
  std::vector<std::string> fields = android::base::Split(text, std::string(1, '\0'));
  fields.pop_back();
  return fields;
}

}  // namespace

std::optional<std::string> Read(const std::string& path) {
  std::string text;
  if (!android::base::ReadFileToString(path, &text)) return std::nullopt;
  return text;
}

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

InProcessPlatform::InProcessPlatform() {
  setenv("HOST_PROPERTY_DIR", area_.path, 1);
  setenv("HOST_JOURNAL", journal_.path, 1);
  android::base::SetLogger(android::base::LogdLogger(android::base::SYSTEM));
}

InProcessPlatform::~InProcessPlatform() {
  android::base::SetLogger(android::base::StderrLogger);
  unsetenv("HOST_PROPERTY_DIR");
  unsetenv("HOST_JOURNAL");
}

std::vector<std::string> InProcessPlatform::Log() const {
  return Fields(journal_.path, "log", "msg");
}

bool InProcessPlatform::LastOk() const {
  return Fields(journal_.path, "set", "ok").back() == "True";
}
