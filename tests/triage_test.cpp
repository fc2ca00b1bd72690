// zq-triage: the report formats, bad inputs, panics filed by the daemon grouped end to end, and
// the page as a browser lays it out.
#include <android-base/file.h>
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <tuple>

#include "parser.h"
#include "reader.h"

// A .tar.gz of |members|; a member whose bytes are "->TARGET" is a symbolic link.
std::string TarGz(const std::vector<std::pair<std::string, std::string>>& members) {
  std::string out(1 << 20, '\0');
  size_t used = 0;
  archive* a = archive_write_new();
  archive_write_add_filter_gzip(a);
  archive_write_set_format_pax_restricted(a);
  archive_write_set_bytes_in_last_block(a, 1);
  archive_write_open_memory(a, out.data(), out.size(), &used);
  for (const auto& [name, bytes] : members) {
    archive_entry* e = archive_entry_new();
    bool link = bytes.rfind("->", 0) == 0;
    archive_entry_set_pathname(e, name.c_str());
    archive_entry_set_filetype(e, link ? AE_IFLNK : AE_IFREG);
    link ? archive_entry_set_symlink(e, bytes.c_str() + 2)
         : archive_entry_set_size(e, static_cast<la_int64_t>(bytes.size()));
    archive_write_header(a, e);
    archive_write_data(a, bytes.data(), link ? 0 : bytes.size());
    archive_entry_free(e);
  }
  archive_write_free(a);
  return out.substr(0, used);
}

TEST(Triage, EachFormatItsTitleFirstGuiltyFrameAndWhetherWhole) {
  std::string text;
  ASSERT_TRUE(android::base::ReadFileToString(ZQ_TRIAGE_SAMPLES, &text));
  size_t count = 0;  // each sample: "title | frame[ | whole]", a line feed, the log
  for (size_t at = text.find("\n# "); at != std::string::npos; at = text.find("\n# ", at + 1)) {
    const std::string sample = text.substr(at + 3, text.find("\n# ", at + 1) - at - 3);
    triage::Panic panic;
    panic.kmsg = sample.substr(sample.find('\n'));
    triage::Parse(panic);
    EXPECT_EQ(panic.title + " | " + (panic.frames.empty() ? "" : panic.frames[0]) +
                  (panic.corrupted ? "" : " | whole"),
              sample.substr(0, sample.find('\n')));
    ++count;
  }
  EXPECT_EQ(count, 18U);
}

TEST(Triage, BadInputIsOneRowWithItsReason) {
  const TemporaryDir tmp;
  const std::string oops =
      "Unable to handle kernel paging request at virtual address 0\npc : foo_open+0x4/0x8\n";
  const std::string title = "Unable to handle kernel paging request in foo_open";
  // A database cut short in its memory dump: the title is the record's, the dump is never read.
  std::mt19937 random(1);
  std::string dump(512 << 10, '\0');
  for (char& byte : dump) byte = static_cast<char>(random());
  const std::string db = TarGz({{"db.00/SYS_KERNEL_LOG", "a log with no crash report in it\n"},
                                {"db.00/ZZ_INTERNAL", "KE at pc : f+0x1/0x2\n"},
                                {"db.00/SYS_MINI_RDUMP", dump}});
  const std::pair<std::string, std::string> rows[] = {
      {TarGz({{"Z/a", oops}}).substr(0, 40), "not a readable tar.gz: truncated gzip input"},
      {"plain text\n", "not a readable tar.gz: Unrecognized archive format"},
      {TarGz({{"Z/db.00.tar.gz", "broken"}}), "db.00.tar.gz: Unrecognized archive format"},
      {TarGz({{"Z/db.00.tar.gz", TarGz({{"db.00/ZZ_INTERNAL", "KE at pc : f+0x1/0x2\n"}})}}),
       "no kernel log: no last_kmsg.txt, and no SYS_KERNEL_LOG in the database"},
      {TarGz({{"Z/last_kmsg.txt", std::string(64, '\0')}}), "last_kmsg.txt holds no line of text"},
      {TarGz({{"Z/last_kmsg.txt", ""}}), "last_kmsg.txt is empty"},
      {TarGz({{"Z/last_kmsg.txt", "->/etc/fstab"},
              {"../last_kmsg.txt", oops},
              {"/last_kmsg.txt", oops}}),
       "no last_kmsg.txt and no db.NN.tar.gz"},
      {TarGz({{"Z/last_kmsg.txt", std::string("\xff\0\n", 3) + oops}}), title},
      {TarGz({{"Z/db.00.tar.gz", TarGz({{"db.00/SYS_KERNEL_LOG", oops}})}}), title},
      {TarGz({{"Z/db.00.tar.gz", db.substr(0, db.size() - 4096)}}), "KE at pc : f"},
      {TarGz({{"Z/last_kmsg.txt", oops + std::string(triage::kMemberLimit, '~')}}), title},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    const std::string path =
        tmp.path + ("/ZQpanic_" + std::to_string(i) + "_2024-01-01-00-00-00.tar.gz");
    std::ofstream(path) << rows[i].first;
    triage::Panic panic = triage::FindPanics({path}).at(0);
    triage::ReadPanic(panic);
    triage::Parse(panic);
    EXPECT_EQ(panic.error.empty() ? panic.title : panic.error, rows[i].second) << "row " << i;
    EXPECT_EQ(panic.cut_bytes, i + 1 == std::size(rows) ? oops.size() : 0U) << "row " << i;
  }
}

// The same fault at other times, addresses, PIDs and CPUs is one group; a write is another. The
// task is the one the line prefix names, the report having no CPU line.
TEST(Triage, SimulatorPanicsGroupBySignature) {
  const TemporaryDir tmp;
  const int runs[][3] = {{12, 0x1234, 3}, {4032, 0xbeef, 6}, {77, 0x1234, 3}};  // s, address, cpu
  for (int i = 0; i < 3; ++i) {
    const auto [seconds, address, cpu] = runs[i];
    std::array<char, 512> log{};
    (void)std::snprintf(
        log.data(), log.size(),
        "[%6d.%06d] (%d)[%d:foo] Unable to handle kernel paging request at virtual "
        "address ffffff80%08x\n  CM = 0, WnR = %d\npc : foo_write+0x%x/0x90 [foo]\n",
        seconds, seconds * 7, cpu, seconds * 3, address, i == 2, address & 0xff);
    std::ofstream(tmp.path + ("/kmsg" + std::to_string(i + 1))) << log.data();
  }
  const std::string script =
      "cd " + std::string(tmp.path) +
      " && d=" ZQ_DEVSIM " c=" ZQ_MRDUMP_COLLECT
      " && $d init phone && for i in 1 2 3; do $d panic phone --kmsg kmsg$i "
      "--faketime \"@2024-05-0$i 10:00:00\" && ZQ_MRDUMP_COLLECT=$c $d boot "
      "phone --faketime \"@2024-05-0$i 10:00:05\" || exit 1; done && $d pull "
      "phone /mnt/vendor/zq_log log && " ZQ_TRIAGE " --json log >out";
  ASSERT_EQ(std::system(("(" + script + ") >/dev/null 2>&1").c_str()), 0);
  std::ifstream out(tmp.path + std::string("/out"));
  std::vector<nlohmann::json> rows;
  for (std::string line; std::getline(out, line);) rows.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(rows[0]["signature"], rows[1]["signature"]);
  EXPECT_NE(rows[0]["signature"], rows[2]["signature"]);
  EXPECT_EQ(rows[1]["title"], "Unable to handle kernel paging request in foo_write");
  EXPECT_EQ(rows[1]["cpu"], 6);
  EXPECT_EQ(rows[1]["pid"], 4032 * 3);
  EXPECT_EQ(rows[1]["comm"], "foo");
}

// The page as a browser lays it out: a row per group, the most frequent first, with its count and
// phones, and a chart mark per group and day as tall as its count, all counted from the panics
// filed here. Chromium runs in a session of its own, ended whole after it exits.
TEST(TriageHtml, PageDrawsARowPerGroupAndAMarkPerGroupAndDay) {
  const TemporaryDir tmp;
  const std::string kinds[][2] = {
      {"Unable to handle kernel paging request at virtual address 0\npc : foo_write+0x4/0x8\n",
       "Unable to handle kernel paging request in foo_write"},
      // Markup in a log shown as text, as the dump prints it: a tag the page let through is lost.
      {"Kernel panic - not syncing: <i>Fatal</i>\n",
       "Kernel panic - not syncing: &lt;i&gt;Fatal&lt;/i&gt;"},
  };
  // Each panic's phone, kind and day.
  const std::tuple<std::string, int, int> panics[] = {
      {"a", 0, 1}, {"a", 0, 2}, {"a", 1, 2}, {"b", 0, 2}};
  std::map<std::string, std::set<std::string>> phones;  // by title
  std::map<std::string, int> counts, marks;             // by title; by "DAY TITLE"
  std::string script = "cd " + std::string(tmp.path) +
                       " && d=" ZQ_DEVSIM " && export ZQ_MRDUMP_COLLECT=" ZQ_MRDUMP_COLLECT
                       " && $d init a && $d init b";
  for (size_t i = 0; i < std::size(panics); ++i) {
    const auto& [phone, kind, day] = panics[i];
    const std::string at = "2024-05-0" + std::to_string(day) + " 10:0" + std::to_string(i);
    std::ofstream(tmp.path + ("/k" + std::to_string(i))) << kinds[kind][0];
    script += " && $d panic " + phone + " --kmsg k" + std::to_string(i) + " --faketime '@" + at +
              ":00' && $d boot " + phone + " --faketime '@" + at + ":05'";
    phones[kinds[kind][1]].insert(phone);
    ++counts[kinds[kind][1]];
    ++marks[at.substr(0, 10) + " " + kinds[kind][1]];
  }
  const std::string chromium =
      "HOME=$PWD setsid chromium --headless --no-sandbox --allow-file-access-from-files "
      "--user-data-dir=$PWD/profile --dump-dom file://" ZQ_TRIAGE_PROBE "?file://$PWD/page.html";
  script +=
      " && mkdir fleet && $d pull a /mnt/vendor/zq_log fleet/a && $d pull b "
      "/mnt/vendor/zq_log fleet/b && " ZQ_TRIAGE " --html page.html fleet && (" +
      chromium + " >dom & pid=$!; wait $pid; s=$?; kill -KILL -- -$pid 2>/dev/null; exit $s)";
  ASSERT_EQ(std::system(("(" + script + ") >/dev/null 2>&1").c_str()), 0) << script;

  std::multimap<int, std::string, std::greater<>> rows;
  for (const auto& [title, count] : counts) {
    rows.emplace(count, "row " + std::to_string(count) + " " +
                            std::to_string(phones[title].size()) + " " + title + "\n");
  }
  std::string expected;
  for (const auto& row : rows) expected += row.second;
  for (const auto& [day_title, count] : marks) {
    expected += "mark " + day_title + " " + std::to_string(count) + "\n";
  }
  std::string dom;
  ASSERT_TRUE(android::base::ReadFileToString(tmp.path + std::string("/dom"), &dom));
  const size_t begin = dom.find("<pre id=\"laid-out\">") + 19;
  EXPECT_EQ(dom.substr(begin, dom.find("</pre>", begin) - begin) + "\n", expected) << dom;
}

// A run of 100 panics shows how far it is on a terminal, from its start, and erases that line
// before the results; a pipe gets none of it.
TEST(Triage, ProgressOnATerminalOnly) {
  const TemporaryDir tmp;
  const std::string dir = tmp.path + std::string("/panics");
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0) << dir;
  const std::string archive =
      TarGz({{"Z/last_kmsg.txt", "Unable to handle kernel paging request at virtual address 0\n"}});
  for (int i = 0; i < 100; ++i) {
    std::ofstream(dir + "/ZQpanic_" + std::to_string(i) + "_2024-01-01-00-00-00.tar.gz") << archive;
  }
  const std::string run = ZQ_TRIAGE " " + dir + " >" + tmp.path + "/out";
  ASSERT_EQ(std::system((run + " 2>" + tmp.path + "/piped").c_str()), 0);
  ASSERT_EQ(
      std::system(("script -qec '" + run + "' /dev/null </dev/null >" + tmp.path + "/tty").c_str()),
      0);
  std::string piped;
  std::string tty;
  ASSERT_TRUE(android::base::ReadFileToString(tmp.path + std::string("/piped"), &piped));
  ASSERT_TRUE(android::base::ReadFileToString(tmp.path + std::string("/tty"), &tty));
  EXPECT_EQ(piped, "");
  const std::string first = "\rzq-triage: 0 of 100 panics read\033[K";
  EXPECT_EQ(tty.substr(0, first.size()), first) << tty;
  EXPECT_GE(tty.size(), first.size() + 4) << tty;
  EXPECT_EQ(tty.substr(tty.size() - 4), "\r\033[K") << tty;
}
