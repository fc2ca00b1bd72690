#include "reader.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <re2/re2.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <system_error>

namespace fs = std::filesystem;

namespace triage {
namespace {

const RE2 kArchiveName(R"(ZQpanic_(\d+)_(\d{4}-\d\d-\d\d)-(\d\d)-(\d\d)-(\d\d)(\.tar\.gz)?)");
const RE2 kDatabaseName(R"(db\.\d+\.tar\.gz)");
constexpr size_t kBlock = 64 << 10;

struct ArchiveFree {
  void operator()(archive* a) const { archive_read_free(a); }
};
using Reading = std::unique_ptr<archive, ArchiveFree>;

Reading NewTarGz() {
  Reading a(archive_read_new());
  archive_read_support_filter_gzip(a.get());
  archive_read_support_format_tar(a.get());
  return a;
}

std::string Why(archive* a) {
  const char* why = archive_error_string(a);
  return why != nullptr ? why : "unreadable";
}

// Opens a file of the panic without following a link; -1 with errno set when it cannot.
int OpenNoFollow(const std::string& path) {
  return open(
      path.c_str(),
      O_RDONLY | O_NOFOLLOW | O_CLOEXEC);  // NOLINT(cppcoreguidelines-pro-type-vararg,hicpp-vararg)
}

// A member's path that names nothing outside the archive's own folder.
bool SafeMember(const std::string& name) {
  fs::path path(name);
  return !name.empty() && name.front() != '/' &&
         std::none_of(path.begin(), path.end(), [](const fs::path& part) { return part == ".."; });
}

// Reads the current member of |a| into |out| up to the limit, counting the rest in |cut|.
bool ReadMember(archive* a, std::string& out, uint64_t& cut) {
  std::array<char, kBlock> block{};
  out.clear();
  for (;;) {
    la_ssize_t n = archive_read_data(a, block.data(), block.size());
    if (n < 0) return false;
    if (n == 0) return true;
    size_t room = kMemberLimit - out.size();
    size_t kept = std::min(room, static_cast<size_t>(n));
    out.append(block.data(), kept);
    cut += static_cast<size_t>(n) - kept;
  }
}

// The database as it arrives: members of the inner archive, read from the outer one's data.
struct Inner {
  archive* outer;
  std::array<char, kBlock> block{};
};

la_ssize_t ReadInner(archive* inner, void* data, const void** buffer) {
  auto* in = static_cast<Inner*>(data);
  la_ssize_t n = archive_read_data(in->outer, in->block.data(), in->block.size());
  if (n < 0) archive_set_error(inner, EIO, "%s", Why(in->outer).c_str());
  *buffer = in->block.data();
  return n;
}

// Moves |a| to its next member that is a plain file at a safe path, whose base name goes to |base|:
// links and escaping paths are skipped here, for both tar levels. libarchive's status: ARCHIVE_EOF
// at the end, below ARCHIVE_WARN on an error.
int NextFile(archive* a, std::string& base) {
  archive_entry* entry = nullptr;
  for (;;) {
    const int r = archive_read_next_header(a, &entry);
    if (r == ARCHIVE_EOF || r < ARCHIVE_WARN) return r;
    const char* path = archive_entry_pathname(entry);
    const std::string member = path != nullptr ? path : "";
    if (SafeMember(member) && archive_entry_filetype(entry) == AE_IFREG &&
        archive_entry_hardlink(entry) == nullptr) {
      base = fs::path(member).filename();
      return r;
    }
  }
}

// Takes the exception record and, when the panic has no last_kmsg.txt so far, the kernel log out of
// the opened database |db|; the first of each counts. Stops once it holds them: what follows, the
// memory dump mostly, is never inflated, and damage to it goes unseen.
void ReadDatabase(archive* db, const std::string& name, Panic& panic, std::string& db_kmsg) {
  bool has_record = false;
  bool has_log = false;
  for (std::string base; !has_record || (!has_log && panic.kmsg_member.empty());) {
    const int r = NextFile(db, base);
    if (r == ARCHIVE_EOF) return;
    if (r < ARCHIVE_WARN) {
      panic.error = name + ": " + Why(db);
      return;
    }
    bool* has = nullptr;
    std::string* into = nullptr;
    if (base == "ZZ_INTERNAL" && !has_record) {
      has = &has_record;
      into = &panic.record;
    } else if (base == "SYS_KERNEL_LOG" && !has_log && panic.kmsg_member.empty()) {
      has = &has_log;
      into = &db_kmsg;
    }
    if (into == nullptr) continue;
    *has = true;
    if (!ReadMember(db, *into, panic.cut_bytes)) {
      panic.error = name;
      panic.error.append(": ").append(base).append(": ").append(Why(db));
      return;
    }
  }
}

void DatabaseFromStream(archive* outer, const std::string& name, Panic& panic,
                        std::string& db_kmsg) {
  Inner in{outer};
  Reading db = NewTarGz();
  if (archive_read_open(db.get(), &in, nullptr, ReadInner, nullptr) != ARCHIVE_OK) {
    panic.error = name + ": " + Why(db.get());
    return;
  }
  ReadDatabase(db.get(), name, panic, db_kmsg);
}

void DatabaseFromFile(const std::string& path, const std::string& name, Panic& panic,
                      std::string& db_kmsg) {
  int fd = OpenNoFollow(path);
  if (fd < 0) {
    panic.error = name + ": " + std::strerror(errno);
    return;
  }
  Reading db = NewTarGz();
  if (archive_read_open_fd(db.get(), fd, kBlock) != ARCHIVE_OK) {
    panic.error = name + ": " + Why(db.get());
  } else {
    ReadDatabase(db.get(), name, panic, db_kmsg);
  }
  close(fd);
}

void ReadFileLimited(const std::string& path, Panic& panic) {
  int fd = OpenNoFollow(path);
  if (fd < 0) {
    panic.error = "last_kmsg.txt: " + std::string(std::strerror(errno));
    return;
  }
  std::array<char, kBlock> block{};
  for (;;) {
    ssize_t n = read(fd, block.data(), block.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) panic.error = "last_kmsg.txt: " + std::string(std::strerror(errno));
    if (n <= 0) break;
    size_t kept = std::min(kMemberLimit - panic.kmsg.size(), static_cast<size_t>(n));
    panic.kmsg.append(block.data(), kept);
    panic.cut_bytes += static_cast<size_t>(n) - kept;
  }
  close(fd);
}

void ReadArchive(Panic& panic, std::string& db_kmsg, bool& has_db) {
  int fd = OpenNoFollow(panic.path);
  if (fd < 0) {
    panic.error = std::strerror(errno);
    return;
  }
  Reading a = NewTarGz();
  if (archive_read_open_fd(a.get(), fd, kBlock) != ARCHIVE_OK) {
    panic.error = "not a readable tar.gz: " + Why(a.get());
  }
  for (std::string base; panic.error.empty();) {
    const int r = NextFile(a.get(), base);
    if (r == ARCHIVE_EOF) break;
    if (r < ARCHIVE_WARN) {
      panic.error = "not a readable tar.gz: " + Why(a.get());
      break;
    }
    if (base == "last_kmsg.txt" && panic.kmsg_member.empty()) {
      panic.kmsg_member = base;
      std::string().swap(db_kmsg);
      if (!ReadMember(a.get(), panic.kmsg, panic.cut_bytes)) {
        panic.error = "last_kmsg.txt: " + Why(a.get());
      }
    } else if (RE2::FullMatch(base, kDatabaseName) && !has_db) {
      has_db = true;
      DatabaseFromStream(a.get(), base, panic, db_kmsg);
    }
  }
  close(fd);
}

void ReadFolder(Panic& panic, std::string& db_kmsg, bool& has_db) {
  std::error_code ec;
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(panic.path, ec)) {
    if (entry.symlink_status().type() == fs::file_type::regular) files.push_back(entry.path());
  }
  if (ec) {
    panic.error = ec.message();
    return;
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::string base = file.filename();
    if (base == "last_kmsg.txt") {
      panic.kmsg_member = base;
      ReadFileLimited(file, panic);
    }
  }
  for (const auto& file : files) {
    std::string base = file.filename();
    if (panic.error.empty() && !has_db && RE2::FullMatch(base, kDatabaseName)) {
      has_db = true;
      DatabaseFromFile(file, base, panic, db_kmsg);
    }
  }
}

Panic Found(const fs::path& path, const std::string& phone) {
  Panic panic;
  panic.path = path.string();
  panic.phone = phone;
  std::string name = path.filename();
  long number = 0;
  std::string day;
  std::string h;
  std::string m;
  std::string s;
  std::string gz;
  if (RE2::FullMatch(name, kArchiveName, &number, &day, &h, &m, &s, &gz)) {
    panic.archive = name.substr(0, name.size() - gz.size());
    panic.number = number;
    panic.time = day + " " + h + ":" + m + ":" + s;
  } else {
    panic.archive = name;
  }
  return panic;
}

bool IsPanicName(const fs::directory_entry& entry) {
  std::string name = entry.path().filename();
  std::string gz;
  fs::file_type type = entry.symlink_status().type();
  return RE2::FullMatch(name, kArchiveName, nullptr, nullptr, nullptr, nullptr, nullptr, &gz) &&
         (gz.empty() ? type == fs::file_type::directory : type == fs::file_type::regular);
}

}  // namespace

std::vector<Panic> FindPanics(const std::vector<std::string>& paths) {
  std::map<std::string, Panic> found;  // by folder and archive name: the .tar.gz wins
  auto add = [&found](Panic panic) {
    std::string key = fs::path(panic.path).parent_path() / panic.archive;
    auto [it, added] = found.emplace(key, panic);
    if (!added && it->second.path.size() < panic.path.size()) it->second = std::move(panic);
  };
  for (const auto& given : paths) {
    fs::path root = fs::path(given).lexically_normal();
    if (!root.has_filename() && root.has_parent_path()) root = root.parent_path();
    Panic whole = Found(root, root.parent_path().filename());
    std::error_code ec;
    fs::file_type type = fs::symlink_status(root, ec).type();
    if (type != fs::file_type::directory || !whole.time.empty()) {
      if (ec || type == fs::file_type::not_found) {
        whole.error = "no such file or directory";
      } else if (type == fs::file_type::symlink) {
        whole.error = "a symbolic link, not followed";
      } else if (type != fs::file_type::regular && type != fs::file_type::directory) {
        whole.error = "neither a file nor a folder";
      }
      add(whole);
      continue;
    }
    fs::recursive_directory_iterator walk(root, fs::directory_options::skip_permission_denied, ec);
    for (; !ec && walk != fs::recursive_directory_iterator(); walk.increment(ec)) {
      if (!IsPanicName(*walk)) continue;
      fs::path relative = walk->path().lexically_relative(root);
      add(Found(walk->path(), relative.begin()->string() == relative.string()
                                  ? root.filename().string()
                                  : relative.begin()->string()));
      if (walk->symlink_status().type() == fs::file_type::directory) {
        walk.disable_recursion_pending();
      }
    }
    if (ec) {
      whole.error = "cannot walk it: " + ec.message();
      add(whole);
    }
  }
  std::vector<Panic> panics;
  panics.reserve(found.size());
  for (auto& [key, panic] : found) panics.push_back(std::move(panic));
  return panics;
}

void ReadPanic(Panic& panic) {
  std::string db_kmsg;
  bool has_db = false;
  std::error_code ec;
  if (fs::symlink_status(panic.path, ec).type() == fs::file_type::directory) {
    ReadFolder(panic, db_kmsg, has_db);
  } else {
    ReadArchive(panic, db_kmsg, has_db);
  }
  if (!panic.error.empty()) return;
  if (panic.kmsg_member.empty() && !has_db) {
    panic.error = "no last_kmsg.txt and no db.NN.tar.gz";
  } else if (panic.kmsg_member.empty() && db_kmsg.empty()) {
    panic.error = "no kernel log: no last_kmsg.txt, and no SYS_KERNEL_LOG in the database";
  } else if (panic.kmsg_member.empty()) {
    panic.kmsg = std::move(db_kmsg);
    panic.kmsg_member = "SYS_KERNEL_LOG";
  }
}

}  // namespace triage
