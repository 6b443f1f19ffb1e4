#include <cerrno>
#include <cstdio>
#include <system_error>

#include "programs/cli/commands.h"

namespace vesk_cli {

int ListSettings(const Options& options, const vesk::Settings& settings) {
  const std::string list =
      options.markdown ? vesk::SettingsMarkdown() : vesk::SettingsToml(settings);
  if (std::fputs(list.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return kExitOk;
  std::fprintf(stderr, "vesk: cannot write to 'standard output': %s\n",
               std::generic_category().message(errno).c_str());
  return kExitFailed;
}

}  // namespace vesk_cli
