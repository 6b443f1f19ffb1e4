// The same text for a setting on the command line, in the environment and in the configuration file
// comes to the same: the same value, or the same refusal. An input is "NAME TEXT".

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <vector>

#include "fuzz/memory_file.h"
#include "fuzz/settings.h"
#include "programs/settings_source.h"

namespace {

using vesk::Setting;
using vesk::Settings;
using vesk::SettingsSource;
using vesk_fuzz::Require;
using vesk_fuzz::RequireSame;

// What a program has after its start: all values, or why there are none.
struct Outcome {
  std::string refusal;
  std::string values;
};

Outcome Expected(const Setting& setting, const std::string& text, const std::string& place) {
  Settings settings;
  std::string wrong = vesk::SetSetting(setting, text, &settings);
  const auto conflict = vesk::FindConflict(settings);
  if (wrong.empty() && conflict) wrong = conflict->reason;
  if (wrong.empty()) return {"", vesk_fuzz::Snapshot(settings)};
  return {place + ": " + wrong, vesk_fuzz::Snapshot(Settings())};
}

Outcome Loaded(SettingsSource* source) {
  Settings settings;
  std::string refusal = source->Load(&settings);
  return {std::move(refusal), vesk_fuzz::Snapshot(settings)};
}

Outcome FromArguments(const std::vector<std::string>& arguments) {
  static SettingsSource& source = *new SettingsSource;
  static CLI::App* const app = [] {
    auto* const made = new CLI::App("A program with settings.", "program");
    vesk::AddSettings(made, &source);
    return made;
  }();
  source = SettingsSource();
  try {
    std::vector<const char*> words = {"program"};
    for (const std::string& argument : arguments) words.push_back(argument.c_str());
    app->parse(vesk::CommandLineWords(*app, static_cast<int>(words.size()), words.data()));
  } catch (const CLI::ParseError& error) {
    vesk_fuzz::Fail("the command line takes any text: " + vesk::ParseErrorText(*app, error));
  }
  return Loaded(&source);
}

Outcome FromEnvironment(const Setting& setting, const std::string& text) {
  const std::string name = vesk::EnvironmentName(setting);
  setenv(name.c_str(), text.c_str(), 1);
  SettingsSource source;
  Outcome outcome = Loaded(&source);
  unsetenv(name.c_str());
  return outcome;
}

Outcome FromFile(const std::string& text, std::string* file_name) {
  static const vesk_fuzz::MemoryFile& file = *new vesk_fuzz::MemoryFile;
  file.Write(text);
  *file_name = file.name();
  SettingsSource source;
  source.TakeFile(file.name());
  return Loaded(&source);
}

void RequireOutcome(const Outcome& got, const Outcome& wanted) {
  RequireSame(got.refusal, wanted.refusal, "the same refusal, with its place");
  RequireSame(got.values, wanted.values, "the same values");
}

void RequireFromFile(const Setting& setting, const std::string& text, char quote) {
  const std::string line = setting.name + " = " + quote + text + quote + '\n';
  std::string file;
  const Outcome bare = FromFile(line, &file);
  RequireOutcome(bare, Expected(setting, text, file + ":1: " + setting.name));
  const Outcome in_table = FromFile("# x\n[" + setting.group + "]\n" + line, &file);
  RequireOutcome(in_table, Expected(setting, text, file + ":3: " + setting.name));
}

// The list of all settings is a file that says the same, as far as a file can say it.
void RequireList(const Setting& setting, const std::string& text) {
  Settings settings;
  if (!vesk::SetSetting(setting, text, &settings).empty() || vesk::FindConflict(settings)) return;
  const std::string list = vesk::SettingsToml(settings);
  const bool sayable = list.find("# no file can say it: ") == std::string::npos;
  std::string file;
  const Settings defaults;
  RequireOutcome(FromFile(list, &file), {"", vesk_fuzz::Snapshot(sayable ? settings : defaults)});
  Require(sayable || text.find_first_of("\\`\"'") != std::string::npos, "a file says what it can");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const vesk_fuzz::NamedText input(vesk_fuzz::Text(data, size));
  const std::string& text = input.text;
  if (input.setting == nullptr || text.find('\0') != std::string::npos) return 0;
  const Setting& setting = *input.setting;
  const std::string option = "--" + setting.name;

  const Outcome by_option = Expected(setting, text, option);
  RequireOutcome(FromArguments({option + '=' + text}), by_option);
  if (text.empty() || text[0] != '-') RequireOutcome(FromArguments({option, text}), by_option);
  RequireOutcome(FromEnvironment(setting, text),
                 Expected(setting, text, vesk::EnvironmentName(setting)));

  RequireList(setting, text);
  if (vesk_fuzz::HasControl(text) || text.find_first_of("\\`\"'") != std::string::npos) return 0;
  RequireFromFile(setting, text, '"');
  RequireFromFile(setting, text, '\'');
  return 0;
}
