// Preloaded into the daemon by a boot: ends it at once if it asks to sleep for anything but the
// 10 s between polls of the dump's property, a wait that no log line or timing shows exactly.
#include <dlfcn.h>

#include <cstdlib>
#include <ctime>

extern "C" int nanosleep(const timespec* request, timespec* remaining) {
  if (request->tv_sec != 10 || request->tv_nsec != 0) std::abort();
  static const auto next =
      reinterpret_cast<int (*)(const timespec*, timespec*)>(dlsym(RTLD_NEXT, "nanosleep"));
  return next(request, remaining);
}
