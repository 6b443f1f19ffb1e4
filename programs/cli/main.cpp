// The command line: vesk cat FILE, vesk cp SRC DST.

#include <signal.h>

#include <cstdio>
#include <exception>

#include "programs/cli/commands.h"
#include "programs/cli/options.h"
#include "programs/cli/world.h"

int main(int argc, char** argv) {
  using namespace vesk_cli;
  // A file that meets the process's size limit is then an error of its own (EFBIG), not the end.
  signal(SIGXFSZ, SIG_IGN);
  try {
    Options options;
    int status = kExitOk;
    if (!ParseOptions(argc, argv, &options, &status)) return status;
    World world(options);
    return options.command == Options::Command::kCopy ? Copy(world) : Cat(world);
  } catch (const std::exception& failure) {  // no memory, or no threads to be had
    std::fprintf(stderr, "vesk: %s\n", failure.what());
    return kExitFailed;
  }
}
