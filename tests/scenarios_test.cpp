// Runs the boots of scenarios.txt on simulated phones, each with the workstation's tools and with
// the phone's; then a crash loop of 50 boots, and a power cut at every change a boot makes.
#include <sys/stat.h>

#include <climits>
#include <filesystem>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "device.h"

namespace {

namespace fs = std::filesystem;
using android::base::EndsWith;
using android::base::Join;
using android::base::Split;
using android::base::StartsWith;
using android::base::StringPrintf;

constexpr bool kSanitized = ZQ_SANITIZED;

struct Step {
  int line;
  std::string verb, arg;
};

struct Scenario {
  std::string name, id;     // "userland: name", and the same in letters, digits and "_"
  std::vector<Step> steps;  // for the userland at hand
};

void PrintTo(const Scenario& s, std::ostream* os) {
  *os << s.name;
}

// |text| with each \xNN replaced by the byte it names.
std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.compare(i, 2, "\\x") == 0 && i + 3 < text.size()) {
      out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

// The first word of |text| and the rest, both unescaped; all its words.
std::pair<std::string, std::string> Head(const std::string& text) {
  const size_t blank = std::min(text.find(' '), text.size());
  return {Unescape(text.substr(0, blank)), Unescape(text.substr(std::min(blank + 1, text.size())))};
}

std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  for (const std::string& word : Split(text, " ")) {
    if (!word.empty()) words.push_back(Unescape(word));
  }
  return words;
}

// The scenarios once for each userland, each with its steps for that userland: those without a
// "host: " or "android: " in front, and those with its own.
std::vector<Scenario> LoadScenarios() {
  std::vector<Scenario> scenarios;
  const std::vector<std::string> lines = Split(Slurp(ZQ_SCENARIOS), "\n");
  for (const std::string userland : {"host", "android"}) {
    for (size_t n = 0; n < lines.size(); ++n) {
      std::string line = lines[n];
      if (StartsWith(line, userland + ": ")) line = line.substr(userland.size() + 2);
      if (line.empty() || line[0] == '#' || StartsWith(line, "host: ") ||
          StartsWith(line, "android: ")) {
        continue;
      }
      const size_t blank = std::min(line.find(' '), line.size());
      const Step step{static_cast<int>(n + 1), line.substr(0, blank),
                      line.substr(std::min(blank + 1, line.size()))};
      std::string id = userland + "_" + step.arg;
      for (char& c : id) c = isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
      if (step.verb == "scenario") scenarios.push_back({userland + ": " + step.arg, id, {}});
      if (step.verb != "scenario" && !scenarios.empty()) scenarios.back().steps.push_back(step);
    }
  }
  return scenarios;
}

// Whether |text| is |pattern|, where each "*" of |pattern| stands for any run of characters.
bool Glob(const std::string& pattern, const std::string& text) {
  const std::vector<std::string> pieces = Split(pattern, "*");
  size_t at = 0;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0 && i + 1 == pieces.size()) {
      return text.size() >= at + pieces[i].size() && EndsWith(text, pieces[i]);
    }
    at = text.find(pieces[i], at);
    if (at == std::string::npos || (i == 0 && at != 0)) return false;
    at += pieces[i].size();
  }
  return at == text.size();
}

// Whether the non-blank |lines| hold |ordered| in that order and |anywhere| anywhere; with
// |whole|, nothing else.
::testing::AssertionResult Holds(const std::vector<std::string>& lines,
                                 const std::vector<std::string>& ordered,
                                 std::vector<std::string> anywhere, bool whole) {
  std::string wrong;
  auto next = ordered.begin();
  for (const std::string& line : lines) {
    const auto glob = [&](const std::string& pattern) { return Glob(pattern, line); };
    const auto any = std::find_if(anywhere.begin(), anywhere.end(), glob);
    if (next != ordered.end() && glob(*next)) {
      ++next;
    } else if (any != anywhere.end()) {
      anywhere.erase(any);
    } else if (whole && !line.empty()) {
      wrong += "unexpected: \"" + line + "\"\n";
    }
  }
  anywhere.insert(anywhere.begin(), next, ordered.end());
  for (const std::string& pattern : anywhere) wrong += "missing: \"" + pattern + "\"\n";
  if (wrong.empty()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << wrong << "in:\n" << Join(lines, "\n");
}

long long TimeTaken(const std::vector<std::string>& log) {
  for (const std::string& line : log) {
    if (StartsWith(line, "Time taken: ")) return std::stoll(line.substr(12));
  }
  return -1;
}

// The sorted members of archive |path|, or the error of a listing that failed.
std::vector<std::string> Members(const std::string& path) {
  const Result list = Run({"tar", "-tzf", path});
  if (list.status != 0) return {"error: " + list.err};
  std::vector<std::string> members = android::base::Split(list.out, "\n");
  members.pop_back();  // after the last line feed
  std::sort(members.begin(), members.end());
  return members;
}

// Carries out a step that comes before the boot; the others are left alone.
void Prepare(const Device& d, const Step& step) {
  const auto [first, rest] = Head(step.arg);
  const std::string path = d.Path(first);
  if (step.verb == "setprop") d.Sim("setprop", {first, rest});
  if (step.verb == "write") {
    fs::create_directories(fs::path(path).parent_path());
    ASSERT_TRUE(path.back() == '/' || android::base::WriteStringToFile(rest, path)) << path;
  }
  if (step.verb == "mtime") {
    const struct timespec times[2] = {{std::stol(rest), 0}, {std::stol(rest), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  }
  if (step.verb == "symlink") fs::create_symlink(first, d.Path(rest));
  if (step.verb == "rm") fs::remove_all(path);
}

// Checks what a step after the boot says; the others are left alone.
void Check(const Device& d, const Step& step, const std::vector<Record>& journal,
           const std::vector<std::string>& log) {
  const auto [first, rest] = Head(step.arg);
  const std::vector<std::string> words = Words(step.arg);
  const std::vector<std::string> tail(words.begin() + std::min<size_t>(1, words.size()),
                                      words.end());
  if (step.verb == "prop") {
    EXPECT_EQ(d.Prop(first), rest.empty() ? std::nullopt : std::optional(rest)) << first;
  } else if (step.verb == "reads") {
    EXPECT_EQ(std::count_if(journal.begin(), journal.end(),
                            [&](const Record& r) { return r.ev == "get" && r.name == first; }),
              std::stol(rest));
  } else if (step.verb == "took") {
    EXPECT_GE(TimeTaken(log), std::stoll(first));
    EXPECT_LE(TimeTaken(log), rest.empty() ? LLONG_MAX : std::stoll(rest));
  } else if (step.verb == "file" || step.verb == "same") {
    EXPECT_EQ(Slurp(d.Path(first)), step.verb == "file" ? rest : Slurp(d.Path(rest))) << first;
  } else if (step.verb == "entries") {
    EXPECT_EQ(Entries(d.Path(first)), tail);
  } else if (step.verb == "members") {
    EXPECT_EQ(Members(d.Path(first)), tail);
  } else if (step.verb == "mode") {
    const auto mode = static_cast<fs::perms>(std::stoul(rest, nullptr, 8));
    EXPECT_EQ(fs::status(d.Path(first)).permissions(), mode) << first;
    if (!fs::is_directory(d.Path(first))) return;
    for (const auto& entry : fs::recursive_directory_iterator(d.Path(first))) {
      EXPECT_EQ(entry.status().permissions(), mode) << entry.path();
    }
  }
}

class ScenarioTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(ScenarioTest, EndsAsDesigned) {
  const Scenario& scenario = GetParam();
  const std::string userland = scenario.name.substr(0, scenario.name.find(':'));
  std::vector<std::string> panic, boot, statuses = {"wait", "running", "1"}, ordered, anywhere, out;
  std::map<std::string, std::string> env;
  const std::string known =
      " panic boot env setprop write mtime symlink rm status log logged "
      "stdout prop reads took file same entries members mode ";
  for (const Step& step : scenario.steps) {
    EXPECT_NE(known.find(" " + step.verb + " "), std::string::npos)
        << "scenarios.txt:" << step.line << ": " << step.verb;
    if (step.verb == "panic") panic = Words(step.arg);
    if (step.verb == "boot") boot = Words(step.arg);
    if (step.verb == "env") env.insert(Head(step.arg));
    if (step.verb == "status") statuses = Words(step.arg);
    if (step.verb == "log") ordered.push_back(Unescape(step.arg));
    if (step.verb == "logged") anywhere.push_back(Unescape(step.arg));
    if (step.verb == "stdout") out.push_back(Unescape(step.arg));
  }
  if (kSanitized && std::find(boot.begin(), boot.end(), "--memcheck") != boot.end()) {
    GTEST_SKIP()
        << "valgrind cannot run a daemon built with AddressSanitizer; the plain build runs this";
  }
  Device device;
  device.Panic(panic);
  for (const Step& step : scenario.steps) Prepare(device, step);
  if (std::find(boot.begin(), boot.end(), "--faketime") == boot.end()) {
    boot.insert(boot.end(), {"--faketime", "@2024-05-01 03:04:05"});
  }
  boot.insert(boot.begin(), {"--userland", userland});
  const Result result = device.Boot(boot, env);

  const std::vector<Record> journal = device.Journal();
  const std::vector<std::string> messages = Messages(journal);
  std::vector<std::string> seen;
  for (const Record& r : journal) {
    if (r.ev == "set" && r.name == "vendor.minidump.cp.status") seen.push_back(r.value);
    EXPECT_TRUE(r.ev != "log" || r.buf + " " + r.tag == "system zq_mrdump_collect") << r.msg;
  }
  EXPECT_EQ(seen, statuses);
  // An abnormal end leaves the status at "running", with no "Time taken: " and no exit status 0.
  const bool normal = statuses.back() == "1";
  EXPECT_EQ(result.status == 0, normal) << result.err;
  // Within what the journal saw of the run, on the same clock, however fast that clock ran.
  EXPECT_LE(TimeTaken(messages), (journal.back().mono_ns - journal.front().mono_ns) / 1'000'000);
  EXPECT_TRUE(Holds(messages, ordered, anywhere, true));
  EXPECT_TRUE(Holds(Split(result.out, "\n"), out, {}, false));
  for (const Step& step : scenario.steps) {
    SCOPED_TRACE(StringPrintf("scenarios.txt:%d", step.line));
    Check(device, step, journal, messages);
  }
}

INSTANTIATE_TEST_SUITE_P(Boots, ScenarioTest, ::testing::ValuesIn(LoadScenarios()),
                         [](const auto& info) { return info.param.id; });

// After a normal boot that filed |kmsg|: no count names two archives, the newest archive is the
// one directory and holds |kmsg|, five archives and two staging folders at most. Every .tar.gz
// but those under |except| is a complete gzip of a complete tar holding its own folder and only
// what the daemon puts in one (with |exact|, all of it): an exception database, or a panic archive
// of the kernel log and that database.
void ExpectFiled(const Device& d, const std::string& kmsg, bool exact, const std::string& except) {
  EXPECT_EQ(d.Prop("vendor.minidump.cp.status"), "1");
  const std::string dir = d.Path("mnt/vendor/zq_log/panic_log/");
  std::map<long long, std::string> names;
  std::vector<std::string> directories;
  for (const std::string& entry : Entries(dir)) {
    const std::string stem = entry.substr(0, entry.find(".tar.gz"));
    const std::vector<std::string> fields = Split(stem, "_");
    ASSERT_EQ(fields.size(), 3U) << entry;
    EXPECT_EQ(names.emplace(std::stoll(fields[1]), stem).first->second, stem) << entry;
    if (fs::is_directory(dir + entry)) directories.push_back(entry);
  }
  ASSERT_EQ(directories, std::vector<std::string>{names.rbegin()->second});
  EXPECT_EQ(Slurp(dir + directories[0] + "/last_kmsg.txt"), kmsg);
  EXPECT_LE(Entries(dir).size(), 6U);
  EXPECT_LE(Entries(d.Path("data/vendor/dump_collect")).size(), 2U);

  const std::map<std::string, std::vector<std::string>> kinds = {
      {"db.", {"SYS_KERNEL_LOG", "SYS_MINI_RDUMP", "ZZ_INTERNAL", "__exp_main.txt"}},
      {"ZQpanic_", {"db.00.tar.gz", "last_kmsg.txt"}}};
  for (const char* partition : {"data", "mnt"}) {
    for (const auto& entry : fs::recursive_directory_iterator(d.Path(partition))) {
      const std::string path = entry.path();
      const std::string name = entry.path().filename();
      if (!EndsWith(name, ".tar.gz") || !entry.is_regular_file()) continue;
      if (!except.empty() && StartsWith(path, d.Path(except))) continue;
      const std::string stem = name.substr(0, name.size() - 7);
      std::vector<std::string> expected = {stem + "/"};
      for (const auto& [prefix, files] : kinds) {
        if (!StartsWith(stem, prefix)) continue;
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
          << path << ": " << Join(members, " ");
    }
  }
}

// A phone that panics at every boot: 50 boots on one device root with a new panic each, with a
// clock that moves on and with one that shows the same time at every boot.
class CrashLoopTest : public ::testing::TestWithParam<std::string> {};

TEST_P(CrashLoopTest, EveryPanicIsArchivedAndStorageStaysBounded) {
  const std::string userland = GetParam().substr(0, GetParam().find('_'));
  const bool frozen = EndsWith(GetParam(), "frozen_clock");
  Device device;
  const std::string dir = device.Path("mnt/vendor/zq_log/panic_log/");
  auto time = [&](int boot) { return StringPrintf("2024-05-01-03-%02d-05", frozen ? 4 : boot); };
  auto name = [&](int boot) { return StringPrintf("ZQpanic_%d_", boot) + time(boot); };
  for (int boot = 0; boot < 50; ++boot) {
    SCOPED_TRACE(boot);
    fs::remove_all(device.Path("data/vendor/aee_exp/db.00"));
    device.Panic();
    const std::string kmsg = Slurp(device.Path("data/vendor/aee_exp/last_kmsg.txt"));
    const Result result = device.Boot({"--userland", userland, "--faketime",
                                       StringPrintf("@2024-05-01 03:%02d:05", frozen ? 4 : boot)});
    ASSERT_EQ(result.status, 0) << result.err;
    ExpectFiled(device, kmsg, true, "");
    EXPECT_EQ(device.Prop("vendor.zq_dump.last_panic_log"), name(boot));
    // The archives by count and time: this boot's directory beside the newest.
    std::vector<std::string> expected = {name(boot), name(boot) + ".tar.gz"};
    for (int kept = std::max(0, boot - 4); kept < boot; ++kept) {
      expected.push_back(name(kept) + ".tar.gz");
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Entries(dir), expected);
    EXPECT_EQ(Entries(device.Path("data/vendor/dump_collect")).size(),
              frozen ? 1U : std::min(boot + 1, 2));
  }
}

INSTANTIATE_TEST_SUITE_P(Boots, CrashLoopTest,
                         ::testing::Values("host_moving_clock", "host_frozen_clock",
                                           "android_moving_clock", "android_frozen_clock"),
                         [](const auto& info) { return info.param; });

// The power cut at each change a boot makes to the persistent partitions, each followed by a
// normal boot, on a phone with history: staging folders to retire and archives to rotate.
class KillPointTest : public ::testing::TestWithParam<std::string> {};

TEST_P(KillPointTest, TheNextBootMakesGoodACutAnywhere) {
  const std::string userland = GetParam();
  Device history;
  for (int boot = 0; boot < 7; ++boot) {
    fs::remove_all(history.Path("data/vendor/aee_exp/db.00"));
    history.Panic();
    if (boot == 6) break;  // the panic that the cut boot finds
    ASSERT_EQ(history.Boot({"--faketime", StringPrintf("@2024-05-01 03:0%d:05", boot)}).status, 0);
  }
  const std::string kmsg = Slurp(history.Path("data/vendor/aee_exp/last_kmsg.txt"));
  auto boot = [&](const Device& d, size_t cut, const char* time) {
    return d.Boot({"--userland", userland, "--power-cut", std::to_string(cut), "--faketime", time});
  };
  // Cut at the first change, the second, ... until a boot makes fewer changes than the cut
  // waits for and ends on its own: no count taken from another boot decides where to stop.
  size_t k = 1;
  for (;; ++k) {
    SCOPED_TRACE(StringPrintf("power cut at change %zu", k));
    Device device;
    ASSERT_EQ(::Run({"cp", "-a", history.Path("."), device.Path("")}).status, 0);
    const Result cut = boot(device, k, "@2024-05-01 03:10:05");
    if (cut.status == 0) break;
    ASSERT_EQ(cut.status, 137) << cut.err;
    const Result next = boot(device, 0, "@2024-05-01 03:11:05");
    ASSERT_EQ(next.status, 0) << next.err;
    // Only what the cut boot was writing in its own staging folder may be cut short.
    ExpectFiled(device, kmsg, false, "data/vendor/dump_collect/panic_log_2024-05-01-03-10-05");
  }
  EXPECT_GT(k, 20U) << "a boot makes a few dozen changes";
  std::cout << userland << ": " << k - 1 << " kill points tried\n";
}

INSTANTIATE_TEST_SUITE_P(Boots, KillPointTest, ::testing::Values("host", "android"));

}  // namespace
