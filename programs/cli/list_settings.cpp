#include <cstdio>

#include "programs/cli/commands.h"

namespace vesk_cli {

int ListSettings(const Options& options, const vesk::Settings& settings) {
  if (options.markdown) {
    std::fputs(vesk::SettingsMarkdown().c_str(), stdout);
    return kExitOk;
  }
  std::string group;
  for (const vesk::Setting& setting : vesk::SettingTable()) {
    if (setting.group != group) std::printf("\n[%s]\n", setting.group.c_str());
    group = setting.group;
    const std::string value = vesk::ValueText(setting, settings);
    std::printf("# %s (%s%s)\n", setting.help.c_str(), vesk::RangeText(setting).c_str(),
                setting.live ? ", live" : "");
    std::printf("%s = \"%s\"%s\n", setting.name.c_str(), value.c_str(),
                value == vesk::DefaultText(setting) ? "" : "  # not the default");
  }
  return kExitOk;
}

}  // namespace vesk_cli
