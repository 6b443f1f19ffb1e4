// What the command line can say.

#ifndef PROGRAMS_CLI_OPTIONS_H_
#define PROGRAMS_CLI_OPTIONS_H_

#include <cstddef>
#include <string>

#include "programs/settings_source.h"
#include "runtime/settings.h"

namespace vesk_cli {

struct Options {
  enum class Command { kCat, kCopy, kStat, kReplay, kSettings };

  // What is to be told of a log; lines are counted from 1, 0: not asked for.
  struct Replay {
    std::size_t at = 0;  // the state behind this line
    bool steps = false;  // what each line did, within these
    std::size_t from = 0;
    std::size_t to = 0;
    std::string file;    // of this one alone; empty: of all
    bool whole = false;  // the log begins with the program
  };

  Command command = Command::kCat;
  std::string source;
  std::string destination;        // of a copy
  std::string progress = "auto";  // of a copy: auto, always or never
  bool stats = false;
  bool markdown = false;  // of the table of settings
  Replay replay;
  vesk::SettingsSource settings_source;
};

// Exit statuses of the program; a signal that ended it gives 128 and its number.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // a file could not be read or written; a log tells of a failure
constexpr int kExitUsage = 2;   // a setting or the command line is wrong; nothing was touched

// True: `*options` and `*settings` are what command line, environment and configuration file say.
// False: the program is to end with `*status`, help or a message having been printed.
bool ParseOptions(int argc, char** argv, Options* options, vesk::Settings* settings, int* status);

// "vesk: <message> (see <where> --help)" on standard error.
void PrintUsageError(const std::string& message, const std::string& where);

// Brings standard output to its end; false: not all of it arrived, which was said on standard
// error.
bool EndOutput();

// "vesk cp" and the like.
std::string CommandName(const Options& options);

}  // namespace vesk_cli

#endif  // PROGRAMS_CLI_OPTIONS_H_
