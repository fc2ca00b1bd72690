#include "device.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include <android-base/logging.h>
#include <android-base/strings.h>

#include "journal.h"

Result Run(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env) {
  TemporaryFile out;
  TemporaryFile err;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out.fd, STDOUT_FILENO);
    dup2(err.fd, STDERR_FILENO);
    for (const auto& [name, value] : env) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus), Slurp(out.path),
          Slurp(err.path)};
}

std::optional<std::string> Read(const std::string& path) {
  std::string text;
  if (!android::base::ReadFileToString(path, &text)) return std::nullopt;
  return text;
}

std::string Slurp(const std::string& path) {
  return Read(path).value_or("");
}

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The value of |key| in a journal line, as the host layer writes it: "key":"escaped bytes" or
// "key":number or bool. An escaped quote never ends a string, so no value hides a key.
std::string Field(const std::string& line, const std::string& key) {
  const size_t at = line.find("\"" + key + "\":");
  if (at == std::string::npos) return "";
  size_t begin = at + key.size() + 3;
  if (line[begin] != '"') return line.substr(begin, line.find_first_of(",}", begin) - begin);
  size_t end = begin;
  while (++end < line.size() && line[end] != '"') end += line[end] == '\\' ? 1 : 0;
  const auto value = host::JournalUnescape(line.substr(begin + 1, end - begin - 1));
  EXPECT_TRUE(value.has_value()) << line;
  return value.value_or("");
}

std::vector<Record> ReadJournal(const std::string& path) {
  std::vector<Record> records;
  for (const std::string& line : android::base::Split(Slurp(path), "\n")) {
    if (line.empty()) continue;
    records.push_back({Field(line, "ev"), Field(line, "buf"), Field(line, "prio"),
                       Field(line, "tag"), Field(line, "msg"), Field(line, "name"),
                       Field(line, "value"), Field(line, "ok") == "true",
                       std::stoll(Field(line, "mono_ns"))});
  }
  return records;
}

std::vector<std::string> Messages(const std::vector<Record>& journal) {
  std::vector<std::string> messages;
  for (const Record& r : journal) {
    if (r.ev == "log") messages.push_back(r.msg);
  }
  return messages;
}

std::vector<std::string> Members(const std::string& path) {
  const Result list = Run({"tar", "-tzf", path});
  if (list.status != 0) return {"error: " + list.err};
  std::vector<std::string> members = android::base::Split(list.out, "\n");
  members.pop_back();  // after the last line feed
  std::sort(members.begin(), members.end());
  return members;
}

Device::Device() : root_(std::string(dir_.path) + "/phone") {
  Sim("init");
}

void Device::Sim(const std::string& verb, const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {ZQ_DEVSIM, verb, root_};
  argv.insert(argv.end(), args.begin(), args.end());
  const Result sim = Run(argv);
  ASSERT_EQ(sim.status, 0) << android::base::Join(argv, " ") << ": " << sim.err;
}

void Device::Panic(const std::vector<std::string>& options) const {
  std::vector<std::string> args = {"--kmsg-size", "64", "--db-size", "96"};
  args.insert(args.end(), options.begin(), options.end());
  Sim("panic", args);
}

Result Device::Boot(const std::vector<std::string>& options,
                    const std::map<std::string, std::string>& env) const {
  std::vector<std::string> argv = {"timeout", "120", ZQ_DEVSIM, "boot", root_};
  argv.insert(argv.end(), options.begin(), options.end());
  std::map<std::string, std::string> all = env;
  all.emplace("ZQ_MRDUMP_COLLECT", ZQ_MRDUMP_COLLECT);
  all.emplace("TZ", "UTC");
  return Run(argv, all);
}

void ExpectWholeArchives(const Device& d, bool exact, const std::string& except) {
  const std::map<std::string, std::vector<std::string>> kinds = {
      {"db.", {"SYS_KERNEL_LOG", "SYS_MINI_RDUMP", "ZZ_INTERNAL", "__exp_main.txt"}},
      {"ZQpanic_", {"db.00.tar.gz", "last_kmsg.txt"}}};
  for (const char* partition : {"data", "mnt"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(d.Path(partition))) {
      const std::string path = entry.path();
      const std::string name = entry.path().filename();
      if (!android::base::EndsWith(name, ".tar.gz") || !entry.is_regular_file()) continue;
      if (!except.empty() && android::base::StartsWith(path, d.Path(except))) continue;
      const std::string stem = name.substr(0, name.size() - 7);
      std::vector<std::string> expected = {stem + "/"};
      for (const auto& [prefix, files] : kinds) {
        if (!android::base::StartsWith(stem, prefix)) continue;
        for (const std::string& file : files) expected.push_back(stem + "/" + file);
      }
      std::sort(expected.begin(), expected.end());
      const std::vector<std::string> members = Members(path);
      if (exact) {
        EXPECT_EQ(members, expected) << path;
        continue;
      }
      EXPECT_TRUE(std::binary_search(members.begin(), members.end(), stem + "/")) << path;
      EXPECT_TRUE(std::includes(expected.begin(), expected.end(), members.begin(), members.end()))
          << path << ": " << android::base::Join(members, " ");
    }
  }
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
