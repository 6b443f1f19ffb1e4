// What the fuzz targets about settings share.

#ifndef FUZZ_SETTINGS_H_
#define FUZZ_SETTINGS_H_

#include <string>

#include "fuzz/fuzz.h"
#include "runtime/settings.h"

namespace vesk_fuzz {

// An input of the form "NAME TEXT": a setting, or null, and a text for it.
struct NamedText {
  explicit NamedText(const std::string& input) {
    const std::size_t blank = input.find(' ');
    if (blank == std::string::npos) return;
    setting = vesk::FindSetting(input.substr(0, blank));
    text = input.substr(blank + 1);
  }

  const vesk::Setting* setting = nullptr;
  std::string text;
};

// All values, to compare.
inline std::string Snapshot(const vesk::Settings& settings) {
  std::string all;
  for (const vesk::Setting& setting : vesk::SettingTable())
    all += setting.name + '=' + vesk::ValueText(setting, settings) + '\n';
  return all;
}

// Every value is one that its own text sets.
inline void RequireValid(const vesk::Settings& settings) {
  vesk::Settings again;
  for (const vesk::Setting& setting : vesk::SettingTable()) {
    const std::string text = vesk::ValueText(setting, settings);
    RequireSame(vesk::SetSetting(setting, text, &again), "", setting.name.c_str());
    RequireSame(vesk::ValueText(setting, again), text, setting.name.c_str());
  }
  Require(!vesk::FindConflict(settings), "accepted settings go together");
}

}  // namespace vesk_fuzz

#endif  // FUZZ_SETTINGS_H_
