// The error codes that the daemon's std::filesystem calls report, as its log writes them
// ("generic:N"), in the build of the C++ library this is compiled with.
// Usage: fs_error_codes create PATH | remove PATH
#include <stdio.h>

#include <filesystem>
#include <string>

int main(int argc, char** argv) {
  if (argc != 3) {
    (void)fprintf(stderr, "usage: fs_error_codes create PATH | remove PATH\n");
    return 2;
  }
  const std::string op = argv[1];
  std::error_code ec;
  if (op == "create") {
    std::filesystem::create_directories(argv[2], ec);  // as zq_create_dir_str
  } else if (op == "remove") {
    std::filesystem::remove_all(argv[2], ec);  // as ZQRemoveFile
  } else {
    (void)fprintf(stderr, "fs_error_codes: no operation '%s'\n", op.c_str());
    return 2;
  }
  (void)printf("%s:%d\n", ec.category().name(), ec.value());
  return 0;
}
