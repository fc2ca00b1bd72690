// The boots of scenarios.txt with both userlands, a crash loop, and power cuts at every change.
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

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
constexpr uid_t kSystem = 1000;  // Android's system user and group, the daemon's service's

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

// The first word of |text| and the rest.
std::pair<std::string, std::string> Head(const std::string& text) {
  const size_t blank = std::min(text.find(' '), text.size());
  return {text.substr(0, blank), text.substr(std::min(blank + 1, text.size()))};
}

// The table's vocabulary: values, named log lines, and runs made of them ("normal" the first).
struct Vocabulary {
  std::map<std::string, std::string> values, lines;
  std::map<std::string, std::vector<std::string>> runs;
};

// The scenarios once for each userland, with the steps for it; the vocabulary to |vocabulary|.
std::vector<Scenario> LoadScenarios(Vocabulary* vocabulary = nullptr) {
  std::vector<Scenario> scenarios;
  const std::vector<std::string> lines = Split(Slurp(ZQ_SCENARIOS), "\n");
  for (const std::string userland : {"host", "android"}) {
    const size_t first = scenarios.size();
    for (size_t n = 0; n < lines.size(); ++n) {
      std::string line = lines[n];
      if (StartsWith(line, userland + ": ")) line = line.substr(userland.size() + 2);
      if (line.empty() || line[0] == '#' || StartsWith(line, "host: ") ||
          StartsWith(line, "android: ")) {
        continue;
      }
      const auto [verb, arg] = Head(line);
      if (verb == "scenario") {
        std::string id = userland + "_" + arg;
        for (char& c : id) c = isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
        scenarios.push_back({userland + ": " + arg, id, {}});
      } else if (scenarios.size() > first) {
        scenarios.back().steps.push_back({static_cast<int>(n + 1), verb, arg});
      } else if (vocabulary != nullptr && userland == "host") {
        const auto [name, rest] = Head(arg);
        if (verb == "set") vocabulary->values[name] = rest;
        if (verb == "normal") vocabulary->runs["normal"].push_back(name);
        if (verb == "normal" || verb == "line") vocabulary->lines[name] = android::base::Trim(rest);
        if (verb == "run") vocabulary->runs[name] = Split(android::base::Trim(rest), " ");
      }
    }
  }
  return scenarios;
}

using Values = std::map<std::string, std::string>;

// |text| with every {KEY} filled in from |values|, through the values it names in turn, and each
// \xNN replaced by the byte it names.
std::string Fill(const Values& values, std::string text) {
  for (size_t open; (open = text.find('{')) != std::string::npos;) {
    const size_t close = text.find('}', open);
    const auto value = values.find(text.substr(open + 1, close - open - 1));
    if (close == std::string::npos || value == values.end()) break;
    text.replace(open, close - open + 1, value->second);
  }
  for (size_t i = 0; (i = text.find("\\x", i)) != std::string::npos && i + 3 < text.size(); ++i) {
    text.replace(i, 4, 1, static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16)));
  }
  return text;
}

// The log a scenario expects, in order: its run's lines, with its log, drop and add steps made.
std::vector<std::string> ExpectedLog(const Vocabulary& v, const std::vector<Step>& steps,
                                     const Values& values) {
  std::string run = "normal";
  for (const Step& step : steps) {
    if (step.verb == "run") run = step.arg;
  }
  std::vector<std::pair<std::string, std::string>> log;  // name, text
  for (const std::string& name : v.runs.at(run)) log.emplace_back(name, v.lines.at(name));
  const auto at = [&](const std::string& name) {
    const auto it =
        std::find_if(log.begin(), log.end(), [&](const auto& l) { return l.first == name; });
    EXPECT_NE(it, log.end()) << "no line " << name << " in run " << run;
    return it;
  };
  // "@NAME" is the named line, "{}" the text it stands in for.
  const auto line = [&](const std::string& text, const std::string& own) {
    return StartsWith(text, "@") ? v.lines.at(text.substr(1))
                                 : android::base::StringReplace(text, "{}", own, true);
  };
  std::map<std::string, int> added;
  for (const Step& step : steps) {
    const auto [name, text] = Head(step.arg);
    if (step.verb == "log") {
      auto it = at(name);
      it->second = line(text, it->second);
    } else if (step.verb == "drop") {
      const std::vector<std::string> range = Split(name, "..");
      log.erase(at(range.front()), at(range.back()) + 1);
    } else if (step.verb == "add") {
      const std::vector<std::string> repeat = Split(text, "*");
      const int times = repeat.size() == 2 && StartsWith(text, "@") ? std::stoi(repeat[1]) : 1;
      const std::string added_text = line(times > 1 ? repeat[0] : text, "");
      log.insert(at(name) + 1 + added[name], times, {"", added_text});
      added[name] += times;
    }
  }
  std::vector<std::string> lines;
  for (const auto& [name, text] : log) lines.push_back(Fill(values, text));
  return lines;
}

// Whether |text| is |pattern|, where each "*" of |pattern| stands for any run of characters.
bool Glob(std::string pattern, const std::string& text) {
  for (size_t i = 0; (i = pattern.find_first_of("?[\\", i)) != std::string::npos; i += 2) {
    pattern.insert(i, "\\");
  }
  return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

// Whether the non-blank |lines| are |ordered| in order and |anywhere| anywhere, and nothing else.
::testing::AssertionResult Holds(const std::vector<std::string>& lines,
                                 const std::vector<std::string>& ordered,
                                 std::vector<std::string> anywhere) {
  std::string wrong;
  auto next = ordered.begin();
  for (const std::string& line : lines) {
    const auto glob = [&](const std::string& pattern) { return Glob(pattern, line); };
    const auto any = std::find_if(anywhere.begin(), anywhere.end(), glob);
    if (next != ordered.end() && glob(*next)) {
      ++next;
    } else if (any != anywhere.end()) {
      anywhere.erase(any);
    } else if (!line.empty()) {
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

// Gives a planted |path| its owner on the phone: the exception engine's root:system, others system.
void Own(const Device& d, const std::string& path) {
  if (geteuid() != 0) return;
  const bool engine = StartsWith(path, d.Path("data/vendor/aee_exp"));
  ASSERT_EQ(lchown(path.c_str(), engine ? 0 : kSystem, kSystem), 0) << path;
}

// |path| with the folders it needs, each new one owned as Own says.
void MakeParents(const Device& d, const fs::path& path) {
  if (fs::exists(path.parent_path())) return;
  MakeParents(d, path.parent_path());
  fs::create_directory(path.parent_path());
  Own(d, path.parent_path());
}

// Carries out a step that comes before the boot; the others are left alone.
void Prepare(const Device& d, const Step& step, const Values& values) {
  const std::string first = Fill(values, Head(step.arg).first);
  const std::string rest = Fill(values, Head(step.arg).second);
  std::string path = d.Path(first);
  if (step.verb == "setprop") d.Sim("setprop", {first, rest});
  if (step.verb == "write") {
    const bool folder = path.back() == '/';
    if (folder) path.pop_back();
    MakeParents(d, path);
    ASSERT_TRUE(folder ? fs::create_directory(path) : android::base::WriteStringToFile(rest, path))
        << path;
    Own(d, path);
  }
  if (step.verb == "mtime") {
    const struct timespec times[2] = {{std::stol(rest), 0}, {std::stol(rest), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  }
  if (step.verb == "symlink") {
    MakeParents(d, d.Path(rest));
    fs::create_symlink(first, d.Path(rest));
    Own(d, d.Path(rest));
  }
}

// Checks what a step after the boot says; the others are left alone.
void Check(const Device& d, const Step& step, const Values& values,
           const std::vector<std::string>& log) {
  const std::string first = Fill(values, Head(step.arg).first);
  const std::string rest = Fill(values, Head(step.arg).second);
  std::vector<std::string> tail;
  for (const std::string& word : Split(Head(step.arg).second, " ")) {
    if (!word.empty()) tail.push_back(Fill(values, word));
  }
  if (step.verb == "prop") {
    EXPECT_EQ(d.Prop(first), rest.empty() ? std::nullopt : std::optional(rest)) << first;
  } else if (step.verb == "took") {
    EXPECT_GE(TimeTaken(log), std::stoll(first));
  } else if (step.verb == "file" || step.verb == "same") {
    EXPECT_EQ(Slurp(d.Path(first)), step.verb == "file" ? rest : Slurp(d.Path(rest))) << first;
  } else if (step.verb == "entries") {
    EXPECT_EQ(Entries(d.Path(first)), tail);
  } else if (step.verb == "members") {  // sorted
    const Result list = Run({"sh", "-c", R"(tar -tzf "$1" | LC_ALL=C sort)", "sh", d.Path(first)});
    EXPECT_EQ(list.out, Join(tail, "\n") + "\n") << list.err;
  } else if (step.verb == "mode") {
    const char* depth = EndsWith(first, "/") ? "99" : "0";  // a trailing "/": and below
    EXPECT_EQ(Run({"find", d.Path(first), "-maxdepth", depth, "!", "-perm", rest}).out, "") << rest;
  }
}

// The code that this build's std::filesystem gives for a folder made where a file stands: EEXIST
// from libstdc++, ENOTDIR from the phone's libc++ (scripts/fs-error-codes). The daemon logs its
// library's.
std::string FileInTheWay() {
  TemporaryFile file;
  std::error_code ec;
  fs::create_directories(std::string(file.path) + "/", ec);
  return std::to_string(ec.value());
}

class ScenarioTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(ScenarioTest, EndsAsDesigned) {
  const Scenario& scenario = GetParam();
  const std::string userland = scenario.name.substr(0, scenario.name.find(':'));
  Vocabulary vocabulary;
  LoadScenarios(&vocabulary);
  Values values = vocabulary.values;  // the table's, with the block's own "set" steps over them
  values["FILE_IN_THE_WAY"] = FileInTheWay();
  for (const Step& step : scenario.steps) {
    if (step.verb == "set") values[Head(step.arg).first] = Head(step.arg).second;
  }
  std::vector<std::string> panic, boot, statuses = {"wait", "running", "1"}, anywhere;
  const std::string known =
      " panic boot setprop write mtime symlink status run set log drop add logged "
      "prop took file same entries members mode kmsg root ";
  for (const Step& step : scenario.steps) {
    EXPECT_NE(known.find(" " + step.verb + " "), std::string::npos)
        << "scenarios.txt:" << step.line << ": " << step.verb;
    if (step.verb == "panic") panic = Split(step.arg, " ");
    if (step.verb == "boot") {
      for (const std::string& word : Split(step.arg, " ")) boot.push_back(Fill(values, word));
    }
    if (step.verb == "status") statuses = Split(step.arg, " ");
    if (step.verb == "logged") anywhere.push_back(Fill(values, step.arg));
    if (step.verb == "root" && geteuid() != 0) GTEST_SKIP() << step.arg;
  }
  if (kSanitized && std::find(boot.begin(), boot.end(), "--memcheck") != boot.end()) {
    GTEST_SKIP() << "valgrind cannot run a daemon built with AddressSanitizer";
  }
  Device device;
  device.Panic(panic);
  for (const Step& step : scenario.steps) Prepare(device, step, values);
  if (std::find(boot.begin(), boot.end(), "--faketime") == boot.end()) {
    boot.insert(boot.end(), {"--faketime", "@2024-05-01 03:04:05"});
  }
  boot.insert(boot.begin(), {"--userland", userland});
  const Result result = device.Boot(boot);

  const std::vector<Record> journal = device.Journal();
  const std::vector<std::string> messages = Messages(journal);
  std::vector<std::string> seen, kmsg;
  std::vector<long long> daemon_ns;  // the daemon's clock, which init's records do not share
  for (const Record& r : journal) {
    if (r.pid != 1) daemon_ns.push_back(r.mono_ns);
    if (r.buf == "kernel") kmsg.push_back(r.tag + ": " + r.msg);
    if (r.ev == "set" && r.name == "vendor.minidump.cp.status") seen.push_back(r.value);
    EXPECT_TRUE(r.ev != "log" || r.buf == "kernel" ||
                r.buf + " " + r.tag == "system zq_mrdump_collect")
        << r.msg;
  }
  EXPECT_EQ(seen, statuses);
  // An abnormal end leaves the status at "running", with no "Time taken: " and no exit status 0.
  EXPECT_EQ(result.status == 0, statuses.back() == "1") << result.err;
  ASSERT_FALSE(daemon_ns.empty()) << "the daemon logged nothing: " << result.err;
  // Within what the journal saw of the run, on the same clock, however fast that clock ran.
  EXPECT_LE(TimeTaken(messages), (daemon_ns.back() - daemon_ns.front()) / 1'000'000);
  EXPECT_TRUE(Holds(messages, ExpectedLog(vocabulary, scenario.steps, values), anywhere));
  for (const Step& step : scenario.steps) {
    SCOPED_TRACE(StringPrintf("scenarios.txt:%d", step.line));
    Check(device, step, values, messages);
    if (step.verb == "kmsg") {
      EXPECT_NE(std::find(kmsg.begin(), kmsg.end(), step.arg), kmsg.end()) << Join(kmsg, "\n");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Boots, ScenarioTest, ::testing::ValuesIn(LoadScenarios()),
                         [](const auto& info) { return info.param.id; });

// The time of a boot at minute |m|, as the daemon names its folders and as libfaketime takes it.
std::string Time(int m) {
  return StringPrintf("2024-05-01-03-%02d-05", m);
}
std::string Faketime(int m) {
  return StringPrintf("@2024-05-01 03:%02d:05", m);
}
std::string ArchiveName(int count, int m) {
  return StringPrintf("ZQpanic_%d_", count) + Time(m);
}

// Whether panic archive |name| in |dir| is whole: a complete gzip of a complete tar (or the folder
// itself) of exactly the kernel log |kmsg| and one complete database archive.
::testing::AssertionResult Whole(const std::string& dir, const std::string& name,
                                 const std::string& kmsg) {
  const Result check =
      Run({"sh", "-c",
           R"sh(set -e; cd "$1"; if [ -f "$2.tar.gz" ]; then t=$(mktemp -d); trap 'rm -rf "$t"' EXIT
            tar -xzf "$2.tar.gz" -C "$t"; cd "$t"; fi
          [ "$(ls -A "$2" | sed 's/^db\.[0-9]*\.tar\.gz$/DB/' | tr '\n' ' ')" = "DB last_kmsg.txt " ]
          tar -tzf "$2"/db.*.tar.gz >/dev/null; cat "$2/last_kmsg.txt")sh",
           "sh", dir, name});
  if (check.status == 0 && check.out == kmsg) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << dir << "/" << name << " is not whole: " << check.err
                                       << (check.out == kmsg ? "" : " (not its kernel log)");
}

// A panic, then a boot at minute |m| that ends with "1" and leaves its folder and the five newest
// archives, each whole, and |staged| staging folders. |panics|: minute and kernel log, by count.
void PanicAndBoot(const Device& d, const std::string& userland, int m, size_t staged,
                  std::vector<std::pair<int, std::string>>* panics) {
  d.Panic();
  panics->emplace_back(m, Slurp(d.Pull("/data/vendor/aee_exp/last_kmsg.txt")));
  const int count = static_cast<int>(panics->size()) - 1;
  const Result boot = d.Boot({"--userland", userland, "--faketime", Faketime(m)});
  ASSERT_EQ(boot.status, 0) << boot.err;
  EXPECT_EQ(d.Prop("vendor.minidump.cp.status"), "1");
  EXPECT_EQ(d.Prop("vendor.zq_dump.last_panic_log"), ArchiveName(count, m));
  const std::string dir = d.Pull("/mnt/vendor/zq_log/panic_log");
  std::vector<std::string> expected = {ArchiveName(count, m)};
  for (int kept = std::max(0, count - 4); kept <= count; ++kept) {
    const auto& [minute, kmsg] = (*panics)[kept];
    expected.push_back(ArchiveName(kept, minute) + ".tar.gz");
    EXPECT_TRUE(Whole(dir, ArchiveName(kept, minute), kmsg));
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Entries(dir), expected);
  EXPECT_EQ(Entries(d.Pull("/data/vendor/dump_collect")).size(), staged);
}

// A power cut at each change a boot with history makes, at each sync, and right after its end; then
// the next panic and a boot. At a cut, plain folders keep all that was written; ext4 only what was
// synced, or the journal as committed without the file data not yet written back.
class KillPointTest : public ::testing::TestWithParam<std::tuple<std::string, std::string>> {};

TEST_P(KillPointTest, EveryPanicOnDiskBeforeACutSurvivesIt) {
  const auto& [userland, on_disk] = GetParam();
  const bool ext4 = on_disk != "written";
  if (ext4 && geteuid() != 0) GTEST_SKIP() << "ext4 partitions are loop-mounted: that needs root";
  Device history(ext4);
  std::vector<std::pair<int, std::string>> panics;
  for (int m = 0; m < 6; ++m) PanicAndBoot(history, userland, m, std::min(m + 1, 2), &panics);
  history.Panic();  // the one the cut boot, at minute 10, finds
  panics.emplace_back(10, Slurp(history.Pull("/data/vendor/aee_exp/last_kmsg.txt")));
  // Cut at the first change (or sync), the second, ... until a boot ends on its own.
  std::vector<std::string> cuts;
  Device device;
  for (int n = 1; cuts.empty() || cuts.back() != "end"; ++n) {
    cuts.push_back(on_disk == "synced" ? "sync:" + std::to_string(n) : std::to_string(n));
    SCOPED_TRACE("power cut " + cuts.back());
    std::vector<std::string> cut_boot = {"--userland", userland,      "--faketime",
                                         Faketime(10), "--power-cut", cuts.back()};
    if (ext4) cut_boot.insert(cut_boot.end(), {"--on-disk", on_disk});
    history.CopyTo(device);
    const Result cut = device.Boot(cut_boot);
    if (cut.status == 0) {  // the same boot once more, cut right after it ends
      cuts.back() = cut_boot[5] = "end";
      history.CopyTo(device);
      ASSERT_EQ(device.Boot(cut_boot).status, 0);
    }
    ASSERT_EQ(cut.status, cuts.back() == "end" ? 0 : 137) << cut.err;
    // The next boot files its panic whole; every kept earlier one is whole, the cut boot's too at
    // end.
    std::vector<std::pair<int, std::string>> after = panics;
    if (cuts.back() != "end") after.pop_back();
    device.Panic();
    const std::string next = Slurp(device.Pull("/data/vendor/aee_exp/last_kmsg.txt"));
    ASSERT_EQ(device.Boot({"--userland", userland, "--faketime", Faketime(11)}).status, 0);
    EXPECT_EQ(device.Prop("vendor.minidump.cp.status"), "1");
    const std::string dir = device.Pull("/mnt/vendor/zq_log/panic_log");
    // Bounded: five archives, this boot's folder, and what a cut removal left aside.
    std::vector<std::string> entries = Entries(dir);
    if (entries.front() == ".zq_mrdump_removing") entries.erase(entries.begin());
    EXPECT_LE(entries.size(), 6U) << Join(entries, " ");
    int count = -1;
    for (const std::string& entry : entries)
      count = std::max(count, std::stoi(Split(entry, "_")[1]));
    EXPECT_TRUE(Whole(dir, ArchiveName(count, 11), next)) << Join(entries, " ");
    for (int kept = std::max(0, count - 4); kept < static_cast<int>(after.size()); ++kept) {
      EXPECT_TRUE(Whole(dir, ArchiveName(kept, after[kept].first), after[kept].second));
    }
    const std::string staging = device.Pull("/data/vendor/dump_collect");
    EXPECT_LE(Entries(staging).size(), 2U);
    // A run that ended had synced what it staged.
    EXPECT_TRUE(cuts.back() != "end" || Slurp(staging + "/panic_log_" + Time(10) +
                                              "/last_kmsg.txt") == panics.back().second)
        << "the staged kernel log of the boot cut at its end";
  }
  EXPECT_GT(cuts.size(), on_disk == "synced" ? 2U : 20U) << "a boot makes a few dozen changes";
  std::cout << userland << ", " << on_disk << ": power cut at " << Join(cuts, " ") << "\n";
}

INSTANTIATE_TEST_SUITE_P(Boots, KillPointTest,
                         ::testing::Combine(::testing::Values("host", "android"),
                                            ::testing::Values("written", "committed", "synced")),
                         [](const auto& info) {
                           return std::get<0>(info.param) + "_" + std::get<1>(info.param);
                         });

}  // namespace
