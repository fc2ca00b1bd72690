#include "device.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include <android-base/logging.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

namespace {

// A strict reader for the journal's flat objects: string, integer and boolean values only.
class LineParser {
 public:
  explicit LineParser(const std::string& line) : s_(line) {}

  bool Parse(JournalRecord* r) {
    if (!Eat('{')) return false;
    do {
      std::string key;
      if (!String(&key) || !Eat(':')) return false;
      if (!Value(key, r)) return false;
    } while (Eat(','));
    return Eat('}') && i_ == s_.size();
  }

 private:
  bool Eat(char c) {
    if (i_ < s_.size() && s_[i_] == c) {
      ++i_;
      return true;
    }
    return false;
  }

  bool String(std::string* out) {
    if (!Eat('"')) return false;
    const size_t start = i_;
    while (i_ < s_.size() && s_[i_] != '"') i_ += s_[i_] == '\\' ? 2 : 1;
    if (i_ >= s_.size()) return false;
    std::optional<std::string> decoded = DecodeJournalString(s_.substr(start, i_ - start));
    ++i_;
    if (!decoded) return false;
    *out = *decoded;
    return true;
  }

  bool Value(const std::string& key, JournalRecord* r) {
    if (key == "pid" || key == "mono_ns") {
      const size_t start = i_;
      while (i_ < s_.size() && isdigit(static_cast<unsigned char>(s_[i_]))) ++i_;
      if (i_ == start) return false;
      (key == "pid" ? r->pid : r->mono_ns) = std::stoll(s_.substr(start, i_ - start));
      return true;
    }
    if (key == "ok") {
      if (s_.compare(i_, 4, "true") == 0) return i_ += 4, r->ok = true;
      if (s_.compare(i_, 5, "false") == 0) return i_ += 5, r->ok = false, true;
      return false;
    }
    std::map<std::string, std::string*> fields = {
        {"ev", &r->ev},   {"buf", &r->buf},   {"prio", &r->prio},   {"tag", &r->tag},
        {"msg", &r->msg}, {"name", &r->name}, {"value", &r->value},
    };
    auto field = fields.find(key);
    return field != fields.end() && String(field->second);
  }

  const std::string& s_;
  size_t i_ = 0;
};

std::string ReadFile(const std::string& path) {
  std::string text;
  android::base::ReadFileToString(path, &text);
  return text;
}

std::vector<std::string> Messages(const std::vector<JournalRecord>& journal) {
  std::vector<std::string> messages;
  for (const JournalRecord& r : journal) {
    if (r.ev == "log") messages.push_back(r.msg);
  }
  return messages;
}

}  // namespace

std::optional<std::string> DecodeJournalString(const std::string& body) {
  std::string out;
  for (size_t i = 0; i < body.size(); ++i) {
    const auto c = static_cast<unsigned char>(body[i]);
    if (c < 0x20 || c >= 0x80 || c == '"') return std::nullopt;
    if (c != '\\') {
      out += static_cast<char>(c);
      continue;
    }
    if (++i == body.size()) return std::nullopt;
    switch (body[i]) {
      case '"':
        out += '"';
        break;
      case '\\':
        out += '\\';
        break;
      case '/':
        out += '/';
        break;
      case 'b':
        out += '\b';
        break;
      case 'f':
        out += '\f';
        break;
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case 'u': {
        if (i + 4 >= body.size()) return std::nullopt;
        const std::string hex = body.substr(i + 1, 4);
        if (hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
          return std::nullopt;
        }
        const unsigned long code = std::stoul(hex, nullptr, 16);
        if (code > 0xff) return std::nullopt;
        out += static_cast<char>(code);
        i += 4;
        break;
      }
      default:
        return std::nullopt;
    }
  }
  return out;
}

std::vector<JournalRecord> ParseJournal(const std::string& text) {
  std::vector<JournalRecord> records;
  EXPECT_TRUE(text.empty() || text.back() == '\n') << "journal does not end in a line feed";
  for (const std::string& line : android::base::Split(text, "\n")) {
    if (line.empty()) continue;
    JournalRecord r;
    const bool parsed = LineParser(line).Parse(&r);
    EXPECT_TRUE(parsed) << "malformed journal line: " << line;
    if (parsed) records.push_back(r);
  }
  return records;
}

CommandResult RunCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env) {
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
  CommandResult result;
  result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  result.out = ReadFile(out.path);
  result.err = ReadFile(err.path);
  return result;
}

Device::Device() : root_(std::string(dir_.path) + "/phone") {
  const CommandResult init = RunCommand({ZQ_DEVSIM, "init", root_});
  EXPECT_EQ(init.status, 0) << init.err;
}

void Device::Panic(const std::vector<std::string>& options) {
  std::vector<std::string> argv = {ZQ_DEVSIM, "panic",     root_, "--kmsg-size",
                                   "64",      "--db-size", "128"};
  argv.insert(argv.end(), options.begin(), options.end());
  const CommandResult panic = RunCommand(argv);
  ASSERT_EQ(panic.status, 0) << panic.err;
}

CommandResult Device::Boot(const std::string& userland, const std::string& faketime,
                           const std::map<std::string, std::string>& env,
                           const std::vector<std::string>& options) {
  std::vector<std::string> argv = {"timeout", "120", ZQ_DEVSIM, "boot", root_};
  argv.insert(argv.end(), {"--userland", userland});
  if (!faketime.empty()) argv.insert(argv.end(), {"--faketime", faketime});
  argv.insert(argv.end(), options.begin(), options.end());
  std::map<std::string, std::string> full_env = env;
  full_env.emplace("ZQ_MRDUMP_COLLECT", ZQ_MRDUMP_COLLECT);
  full_env.emplace("TZ", "UTC");
  return RunCommand(argv, full_env);
}

std::optional<std::string> Device::Prop(const std::string& name) const {
  std::string value;
  if (!android::base::ReadFileToString(Path("properties/" + name), &value)) return std::nullopt;
  return value;
}

void Device::SetProp(const std::string& name, const std::string& value) {
  const CommandResult set = RunCommand({ZQ_DEVSIM, "setprop", root_, name, value});
  ASSERT_EQ(set.status, 0) << set.err;
}

std::vector<JournalRecord> Device::Journal() const {
  return ParseJournal(ReadFile(Path("journal")));
}

std::vector<std::string> Device::Log() const {
  std::vector<std::string> messages;
  for (const JournalRecord& r : Journal()) {
    if (r.ev == "log") messages.push_back(r.msg);
  }
  return messages;
}

std::vector<std::string> Device::Sets(const std::string& name) const {
  std::vector<std::string> values;
  for (const JournalRecord& r : Journal()) {
    if (r.ev == "set" && r.name == name) values.push_back(r.value);
  }
  return values;
}

size_t Device::Gets(const std::string& name) const {
  const std::vector<JournalRecord> journal = Journal();
  return std::count_if(journal.begin(), journal.end(),
                       [&](const JournalRecord& r) { return r.ev == "get" && r.name == name; });
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

std::vector<JournalRecord> InProcessPlatform::Journal() const {
  return ParseJournal(ReadFile(journal_.path));
}

std::vector<std::string> InProcessPlatform::Log() const {
  return Messages(Journal());
}

std::optional<std::string> InProcessPlatform::Prop(const std::string& name) const {
  std::string value;
  if (!android::base::ReadFileToString(AreaPath(name), &value)) return std::nullopt;
  return value;
}

bool Contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}
