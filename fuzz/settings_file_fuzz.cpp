// Any bytes as a configuration file: what is taken means what it looks like and can be written down
// and taken again; what is refused changes nothing, and the message names the line.

#include <algorithm>
#include <set>
#include <sstream>

#include "fuzz/memory_file.h"
#include "fuzz/settings.h"
#include "programs/settings_source.h"

namespace {

using vesk::Setting;
using vesk::Settings;
using vesk::SettingsSource;
using vesk_fuzz::MemoryFile;
using vesk_fuzz::Require;
using vesk_fuzz::RequireSame;

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

// A value as a reader takes it in who knows of quotes and comments and nothing else.
std::string Unquoted(const std::string& value) {
  if (value[0] == '"' || value[0] == '\'') return value.substr(1, value.find(value[0], 1) - 1);
  return Trimmed(value.substr(0, value.find('#')));
}

// Does to `*settings` what a line of a file that was taken looks like. Lists of quoted words are
// left out.
void Apply(const std::string& line, std::set<std::string>* names, Settings* settings) {
  const std::size_t equals = line.find('=');
  if (line.empty() || line[0] == '#' || line[0] == '[') return;
  Require(equals != std::string::npos, "a line that was taken is NAME = VALUE");
  std::string name = Trimmed(line.substr(0, equals));
  for (const char around : {'"', '\'', ' ', '\t'})
    name.erase(std::remove(name.begin(), name.end(), around), name.end());
  const std::size_t dot = name.find('.');
  const Setting* const setting = vesk::FindSetting(name.substr(dot + 1));
  if (setting == nullptr) vesk_fuzz::Fail("a file was taken with the unknown name " + name);
  Require(dot == std::string::npos || name.substr(0, dot) == setting->group, "the setting's group");
  Require(names->insert(setting->name).second, "no setting is there twice");
  const std::string value = Trimmed(line.substr(equals + 1));
  const bool is_list = setting->type == vesk::SettingType::kLevels;
  if (is_list && value.find_first_of("[\"'") == 0) return;
  RequireSame(vesk::SetSetting(*setting, Unquoted(value), settings), "",
              "a value that was taken is right as it looks");
}

void RequireMeaning(const std::string& text, const Settings& settings) {
  Settings wanted;
  std::set<std::string> names;
  std::istringstream lines(text.compare(0, 3, "\xef\xbb\xbf") == 0 ? text.substr(3) : text);
  for (std::string line; std::getline(lines, line);) Apply(Trimmed(line), &names, &wanted);
  for (const Setting& setting : vesk::SettingTable()) {
    if (setting.type == vesk::SettingType::kLevels) continue;  // may be a list
    RequireSame(vesk::ValueText(setting, settings), vesk::ValueText(setting, wanted),
                "a value is what the line looks like");
  }
}

// "NAME: message" or "NAME:LINE: message", where the file has that line.
void RequirePlace(const std::string& refusal, const std::string& name, const std::string& text) {
  vesk_fuzz::RequireMessage(refusal);
  Require(refusal.compare(0, name.size() + 1, name + ':') == 0, "a refusal names the file");
  std::size_t digits = 0;
  const unsigned long line = std::stoul(refusal.substr(name.size() + 1), &digits);
  Require(refusal.compare(name.size() + 1 + digits, 2, ": ") == 0, "a refusal names the line");
  std::size_t lines = 1;
  for (const char c : text) lines += c == '\n' ? 1 : 0;
  Require(line >= 1 && line <= lines, "the file has the line that a refusal names");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile& file = *new MemoryFile;
  static const std::string& defaults = *new std::string(vesk_fuzz::Snapshot(Settings()));
  const std::string text = vesk_fuzz::Text(data, size);
  file.Write(text);
  SettingsSource source;
  source.TakeFile(file.name());
  Settings settings;
  const std::string refusal = source.Load(&settings);
  if (!refusal.empty()) {
    RequirePlace(refusal, file.name(), text);
    RequireSame(vesk_fuzz::Snapshot(settings), defaults, "a refusal changes nothing");
    RequireSame(source.Reload(&settings).refusal, refusal, "the same again for a reload");
    return 0;
  }
  vesk_fuzz::RequireValid(settings);
  RequireMeaning(text, settings);
  RequireSame(source.Reload(&settings).Lines().front(), "no setting has changed",
              "a file that is the same changes nothing");
  file.Write(vesk::SettingsToml(settings));
  Settings again;
  RequireSame(source.Load(&again), "", "the list of all settings is a configuration file");
  RequireSame(vesk_fuzz::Snapshot(again), vesk_fuzz::Snapshot(settings),
              "the list says the same as the file it comes from");
  return 0;
}
