// Runs the boots of scenarios.txt on simulated phones, each with the workstation's tools and with
// the phone's; then a crash loop of 50 boots, and power cuts at every change a boot makes.
#include <sys/stat.h>
#include <unistd.h>

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

// The scenarios once for each userland, each with its steps for that userland: those without a
// "host: " or "android: " in front, and those with its own. The vocabulary before them goes to
// |vocabulary|.
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

// A scenario's values: the table's, with its own "set" steps over them.
class Values {
 public:
  Values(const Vocabulary& v, const std::vector<Step>& steps) : values_(v.values) {
    for (const Step& step : steps) {
      if (step.verb == "set") values_[Head(step.arg).first] = Head(step.arg).second;
    }
  }
  // |text| with every {KEY} filled in, through the values it names in turn, then unescaped.
  std::string Fill(std::string text) const {
    for (size_t open; (open = text.find('{')) != std::string::npos;) {
      const size_t close = text.find('}', open);
      const auto value = values_.find(text.substr(open + 1, close - open - 1));
      if (close == std::string::npos || value == values_.end()) break;
      text.replace(open, close - open + 1, value->second);
    }
    return Unescape(text);
  }

 private:
  std::map<std::string, std::string> values_;
};

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
  for (const auto& [name, text] : log) lines.push_back(values.Fill(text));
  return lines;
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

// Gives |path|, planted before a boot, the owner of what it stands for: the exception engine's
// files are root's and the system group's, the rest the daemon's own. Only root can.
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
  const std::string first = values.Fill(Head(step.arg).first);
  const std::string rest = values.Fill(Head(step.arg).second);
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
  if (step.verb == "rm") fs::remove_all(path);
}

// Checks what a step after the boot says; the others are left alone.
void Check(const Device& d, const Step& step, const Values& values,
           const std::vector<Record>& journal, const std::vector<std::string>& log) {
  const std::string first = values.Fill(Head(step.arg).first);
  const std::string rest = values.Fill(Head(step.arg).second);
  std::vector<std::string> tail;
  for (const std::string& word : Split(Head(step.arg).second, " ")) {
    if (!word.empty()) tail.push_back(values.Fill(word));
  }
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
  Vocabulary vocabulary;
  LoadScenarios(&vocabulary);
  const Values values(vocabulary, scenario.steps);
  std::vector<std::string> panic, boot, statuses = {"wait", "running", "1"}, anywhere, out;
  std::map<std::string, std::string> env;
  const std::string known =
      " panic boot env setprop write mtime symlink rm status run set log drop add logged "
      "stdout prop reads took file same entries members mode ";
  for (const Step& step : scenario.steps) {
    EXPECT_NE(known.find(" " + step.verb + " "), std::string::npos)
        << "scenarios.txt:" << step.line << ": " << step.verb;
    if (step.verb == "panic") panic = Split(step.arg, " ");
    if (step.verb == "boot") {
      for (const std::string& word : Split(step.arg, " ")) boot.push_back(values.Fill(word));
    }
    if (step.verb == "env") env.insert(Head(step.arg));
    if (step.verb == "status") statuses = Split(step.arg, " ");
    if (step.verb == "logged") anywhere.push_back(values.Fill(step.arg));
    if (step.verb == "stdout") out.push_back(values.Fill(step.arg));
  }
  if (kSanitized && std::find(boot.begin(), boot.end(), "--memcheck") != boot.end()) {
    GTEST_SKIP()
        << "valgrind cannot run a daemon built with AddressSanitizer; the plain build runs this";
  }
  Device device;
  device.Panic(panic);
  for (const Step& step : scenario.steps) Prepare(device, step, values);
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
  EXPECT_TRUE(Holds(messages, ExpectedLog(vocabulary, scenario.steps, values), anywhere, true));
  EXPECT_TRUE(Holds(Split(result.out, "\n"), out, {}, false));
  for (const Step& step : scenario.steps) {
    SCOPED_TRACE(StringPrintf("scenarios.txt:%d", step.line));
    Check(device, step, values, journal, messages);
  }
}

INSTANTIATE_TEST_SUITE_P(Boots, ScenarioTest, ::testing::ValuesIn(LoadScenarios()),
                         [](const auto& info) { return info.param.id; });

std::string ArchiveName(int count, const std::string& time) {
  return StringPrintf("ZQpanic_%d_", count) + time;
}

// Whether the panic archive |name| in the category folder |dir| holds the kernel log |kmsg| whole:
// as a complete gzip of a complete tar of its folder and an exception database archive, also
// complete, or as that folder itself.
::testing::AssertionResult Whole(const std::string& dir, const std::string& name,
                                 const std::string& kmsg) {
  // The folder, or the archive unpacked: its own folder, the kernel log and one complete database
  // archive, and nothing else.
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

// The kernel log that the last panic left on |d|.
std::string LastKmsg(const Device& d) {
  return Slurp(d.Pull("/data/vendor/aee_exp/last_kmsg.txt"));
}

// A phone that panics at every boot: 50 boots on one device root with a new panic each, with a
// clock that moves on and with one that shows the same time at every boot.
class CrashLoopTest : public ::testing::TestWithParam<std::string> {};

TEST_P(CrashLoopTest, EveryPanicIsArchivedAndStorageStaysBounded) {
  const std::string userland = GetParam().substr(0, GetParam().find('_'));
  const bool frozen = EndsWith(GetParam(), "frozen_clock");
  Device device;
  const std::string dir = device.Path("mnt/vendor/zq_log/panic_log");
  auto time = [&](int boot) { return StringPrintf("2024-05-01-03-%02d-05", frozen ? 4 : boot); };
  std::vector<std::string> kmsg;
  for (int boot = 0; boot < 50; ++boot) {
    SCOPED_TRACE(boot);
    device.Panic();
    kmsg.push_back(Slurp(device.Path("data/vendor/aee_exp/last_kmsg.txt")));
    const Result result = device.Boot({"--userland", userland, "--faketime",
                                       StringPrintf("@2024-05-01 03:%02d:05", frozen ? 4 : boot)});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(device.Prop("vendor.minidump.cp.status"), "1");
    EXPECT_EQ(device.Prop("vendor.zq_dump.last_panic_log"), ArchiveName(boot, time(boot)));
    // The archives by count and time: this boot's folder beside the newest, each whole.
    std::vector<std::string> expected = {ArchiveName(boot, time(boot))};
    for (int kept = std::max(0, boot - 4); kept <= boot; ++kept) {
      expected.push_back(ArchiveName(kept, time(kept)) + ".tar.gz");
      EXPECT_TRUE(Whole(dir, ArchiveName(kept, time(kept)), kmsg[kept]));
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

// A power cut at each change a boot makes to /data and /mnt, and right after it ends, on a phone
// with history (staging folders to retire, archives to rotate), each cut followed by the next
// panic and a normal boot. What the partitions hold at a cut: on plain folders, all that was
// written (the page cache survives); on ext4, only what was synced, or the journal as committed at
// the cut without the file data not yet written back.
class KillPointTest : public ::testing::TestWithParam<std::tuple<std::string, std::string>> {};

TEST_P(KillPointTest, EveryPanicOnDiskBeforeACutSurvivesIt) {
  const auto& [userland, on_disk] = GetParam();
  const bool ext4 = on_disk != "written";
  if (ext4 && geteuid() != 0) GTEST_SKIP() << "ext4 partitions are loop-mounted: that needs root";
  // Six boots, a minute apart, each after a panic; then the panic that the cut boot finds.
  Device history(ext4);
  std::map<std::string, std::string> kmsg;  // each panic's, by the time of its boot
  auto minute = [](int m) { return StringPrintf("2024-05-01 03:%02d:05", m); };
  auto time = [](int m) { return StringPrintf("2024-05-01-03-%02d-05", m); };
  for (int boot = 0; boot <= 6; ++boot) {
    history.Panic();
    const int m = boot < 6 ? boot : 10;
    kmsg[time(m)] = LastKmsg(history);
    if (boot == 6) break;
    ASSERT_EQ(history.Boot({"--userland", userland, "--faketime", "@" + minute(m)}).status, 0);
    ASSERT_TRUE(Whole(history.Pull("/mnt/vendor/zq_log/panic_log"), ArchiveName(boot, time(m)),
                      kmsg[time(m)]));
  }
  // Cut at the first change (or sync), the second, ... until a boot ends on its own, then at its
  // end: no count taken from another boot decides where to stop.
  std::vector<std::string> cuts;
  for (int n = 1;; ++n) {
    const std::string cut = on_disk == "synced" ? "sync:" + std::to_string(n) : std::to_string(n);
    SCOPED_TRACE("power cut " + cut);
    Device device;
    history.CopyTo(device);
    std::vector<std::string> options = {"--userland", userland, "--faketime", "@" + minute(10)};
    const Result cut_boot = device.Boot([&](std::vector<std::string> o) {
      o.insert(o.end(), {"--power-cut", cut});
      if (ext4) o.insert(o.end(), {"--on-disk", on_disk});
      return o;
    }(options));
    const bool uncut = cut_boot.status == 0;
    if (uncut && ext4) {
      // The same boot once more, cut right after it ends.
      history.CopyTo(device);
      options.insert(options.end(), {"--power-cut", "end", "--on-disk", on_disk});
      ASSERT_EQ(device.Boot(options).status, 0);
    } else if (uncut) {
      break;  // on plain folders nothing is lost after the end
    } else {
      ASSERT_EQ(cut_boot.status, 137) << cut_boot.err;
    }
    cuts.push_back(uncut ? "end" : cut);
    // The next panic, and the boot after it.
    device.Panic();
    const std::string next_kmsg = LastKmsg(device);
    ASSERT_EQ(device.Boot({"--userland", userland, "--faketime", "@" + minute(11)}).status, 0);
    EXPECT_EQ(device.Prop("vendor.minidump.cp.status"), "1");
    const std::string dir = device.Pull("/mnt/vendor/zq_log/panic_log");
    // Bounded: five archives, this boot's folder, and what a cut removal left aside.
    std::vector<std::string> entries = Entries(dir);
    if (entries.front() == ".zq_mrdump_removing") entries.erase(entries.begin());
    EXPECT_LE(entries.size(), 6U) << Join(entries, " ");
    // This boot's archive is the newest, and whole.
    int count = -1;
    for (const std::string& entry : entries)
      count = std::max(count, std::stoi(Split(entry, "_")[1]));
    EXPECT_TRUE(Whole(dir, ArchiveName(count, time(11)), next_kmsg)) << Join(entries, " ");
    // Every earlier panic the retention keeps is whole; the cut boot's own, if cut after its end.
    for (int m = std::max(0, count - 4); m < 6; ++m) {
      EXPECT_TRUE(Whole(dir, ArchiveName(m, time(m)), kmsg[time(m)]));
    }
    if (uncut) {
      EXPECT_TRUE(Whole(dir, ArchiveName(6, time(10)), kmsg[time(10)]));
    }
    EXPECT_LE(Entries(device.Pull("/data/vendor/dump_collect")).size(), 2U);
    if (uncut) break;
  }
  EXPECT_GT(cuts.size(), ext4 && on_disk == "synced" ? 2U : 20U)
      << "a boot makes a few dozen changes";
  std::cout << userland << ", " << on_disk << ": power cut at " << Join(cuts, " ") << "\n";
}

INSTANTIATE_TEST_SUITE_P(Boots, KillPointTest,
                         ::testing::Combine(::testing::Values("host", "android"),
                                            ::testing::Values("written", "committed", "synced")),
                         [](const auto& info) {
                           return std::get<0>(info.param) + "_" + std::get<1>(info.param);
                         });

}  // namespace
