#include "device.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include <android-base/logging.h>
#include <android-base/strings.h>

namespace {

// A property file's value; no file is an unset property.
std::optional<std::string> ReadProperty(const std::string& path) {
  std::string value;
  if (!android::base::ReadFileToString(path, &value)) return std::nullopt;
  return value;
}

}  // namespace

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

std::string Slurp(const std::string& path) {
  std::string text;
  android::base::ReadFileToString(path, &text);
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

std::vector<Record> ReadJournal(const std::string& path) {
  // jq checks the JSON; the fields come out NUL-separated, as no log line or property holds a NUL.
  const Result fields = Run(
      {"jq", "-j",
       R"(.ev, "\u0000", .buf // "", "\u0000", .prio // "", "\u0000", .tag // "", "\u0000", .msg // "",
                                "\u0000", .name // "", "\u0000", .value // "", "\u0000", .ok // false,
                                "\u0000", .mono_ns, "\u0000")",
       path});
  EXPECT_EQ(fields.status, 0) << path << ": " << fields.err;
  // jq writes each \u00XX as UTF-8; the journal means the byte XX.
  std::string bytes;
  for (size_t i = 0; i < fields.out.size(); ++i) {
    const auto c = static_cast<unsigned char>(fields.out[i]);
    if (c < 0x80) {
      bytes += static_cast<char>(c);
      continue;
    }
    EXPECT_TRUE((c == 0xc2 || c == 0xc3) && i + 1 < fields.out.size()) << path << ": not a byte";
    bytes += static_cast<char>(((c & 0x03) << 6) | (fields.out[++i] & 0x3f));
  }
  const std::vector<std::string> f = android::base::Split(bytes, std::string(1, '\0'));
  std::vector<Record> records;
  for (size_t i = 0; i + 9 < f.size(); i += 9) {
    records.push_back({f[i], f[i + 1], f[i + 2], f[i + 3], f[i + 4], f[i + 5], f[i + 6],
                       f[i + 7] == "true", std::stoll(f[i + 8])});
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

::testing::AssertionResult InOrder(const std::vector<std::string>& lines,
                                   const std::vector<std::string>& expected) {
  auto at = lines.begin();
  for (const std::string& line : expected) {
    at = std::find(at, lines.end(), line);
    if (at == lines.end()) {
      return ::testing::AssertionFailure() << "missing, or out of order: \"" << line << "\"\nin:\n"
                                           << android::base::Join(lines, "\n");
    }
  }
  return ::testing::AssertionSuccess();
}

Device::Device() : root_(std::string(dir_.path) + "/phone") {
  const Result init = Run({ZQ_DEVSIM, "init", root_});
  EXPECT_EQ(init.status, 0) << init.err;
}

void Device::CopyFrom(const Device& other) const {
  const Result copy = Run({"cp", "-a", other.root_ + "/.", root_});
  ASSERT_EQ(copy.status, 0) << copy.err;
}

void Device::Panic(const std::vector<std::string>& options) const {
  std::vector<std::string> argv = {ZQ_DEVSIM, "panic",     root_, "--kmsg-size",
                                   "64",      "--db-size", "96"};
  argv.insert(argv.end(), options.begin(), options.end());
  const Result panic = Run(argv);
  ASSERT_EQ(panic.status, 0) << panic.err;
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

std::optional<std::string> Device::Prop(const std::string& name) const {
  return ReadProperty(Path("properties/" + name));
}

void Device::SetProp(const std::string& name, const std::string& value) const {
  const Result set = Run({ZQ_DEVSIM, "setprop", root_, name, value});
  ASSERT_EQ(set.status, 0) << set.err;
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

std::string InProcessPlatform::AreaPath(const std::string& name) const {
  return std::string(area_.path) + "/" + name;
}

std::optional<std::string> InProcessPlatform::Prop(const std::string& name) const {
  return ReadProperty(AreaPath(name));
}
