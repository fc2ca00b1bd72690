// zq-triage: the report formats, bad inputs and its progress on a terminal.
#include <android-base/file.h>
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <random>

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
