// A simulated phone driven through zq-devsim as a person would, and the host layer on temporary
// files for tests that call the daemon in process.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <gtest/gtest.h>

// One journal record; fields that a record does not carry stay empty. init's are pid 1's.
struct Record {
  std::string ev, buf, tag, msg, name, value;
  bool ok = false;
  long long mono_ns = 0;
  int pid = 0;
};

struct Result {
  int status = -1;
  std::string out, err;
};

// Runs |argv| with |env| added to the environment, capturing both output streams.
Result Run(const std::vector<std::string>& argv,
           const std::map<std::string, std::string>& env = {});
// The contents of |path|, or nullopt when it cannot be read (an unset property), or "".
std::optional<std::string> Read(const std::string& path);
std::string Slurp(const std::string& path);
std::vector<std::string> Entries(const std::string& dir);  // sorted
// The records of the journal at |path|; the messages of its log records but the kernel's (init's),
// in order.
std::vector<Record> ReadJournal(const std::string& path);
std::vector<std::string> Messages(const std::vector<Record>& journal);

class Device {
 public:
  // A phone of plain folders, or with |ext4| one whose /data and log partition are ext4 images.
  explicit Device(bool ext4 = false);

  std::string Path(const std::string& relative) const { return root_ + "/" + relative; }
  // zq-devsim |verb| on this phone with |args|, which must succeed; a panic of small evidence.
  void Sim(const std::string& verb, const std::vector<std::string>& args = {}) const;
  void Panic(const std::vector<std::string>& options = {}) const;
  // zq-devsim boot with |options|, in UTC.
  Result Boot(const std::vector<std::string>& options) const;
  // The phone's |phone_path| on the workstation: copied out of its ext4 images if it has them.
  std::string Pull(const std::string& phone_path) const;
  void CopyTo(const Device& other) const;
  std::optional<std::string> Prop(const std::string& name) const {
    return Read(Path("properties/" + name));
  }
  std::vector<Record> Journal() const { return ReadJournal(Path("journal")); }

 private:
  TemporaryDir dir_;
  std::string root_;
  mutable int pulls_ = 0;
};

class InProcessPlatform {
 public:
  InProcessPlatform();
  ~InProcessPlatform();

  std::string AreaPath(const std::string& name) const { return area_.path + ("/" + name); }
  std::vector<std::string> Log() const { return Messages(ReadJournal(journal_.path)); }
  std::optional<std::string> Prop(const std::string& name) const { return Read(AreaPath(name)); }

 private:
  TemporaryDir area_;
  TemporaryFile journal_;
};
