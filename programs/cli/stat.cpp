#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "programs/cli/commands.h"

namespace vesk_cli {

namespace {

// "0644 -rw-r--r--".
std::string PermissionsText(mode_t mode) {
  char text[32];
  std::snprintf(text, sizeof text, "%04o -", static_cast<unsigned>(mode & 07777));
  std::string permissions = text;
  for (int shift = 6; shift >= 0; shift -= 3) {
    const mode_t bits = mode >> shift;
    permissions += (bits & 4) != 0 ? 'r' : '-';
    permissions += (bits & 2) != 0 ? 'w' : '-';
    permissions += (bits & 1) != 0 ? 'x' : '-';
  }
  return permissions;
}

// Local time, to the nanosecond.
std::string TimeText(std::int64_t nanoseconds) {
  constexpr std::int64_t kSecond = 1000000000;
  if (nanoseconds == 0) return "not told by the store";
  const std::int64_t fraction = (nanoseconds % kSecond + kSecond) % kSecond;
  const std::time_t seconds = (nanoseconds - fraction) / kSecond;
  std::tm local = {};
  char day[64];
  char zone[16];
  if (localtime_r(&seconds, &local) == nullptr ||
      std::strftime(day, sizeof day, "%Y-%m-%d %H:%M:%S", &local) == 0 ||
      std::strftime(zone, sizeof zone, "%z", &local) == 0) {
    return std::to_string(seconds) + " s after the epoch";
  }
  char text[128];
  std::snprintf(text, sizeof text, "%s.%09lld %s", day, static_cast<long long>(fraction), zone);
  return text;
}

std::string CacheText(const vesk::Settings& settings) {
  const int age = settings.refresh_interval;
  return BytesText(settings.memory) + " for all files; " + std::to_string(settings.read_ahead) +
         " blocks ahead of a reader; " +
         (age == 0 ? "never fetched again" : "fetched again after " + std::to_string(age) + " s");
}

void Print(const char* what, const std::string& text) {
  std::printf("%-12s %s\n", what, text.c_str());
}

}  // namespace

int Stat(World& world) {
  const std::string& name = world.options().source;
  const vesk::Settings& settings = world.settings();
  std::unique_ptr<vesk::FileHandle> file;
  vesk::FileInfo info;
  {
    const vesk::RequestScope scope(world.NewLimits());
    if (const int status = world.OpenSource("stat", &file, &info)) return status;
  }
  const std::uint64_t size = file->Size();
  const std::uint64_t blocks = size / settings.block_size + (size % settings.block_size != 0);
  Print("name", vesk::PrintableText(name, name.size()));
  Print("size", std::to_string(size) + " bytes" + (size < 1024 ? "" : ", " + BytesText(size)));
  Print("blocks", std::to_string(blocks) + " of " + BytesText(std::uint64_t{settings.block_size}));
  Print("permissions", PermissionsText(info.mode));
  Print("modified", TimeText(info.modified_ns));
  Print("store", settings.store + " (" + world.runtime().backend_name() + ")");
  Print("cache", CacheText(settings));
  if (!EndOutput()) return kExitFailed;
  const vesk::RequestScope scope(world.LeavingLimits());
  file.reset();
  return kExitOk;
}

}  // namespace vesk_cli
