// Runs the boots of scenarios.txt on simulated phones, each with the workstation's tools and with
// the phone's; then a crash loop of 50 boots, and a power cut at every change a boot makes.
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "device.h"

namespace {

namespace fs = std::filesystem;
using android::base::Split;
using android::base::StartsWith;
using android::base::StringPrintf;

#ifdef ZQ_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

struct Step {
  int line;
  std::string only;  // the one userland the step is for, or empty
  std::string verb, arg;
};

struct Scenario {
  std::string name;
  std::vector<Step> steps;
};

void PrintTo(const Scenario& s, std::ostream* os) {
  *os << s.name;
}

// |text| with \n and \xNN replaced by the bytes they name.
std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.compare(i, 2, "\\n") == 0) {
      out += '\n';
      ++i;
    } else if (text.compare(i, 2, "\\x") == 0 && i + 3 < text.size()) {
      out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

// The first word of |text| and the rest, both unescaped.
std::pair<std::string, std::string> Head(const std::string& text) {
  const size_t blank = text.find(' ');
  if (blank == std::string::npos) return {Unescape(text), ""};
  return {Unescape(text.substr(0, blank)), Unescape(text.substr(blank + 1))};
}

std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  for (const std::string& word : Split(text, " ")) {
    if (!word.empty()) words.push_back(Unescape(word));
  }
  return words;
}

std::vector<Scenario> LoadScenarios() {
  std::vector<Scenario> scenarios;
  std::vector<std::string> lines = Split(Slurp(ZQ_SCENARIOS), "\n");
  for (size_t n = 0; n < lines.size(); ++n) {
    std::string line = lines[n];
    if (line.empty() || line[0] == '#') continue;
    std::string only;
    for (const char* userland : {"host", "android"}) {
      if (StartsWith(line, std::string(userland) + ": ")) only = userland;
    }
    if (!only.empty()) line = line.substr(only.size() + 2);
    const size_t blank = line.find(' ');
    Step step{static_cast<int>(n + 1), only, line.substr(0, blank),
              blank == std::string::npos ? "" : line.substr(blank + 1)};
    if (step.verb == "scenario") {
      scenarios.push_back({step.arg, {}});
    } else if (!scenarios.empty()) {
      scenarios.back().steps.push_back(step);
    }
  }
  return scenarios;
}

size_t CountReads(const std::vector<Record>& journal, const std::string& name) {
  return std::count_if(journal.begin(), journal.end(),
                       [&](const Record& r) { return r.ev == "get" && r.name == name; });
}

long long TimeTaken(const std::vector<std::string>& log) {
  for (const std::string& line : log) {
    if (StartsWith(line, "Time taken: ")) return std::stoll(line.substr(12));
  }
  return -1;
}

void Prepare(const Device& d, const Step& step) {
  const auto [first, rest] = Head(step.arg);
  const std::string path = d.Path(first);
  if (step.verb == "setprop") {
    d.SetProp(first, rest);
  } else if (step.verb == "write") {
    fs::create_directories(fs::path(path).parent_path());
    if (path.back() == '/') return;
    ASSERT_TRUE(android::base::WriteStringToFile(rest, path)) << path;
  } else if (step.verb == "mtime") {
    const struct timespec times[2] = {{std::stol(rest), 0}, {std::stol(rest), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  } else if (step.verb == "symlink") {
    fs::create_symlink(first, d.Path(rest));
  } else if (step.verb == "rm") {
    fs::remove_all(path);
  }
}

void Check(const Device& d, const Step& step, const std::vector<Record>& journal,
           const std::vector<std::string>& log) {
  const auto [first, rest] = Head(step.arg);
  const std::vector<std::string> words = Words(step.arg);
  if (step.verb == "nolog") {
    for (const std::string& line : log) EXPECT_EQ(line.find(step.arg), std::string::npos) << line;
  } else if (step.verb == "prop") {
    EXPECT_EQ(d.Prop(first), rest.empty() ? std::nullopt : std::optional(rest)) << first;
  } else if (step.verb == "reads") {
    EXPECT_EQ(CountReads(journal, first), std::stoul(rest)) << first;
  } else if (step.verb == "count") {
    const size_t blank = step.arg.rfind(' ');
    const std::string line = Unescape(step.arg.substr(0, blank));
    EXPECT_EQ(std::count(log.begin(), log.end(), line), std::stol(step.arg.substr(blank + 1)));
  } else if (step.verb == "took") {
    EXPECT_GE(TimeTaken(log), std::stoll(words.at(0)));
    if (words.size() > 1) {
      EXPECT_LE(TimeTaken(log), std::stoll(words.at(1)));
    }
  } else if (step.verb == "file") {
    EXPECT_EQ(Slurp(d.Path(first)), rest);
  } else if (step.verb == "same") {
    EXPECT_EQ(Slurp(d.Path(first)), Slurp(d.Path(rest))) << first << " and " << rest;
  } else if (step.verb == "entries") {
    EXPECT_EQ(Entries(d.Path(first)), std::vector<std::string>(words.begin() + 1, words.end()));
  } else if (step.verb == "members") {
    std::vector<std::string> expected(words.begin() + 1, words.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Members(d.Path(first)), expected);
  } else if (step.verb == "mode") {
    const fs::perms mode = static_cast<fs::perms>(std::stoul(rest, nullptr, 8));
    EXPECT_EQ(fs::status(d.Path(first)).permissions(), mode) << first;
    if (!fs::is_directory(d.Path(first))) return;
    for (const auto& entry : fs::recursive_directory_iterator(d.Path(first))) {
      EXPECT_EQ(entry.status().permissions(), mode) << entry.path();
    }
  } else if (!std::set<std::string>{"panic", "boot", "env", "setprop", "write", "mtime", "symlink",
                                    "rm", "status", "log", "stdout"}
                  .count(step.verb)) {
    ADD_FAILURE() << "unknown check " << step.verb;
  }
}

class ScenarioTest : public ::testing::TestWithParam<std::tuple<Scenario, std::string>> {};

TEST_P(ScenarioTest, EndsAsDesigned) {
  const auto& [scenario, userland] = GetParam();
  Device device;
  std::vector<std::string> panic, boot;
  std::map<std::string, std::string> env;
  std::vector<std::string> statuses = {"wait", "running", "1"}, log, out;
  std::vector<Step> steps;
  std::copy_if(scenario.steps.begin(), scenario.steps.end(), std::back_inserter(steps),
               [&](const Step& s) { return s.only.empty() || s.only == userland; });
  for (const Step& step : steps) {
    if (step.verb == "panic") panic = Words(step.arg);
    if (step.verb == "boot") boot = Words(step.arg);
    if (step.verb == "env") env.insert(Head(step.arg));
    if (step.verb == "status") statuses = Words(step.arg);
    if (step.verb == "log") log.push_back(Unescape(step.arg));
    if (step.verb == "stdout") out.push_back(Unescape(step.arg));
  }
  if (kSanitized && std::find(boot.begin(), boot.end(), "--memcheck") != boot.end()) {
    GTEST_SKIP()
        << "valgrind cannot run a daemon built with AddressSanitizer; the plain build runs this";
  }
  device.Panic(panic);
  for (const Step& step : steps) Prepare(device, step);
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
    if (r.ev == "log") {
      EXPECT_EQ(r.buf + " " + r.tag, "system zq_mrdump_collect") << r.msg;
    }
  }
  EXPECT_EQ(seen, statuses);
  // An abnormal end leaves the status at "running", with no "Time taken: " and no exit status 0.
  const bool normal = statuses.back() == "1";
  EXPECT_EQ(result.status == 0, normal) << result.err;
  EXPECT_EQ(TimeTaken(messages) >= 0, normal);
  // Within what the journal saw of the run, on the same clock, however fast that clock ran.
  if (normal) {
    EXPECT_LE(TimeTaken(messages), (journal.back().mono_ns - journal.front().mono_ns) / 1'000'000);
  }
  EXPECT_TRUE(InOrder(messages, log));
  EXPECT_TRUE(InOrder(Split(result.out, "\n"), out));
  for (const Step& step : steps) {
    SCOPED_TRACE(StringPrintf("scenarios.txt:%d", step.line));
    Check(device, step, journal, messages);
  }
}

INSTANTIATE_TEST_SUITE_P(Boots, ScenarioTest,
                         ::testing::Combine(::testing::ValuesIn(LoadScenarios()),
                                            ::testing::Values("host", "android")),
                         [](const auto& info) {
                           std::string name =
                               std::get<0>(info.param).name + "_" + std::get<1>(info.param);
                           for (char& c : name)
                             c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
                           return name;
                         });

// A phone that panics at every boot: 50 boots on one device root with a new panic each, with a
// clock that moves on and with one that shows the same time at every boot.
class CrashLoopTest : public ::testing::TestWithParam<std::tuple<std::string, bool>> {};

TEST_P(CrashLoopTest, EveryPanicIsArchivedAndStorageStaysBounded) {
  const auto& [userland, frozen] = GetParam();
  Device device;
  const std::string dir = device.Path("mnt/vendor/zq_log/panic_log/");
  auto time = [&](int boot) { return StringPrintf("2024-05-01-03-%02d-05", frozen ? 4 : boot); };
  auto name = [&](int boot) { return StringPrintf("ZQpanic_%d_", boot) + time(boot); };
  std::string previous_kmsg;
  for (int boot = 0; boot < 50; ++boot) {
    SCOPED_TRACE(boot);
    fs::remove_all(device.Path("data/vendor/aee_exp/db.00"));
    device.Panic();
    const std::string kmsg = Slurp(device.Path("data/vendor/aee_exp/last_kmsg.txt"));
    const Result result = device.Boot({"--userland", userland, "--faketime",
                                       StringPrintf("@2024-05-01 03:%02d:05", frozen ? 4 : boot)});
    ASSERT_EQ(result.status, 0) << result.err;
    ASSERT_EQ(device.Prop("vendor.minidump.cp.status"), "1");
    EXPECT_EQ(device.Prop("vendor.zq_dump.last_panic_log"), name(boot));

    // Five archives at most, this boot's directory beside the newest.
    std::vector<std::string> expected;
    for (int kept = std::max(0, boot - 4); kept < boot; ++kept)
      expected.push_back(name(kept) + ".tar.gz");
    expected.insert(expected.end(), {name(boot), name(boot) + ".tar.gz"});
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Entries(dir), expected);
    EXPECT_EQ(Slurp(dir + name(boot) + "/last_kmsg.txt"), kmsg);
    EXPECT_EQ(Entries(device.Path("data/vendor/dump_collect")).size(),
              frozen ? 1u : std::min(boot + 1, 2));
    // The previous boot's evidence, compressed again by this boot's rotation, is whole.
    if (boot > 0) {
      const Result archived = ::Run(
          {"tar", "-xzOf", dir + name(boot - 1) + ".tar.gz", name(boot - 1) + "/last_kmsg.txt"});
      EXPECT_TRUE(archived.status == 0 && archived.out == previous_kmsg) << archived.err;
    }
    ExpectWholeArchives(device, true);
    previous_kmsg = kmsg;
  }
}

INSTANTIATE_TEST_SUITE_P(Boots, CrashLoopTest,
                         ::testing::Combine(::testing::Values("host", "android"),
                                            ::testing::Bool()),
                         [](const auto& info) {
                           return std::get<0>(info.param) +
                                  (std::get<1>(info.param) ? "_frozen_clock" : "_moving_clock");
                         });

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
  // LeakSanitizer cannot work under the power cut's ptrace; AddressSanitizer still does.
  std::map<std::string, std::string> env;
  if (kSanitized)
    env["ASAN_OPTIONS"] = std::string(getenv("ASAN_OPTIONS") ?: "") + ":detect_leaks=0";
  auto boot = [&](const Device& d, const std::string& cut, const char* time) {
    return d.Boot({"--userland", userland, "--power-cut", cut, "--faketime", time}, env);
  };
  // Cut at the first change, the second, ... until a boot makes fewer changes than the cut
  // waits for and ends on its own: no count taken from another boot decides where to stop.
  size_t k = 1;
  for (;; ++k) {
    SCOPED_TRACE(StringPrintf("power cut at change %zu", k));
    Device device;
    device.CopyFrom(history);
    const Result cut = boot(device, std::to_string(k), "@2024-05-01 03:10:05");
    if (cut.status == 0) break;
    ASSERT_EQ(cut.status, 137) << cut.err;
    const Result next = boot(device, "0", "@2024-05-01 03:11:05");
    ASSERT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(device.Prop("vendor.minidump.cp.status"), "1");

    const std::string dir = device.Path("mnt/vendor/zq_log/panic_log/");
    std::map<long long, std::string> names;  // count to name: a count never names two archives
    std::vector<std::string> directories;
    size_t archives = 0;
    for (const std::string& entry : Entries(dir)) {
      const std::string stem = entry.substr(0, entry.find(".tar.gz"));
      const std::vector<std::string> fields = Split(stem, "_");
      ASSERT_EQ(fields.size(), 3u) << entry;
      EXPECT_EQ(names.emplace(std::stoll(fields[1]), stem).first->second, stem) << entry;
      if (fs::is_directory(dir + entry)) directories.push_back(entry);
      archives += entry != stem;
    }
    ASSERT_EQ(directories.size(), 1u);
    EXPECT_EQ(directories[0], names.rbegin()->second) << "the newest archive is the directory";
    EXPECT_EQ(Slurp(dir + directories[0] + "/last_kmsg.txt"), kmsg);
    EXPECT_LE(archives, 5u);
    EXPECT_LE(Entries(device.Path("data/vendor/dump_collect")).size(), 2u);
    // Only what the cut boot was writing in its own staging folder may be cut short.
    ExpectWholeArchives(device, false, "data/vendor/dump_collect/panic_log_2024-05-01-03-10-05");
  }
  EXPECT_GT(k, 20u) << "a boot makes a few dozen changes";
  std::cout << userland << ": " << k - 1 << " kill points tried\n";
}

INSTANTIATE_TEST_SUITE_P(Boots, KillPointTest, ::testing::Values("host", "android"));

}  // namespace
