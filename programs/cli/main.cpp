// The command line: vesk cat FILE, vesk cp SRC DST, vesk stat FILE, vesk replay TRACE,
// vesk settings.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "programs/cli/commands.h"
#include "programs/cli/options.h"
#include "programs/cli/world.h"

namespace {

int Run(vesk_cli::World& world) {
  using Command = vesk_cli::Options::Command;
  const Command command = world.options().command;
  if (command == Command::kCopy) return vesk_cli::Copy(world);
  if (command == Command::kStat) return vesk_cli::Stat(world);
  return vesk_cli::Cat(world);
}

// A standard descriptor that was closed would be given to the next file that is opened, and what is
// meant for people go into that. One that is opened the wrong way round refuses it as before.
void KeepStandardDescriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace

int main(int argc, char** argv) {
  using namespace vesk_cli;
  KeepStandardDescriptors();
  // A file that meets the process's size limit is then an error of its own (EFBIG), not the end.
  signal(SIGXFSZ, SIG_IGN);
  Options options;
  try {
    vesk::Settings settings;
    int status = kExitOk;
    if (!ParseOptions(argc, argv, &options, &settings, &status)) return status;
    if (options.command == Options::Command::kSettings) return ListSettings(options, settings);
    if (options.command == Options::Command::kReplay) return ReplayTrace(options);
    World world(options, settings);
    return Run(world);
  } catch (const std::invalid_argument& refusal) {  // the store cannot be had as it was asked for
    PrintUsageError(refusal.what(), CommandName(options));
    return kExitUsage;
  } catch (const std::system_error& failure) {
    // A thread that cannot be had is all that does not tell what it is.
    const bool is_thread = failure.what() == failure.code().message();
    std::fprintf(stderr, "vesk: %s%s\n", is_thread ? "cannot start a thread: " : "",
                 failure.what());
    return kExitFailed;
  } catch (const std::exception& failure) {  // no memory, no log file to be had
    std::fprintf(stderr, "vesk: %s\n", failure.what());
    return kExitFailed;
  }
}
