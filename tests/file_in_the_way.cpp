// Prints the code that this build's std::filesystem gives for a folder made where the file argv[1]
// stands: EEXIST from libstdc++, ENOTDIR from the phone's libc++ (scripts/fs-error-codes). The
// daemon logs its library's.
#include <cstdio>
#include <filesystem>
#include <string>

int main(int, char** argv) {
  std::error_code ec;
  std::filesystem::create_directories(std::string(argv[1]) + "/", ec);
  std::printf("%d", ec.value());
}
