// What the command line can say.

#ifndef PROGRAMS_CLI_OPTIONS_H_
#define PROGRAMS_CLI_OPTIONS_H_

#include <string>

#include "files/file.h"

namespace vesk_cli {

struct Options {
  enum class Command { kCat, kCopy };

  Command command = Command::kCat;
  std::string source;
  std::string destination;  // of a copy

  vesk::CacheShape shape;
  int refresh_seconds = 30;
  std::string trace = "off";
  bool stats = false;
};

// Exit statuses of the program; a signal that ended it gives 128 and its number.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // a file could not be read or written
constexpr int kExitUsage = 2;   // the command line is wrong; nothing was touched

// True: `*options` is what the command line says. False: the program is to end with `*status`, help
// or a message having been printed.
bool ParseOptions(int argc, char** argv, Options* options, int* status);

}  // namespace vesk_cli

#endif  // PROGRAMS_CLI_OPTIONS_H_
