// Where the settings of a program come from: command line, environment, configuration file.

#ifndef PROGRAMS_SETTINGS_SOURCE_H_
#define PROGRAMS_SETTINGS_SOURCE_H_

#include <string>
#include <vector>

#include "runtime/settings.h"

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace vesk {

// What a reload of the configuration file did.
struct SettingsReload {
  std::string refusal;  // not empty: why nothing was changed, with file and line
  SettingChanges changes;

  // For the log, one line each; never empty.
  std::vector<std::string> Lines() const;
};

// Puts settings together. For each one the first of these that gives it holds: command line,
// environment, configuration file, default. A wrong value is refused wherever it stands, even where
// another one would hold.
//
// The file is TOML, as far as settings need it: lines of `name = value`, at the top or in the table
// of the setting's group (`[cache]`); comments; values bare, in quotes or, for levels, as a list.
// Backslashes have no meaning and are refused. A file in which anything is wrong is refused whole.
//   Threads  one at a time
class SettingsSource {
 public:
  // A value from the command line; the last one holds.
  void Take(const Setting& setting, const std::string& text);

  // The configuration file. A relative name stays valid when the program changes its directory.
  void TakeFile(const std::string& name);

  // A file was taken, which Reload can read again.
  bool HasFile() const { return has_file_; }

  // Reads the environment, once for the life of the source, and the file.
  //   After    `*settings` has all values, or is unchanged when an error is returned
  //   Ends in  return only: nothing, or one line that names the place, such as
  //            "vesk.toml:7: block-size: '0' is too small: at least 1 byte"
  //   Threads  before anybody reads `*settings`
  [[nodiscard]] std::string Load(Settings* settings);

  // Reads the file again and applies its live settings; what is no longer in it falls back to the
  // default. What is not live and differs from `*running` is told and left alone.
  //   Before   Load
  //   Ends in  return, or std::bad_alloc with nothing changed
  //   Threads  readers of `*running` go on undisturbed
  SettingsReload Reload(Settings* running) const;

 private:
  struct Given {
    const Setting* setting;
    std::string text;
    std::string place;  // what a message begins with
    bool in_file = false;
  };
  using Layer = std::vector<Given>;

  std::string ReadFile(Layer* file) const;
  std::string Resolve(Settings* wanted) const;

  Layer arguments_;
  Layer environment_;
  bool has_file_ = false;
  std::string file_name_;  // as given, for messages
  std::string file_path_;  // absolute
};

// Adds the option --NAME for each setting, by group, and --config FILE. What the command line says
// is in `*source` once `app` has been parsed; it is checked by Load, so --help comes first whatever
// else is wrong.
//   Owns     borrows `source`: it outlives the parse
void AddSettings(CLI::App* app, SettingsSource* source);

// All settings with their values and what they mean, as a configuration file that says the same. A
// value that no such file can say, as one with a backslash, stands in a comment.
std::string SettingsToml(const Settings& settings);

// For the footer of an `app` with settings: where they come from, and how values are written.
std::string SettingsFooter();

// The words of a command line as `app.parse` takes them. An empty value, `--NAME=`, becomes a word
// of its own: the parser would take the next word for the value.
//   Before   `app` and its commands have all their options
std::vector<std::string> CommandLineWords(const CLI::App& app, int argc, const char* const* argv);

// Why `app.parse` failed, on one line. An unknown option that is a slip of a known one is told so.
std::string ParseErrorText(const CLI::App& app, const CLI::ParseError& error);

}  // namespace vesk

#endif  // PROGRAMS_SETTINGS_SOURCE_H_
