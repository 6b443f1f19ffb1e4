#include <cstdio>

#include "programs/cli/commands.h"

namespace vesk_cli {

int ListSettings(const Options& options, const vesk::Settings& settings) {
  const std::string list =
      options.markdown ? vesk::SettingsMarkdown() : vesk::SettingsToml(settings);
  std::fputs(list.c_str(), stdout);
  return EndOutput() ? kExitOk : kExitFailed;
}

}  // namespace vesk_cli
