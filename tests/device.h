// A simulated phone for end-to-end tests: a device root in a temporary folder, driven through
// zq-devsim exactly as a person would drive it, and its journal read back record by record.
#pragma once

#include <stdint.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <android-base/file.h>

// One journal record; fields a record does not carry stay empty.
struct JournalRecord {
  std::string ev;
  int64_t pid = 0;
  int64_t mono_ns = 0;
  std::string buf, prio, tag, msg;
  std::string name, value;
  bool ok = false;
};

// Decodes one JSON string body as the journal writes it, \u00XX as the byte XX; nullopt when
// |body| is not valid JSON or holds a character above U+00FF.
std::optional<std::string> DecodeJournalString(const std::string& body);

// Parses a journal; a malformed line fails the calling test.
std::vector<JournalRecord> ParseJournal(const std::string& text);

struct CommandResult {
  int status = -1;
  std::string out, err;
};

// Runs |argv| with |env| added to the environment, capturing both output streams.
CommandResult RunCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {});

class Device {
 public:
  Device();

  const std::string& root() const { return root_; }
  std::string Path(const std::string& relative) const { return root_ + "/" + relative; }

  // zq-devsim panic with |options|.
  void Panic(const std::vector<std::string>& options = {});
  // zq-devsim boot in |userland|, under FAKETIME |faketime| when not empty, with |options|.
  CommandResult Boot(const std::string& userland, const std::string& faketime = "",
                     const std::map<std::string, std::string>& env = {},
                     const std::vector<std::string>& options = {});

  std::optional<std::string> Prop(const std::string& name) const;
  void SetProp(const std::string& name, const std::string& value);

  std::vector<JournalRecord> Journal() const;
  // The messages of the log records, in order.
  std::vector<std::string> Log() const;
  // The values |name| was set to, in order.
  std::vector<std::string> Sets(const std::string& name) const;
  // How often |name| was read.
  size_t Gets(const std::string& name) const;

 private:
  TemporaryDir dir_;
  std::string root_;
};

// The host layer pointed at a temporary property area and journal, with libbase logging into
// that journal, for tests that call the daemon's functions in process.
class InProcessPlatform {
 public:
  InProcessPlatform();
  ~InProcessPlatform();

  std::string AreaPath(const std::string& name) const {
    return std::string(area_.path) + "/" + name;
  }
  std::vector<JournalRecord> Journal() const;
  std::vector<std::string> Log() const;
  std::optional<std::string> Prop(const std::string& name) const;

 private:
  TemporaryDir area_;
  TemporaryFile journal_;
};

// Whether |lines| holds |line| exactly.
bool Contains(const std::vector<std::string>& lines, const std::string& line);
