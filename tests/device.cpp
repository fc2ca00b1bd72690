#include "device.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include <android-base/logging.h>
#include <android-base/strings.h>

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

std::vector<Record> ReadJournal(const std::string& path) {
  // Python's json reads the records; each string goes back out as the bytes it stands for.
  const Result fields = Run({"/usr/bin/python3", "-I", "-c", R"(import json, sys
for line in open(sys.argv[1], "rb"):
    r = json.loads(line)
    for key in ("ev", "buf", "tag", "msg", "name", "value", "ok", "mono_ns", "pid"):
        sys.stdout.buffer.write(str(r.get(key, "")).encode("latin-1") + b"\0"))",
                             path});
  EXPECT_EQ(fields.status, 0) << path << ": " << fields.err;
  const std::vector<std::string> f = android::base::Split(fields.out, std::string(1, '\0'));
  std::vector<Record> records;
  for (size_t i = 0; i + 9 < f.size(); i += 9) {
    records.push_back({f[i], f[i + 1], f[i + 2], f[i + 3], f[i + 4], f[i + 5], f[i + 6] == "True",
                       std::stoll(f[i + 7]), std::stoi(f[i + 8])});
  }
  return records;
}

std::vector<std::string> Messages(const std::vector<Record>& journal) {
  std::vector<std::string> messages;
  for (const Record& r : journal) {
    if (r.ev == "log" && r.buf != "kernel") messages.push_back(r.msg);
  }
  return messages;
}

Device::Device(bool ext4) : root_(std::string(dir_.path) + "/phone") {
  Sim("init", ext4 ? std::vector<std::string>{"--ext4"} : std::vector<std::string>{});
}

std::string Device::Pull(const std::string& phone_path) const {
  if (!std::filesystem::is_directory(Path("images"))) return Path(phone_path.substr(1));
  const std::string copy = std::string(dir_.path) + "/pulled." + std::to_string(++pulls_);
  Sim("pull", {phone_path, copy});
  return copy;
}

void Device::CopyTo(const Device& other) const {
  std::filesystem::remove_all(other.root_);
  const Result copy = Run({"cp", "-a", "--sparse=always", root_, other.root_});
  ASSERT_EQ(copy.status, 0) << copy.err;
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

Result Device::Boot(const std::vector<std::string>& options) const {
  std::vector<std::string> argv = {"timeout", "120", ZQ_DEVSIM, "boot", root_};
  argv.insert(argv.end(), options.begin(), options.end());
  return Run(argv, {{"ZQ_MRDUMP_COLLECT", ZQ_MRDUMP_COLLECT}, {"TZ", "UTC"}});
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
