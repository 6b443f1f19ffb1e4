// The commands; each returns the program's exit status.

#ifndef PROGRAMS_CLI_COMMANDS_H_
#define PROGRAMS_CLI_COMMANDS_H_

#include "programs/cli/world.h"

namespace vesk_cli {

// Writes the source to standard output; fails in the end if it has changed meanwhile.
int Cat(World& world);

// Copies the source to the destination. The bytes go to a file of another name beside it, which
// takes the destination's name once it is complete and durable, and is removed when the copy fails
// or is interrupted, or its source has changed meanwhile. A write that fails is tried again where
// the store does that (retry) and the failure may pass; otherwise it ends the copy.
int Copy(World& world);

// Tells what the cache knows of the source before it has read anything of it, and how it would keep
// it.
int Stat(World& world);

// Rebuilds from a log what the cache held, and says whether its lines contradict each other.
int ReplayTrace(const Options& options);

// Lists all settings with the values they have.
int ListSettings(const Options& options, const vesk::Settings& settings);

}  // namespace vesk_cli

#endif  // PROGRAMS_CLI_COMMANDS_H_
