#include "programs/settings_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "runtime/nearest_name.h"

namespace vesk {

namespace {

constexpr std::size_t kLongestQuote = 100;  // of a text of any length
constexpr std::size_t kLargestFile = std::size_t{1} << 20;

std::string ErrorText(int error) { return std::generic_category().message(error); }

// "; did you mean ...?", or nothing.
std::string Suggestion(const std::string& name, const std::vector<std::string>& known,
                       const std::string& before) {
  const std::string nearest = NearestName(name, known);
  return nearest.empty() ? "" : "; did you mean " + before + nearest + '?';
}

std::vector<std::string> SettingNames() {
  std::vector<std::string> names;
  for (const Setting& setting : SettingTable()) names.push_back(setting.name);
  return names;
}

std::vector<std::string> Groups() {
  std::vector<std::string> groups;
  for (const Setting& setting : SettingTable()) {
    if (groups.empty() || groups.back() != setting.group) groups.push_back(setting.group);
  }
  return groups;
}

// ---- the environment ----

// A variable that is almost called as a setting is; one that only begins as they do may be somebody
// else's.
std::string MisspeltVariable() {
  constexpr char kPrefix[] = "VESK_";
  std::vector<std::string> known;
  for (const Setting& setting : SettingTable()) known.push_back(EnvironmentName(setting));
  for (const char* const* variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    std::string name = text.substr(0, text.find('='));
    if (name.rfind(kPrefix, 0) != 0) continue;
    if (std::find(known.begin(), known.end(), name) != known.end()) continue;
    const std::string meant = Suggestion(name, known, "");
    if (!meant.empty()) return name.append(": there is no such setting").append(meant);
  }
  return "";
}

// ---- the configuration file ----

// The whole of a regular file. Anything else could block, or could not be read a second time.
std::string ReadAll(int fd, std::string* text) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) return ErrorText(errno);
  if (S_ISDIR(status.st_mode)) return ErrorText(EISDIR);
  if (!S_ISREG(status.st_mode)) return "Not a regular file";
  std::array<char, 4096> chunk;
  for (;;) {
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count == 0) return "";
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return ErrorText(errno);
    text->append(chunk.data(), static_cast<std::size_t>(count));
    if (text->size() > kLargestFile) return "Longer than a configuration can be: over 1 MiB";
  }
}

std::string ReadAll(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return ErrorText(errno);
  std::string wrong = ReadAll(fd, text);
  close(fd);
  return wrong;
}

bool IsQuote(char c) { return c == '"' || c == '\''; }

// Cuts comment and blanks off, and refuses what the reader behind it would take for something else
// than what it looks like: it knows no escapes, and forgives quotes that are not closed.
std::string CleanLine(std::string* line) {
  if (!line->empty() && line->back() == '\r') line->pop_back();
  char quote = 0;
  std::size_t end = 0;
  for (; end < line->size(); ++end) {
    const char c = (*line)[end];
    const char before = end == 0 ? ' ' : (*line)[end - 1];
    if (quote == 0 && c == '#') break;
    if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f)
      return "a control character";
    if (c == '\\') return "a backslash, which has no meaning here";
    if (c == '`') return "a backquote";
    if (quote == 0 && IsQuote(c)) {
      if (std::string(" \t=,[").find(before) == std::string::npos) return "a quote inside a value";
      quote = c;
      continue;
    }
    if (quote == 0) continue;
    if (c != quote && IsQuote(c) && before == quote) return "quotes inside quotes";
    if (c != quote) continue;
    quote = 0;
    const char after = end + 1 < line->size() ? (*line)[end + 1] : ' ';
    if (std::string(" \t\r=,]#").find(after) == std::string::npos)
      return "something behind a closing quote";
  }
  if (quote != 0) return "a quote that is not closed";
  line->resize(end);
  CLI::detail::trim(*line);
  return "";
}

// Reads a file line by line, so that each message has its line.
class FileReader {
 public:
  struct Entry {
    const Setting* setting;
    std::string text;
    std::size_t line;
  };

  //   Ends in  nothing; or what is wrong with line line()
  std::string Read(const std::string& text) {
    std::istringstream input(text);
    std::string raw;
    for (line_ = 1; std::getline(input, raw); ++line_) {
      if (line_ == 1 && raw.compare(0, 3, "\xef\xbb\xbf") == 0) raw.erase(0, 3);
      std::string wrong = ReadLine(std::move(raw));
      if (!wrong.empty()) return wrong;
    }
    return "";
  }

  std::size_t line() const { return line_; }
  const std::vector<Entry>& entries() const { return entries_; }

 private:
  std::string ReadLine(std::string line) {
    const std::string wrong = CleanLine(&line);
    if (!wrong.empty()) return "the line has " + wrong;
    if (line.empty()) return "";
    if (line.front() == '[') return ReadTable(line);
    return ReadValue(line);
  }

  std::string ReadTable(const std::string& line) {
    const std::vector<std::string> groups = Groups();
    const std::string name =
        line.back() == ']' ? CLI::detail::trim_copy(line.substr(1, line.size() - 2)) : line;
    if (std::find(groups.begin(), groups.end(), name) == groups.end())
      return "there is no table " + QuotedText(name) + ": only " + CLI::detail::join(groups, ", ") +
             Suggestion(name, groups, "");
    table_ = name;
    return "";
  }

  std::string ReadValue(const std::string& line) {
    CLI::ConfigItem item;
    if (!Parse(line, &item)) return NotUnderstood(line);
    const Setting* const setting = FindSetting(item.name);
    if (setting == nullptr)
      return "there is no setting " + QuotedText(item.name) +
             Suggestion(item.name, SettingNames(), "");
    for (const std::string& parent : item.parents) {
      if (item.parents.size() > 1 || parent != setting->group)
        return setting->name + ": belongs in the table [" + setting->group +
               "] or before the first table, not in [" +
               PrintableText(CLI::detail::join(item.parents, "."), kLongestQuote) + ']';
    }
    if (!IsNameOf(*setting, line)) return NotUnderstood(line);
    for (const Entry& entry : entries_) {
      if (entry.setting == setting)
        return setting->name + ": is there twice, first in line " + std::to_string(entry.line);
    }
    const bool list = setting->type == SettingType::kLevels;
    if (!list && (item.inputs.size() != 1 || !IsOneValue(line)))
      return setting->name + ": one value is wanted; one with blanks or commas needs quotes";
    entries_.push_back({setting, list ? ListText(item, line) : item.inputs[0], line_});
    return "";
  }

  static std::string NotUnderstood(const std::string& line) {
    return QuotedText(line) + " is neither a comment nor a [table] nor NAME = VALUE";
  }

  // The reader overlooks dots around a name.
  static bool IsNameOf(const Setting& setting, const std::string& line) {
    std::string name = line.substr(0, line.find('='));
    const auto is_around = [](char c) { return IsQuote(c) || c == ' ' || c == '\t'; };
    name.erase(std::remove_if(name.begin(), name.end(), is_around), name.end());
    return name == setting.name || name == setting.group + '.' + setting.name;
  }

  // Where there is one value only, the reader overlooks the brackets and commas of a list.
  static bool IsOneValue(const std::string& line) {
    const std::string value = ValueOf(line);
    if (value.empty()) return true;
    if (IsQuote(value.front())) return value.back() == value.front();
    return value.front() != '[' && value.find(',') == std::string::npos;
  }

  static std::string ListText(const CLI::ConfigItem& item, const std::string& line) {
    // A bare list is the setting's to read: it is as strict with it as in any other place.
    if (std::string("[\"'").find(ValueOf(line)[0]) == std::string::npos) return ValueOf(line);
    // The reader makes an empty word of a blank before a comma.
    std::vector<std::string> words = item.inputs;
    if (words.size() > 1) words.erase(std::remove(words.begin(), words.end(), ""), words.end());
    return CLI::detail::join(words, ",");
  }

  // What stands behind the '='.
  static std::string ValueOf(const std::string& line) {
    return CLI::detail::trim_copy(line.substr(line.find('=') + 1));
  }

  // The line as the TOML reader understands it in the current table.
  bool Parse(const std::string& line, CLI::ConfigItem* item) const {
    if (line.find('=') == std::string::npos) return false;
    if (line.back() != ']' && ValueOf(line)[0] == '[')
      return false;  // a list over several lines: nothing is long enough to need one
    CLI::ConfigTOML reader;
    reader.comment('\0');  // comments are gone, a '#' that is left stands in quotes
    std::istringstream input(table_.empty() ? line : '[' + table_ + "]\n" + line);
    const std::vector<CLI::ConfigItem> items = reader.from_config(input);
    const std::size_t around = table_.empty() ? 0 : 1;  // begin and end of the table
    if (items.size() != 1 + 2 * around) return false;
    *item = items[around];
    return true;
  }

  std::size_t line_ = 0;
  std::string table_;
  std::vector<Entry> entries_;
};

// The line of a file that says `value`, in the quotes in which the reader takes it for just that.
std::string FileLine(const Setting& setting, const std::string& value) {
  for (const char quote : {'"', '\''}) {
    std::string line = setting.name + " = " + quote + value + quote;
    FileReader reader;
    if (reader.Read(line).empty() && reader.entries().front().text == value) return line;
  }
  return "# no file can say it: " + setting.name + " = " + value;
}

// ---- help ----

constexpr std::size_t kWidth = 44;  // of the longest option with its default, and two blanks

std::string Help(const Setting& setting) {
  const bool has_range = setting.least != setting.most;
  std::string notes = has_range ? RangeText(setting) : "";
  if (setting.live) notes += notes.empty() ? "live" : ", live";
  return notes.empty() ? setting.help : setting.help + " (" + notes + ')';
}

// Broken into lines that end before column 100; the formatter indents all but the first.
std::string Wrapped(const std::string& text) {
  constexpr std::size_t kLine = 100 - kWidth;
  std::string lines;
  std::size_t length = 0;
  for (const std::string& word : CLI::detail::split(text, ' ')) {
    if (length != 0) {
      const bool fits = length + 1 + word.size() <= kLine;
      lines += fits ? ' ' : '\n';
      length = fits ? length + 1 : 0;
    }
    lines += word;
    length += word.size();
  }
  return lines;
}

std::string TypeName(const Setting& setting) {
  if (!setting.choices.empty()) return CLI::detail::join(setting.choices, "|");
  std::string name = TypeText(setting);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return setting.type == SettingType::kDuration ? name + '[' + setting.unit + ']' : name;
}

// The long options of `app` and of all its commands.
void AddNames(const CLI::App& app, std::vector<std::string>* names) {
  for (const CLI::Option* const option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) names->push_back(name);
  }
  for (const CLI::App* const command : app.get_subcommands({})) AddNames(*command, names);
}

// An option of `app` or of its commands that takes one value and was given several; empty: none.
std::string RepeatedOption(const CLI::App& app) {
  for (const CLI::Option* const option : app.get_options()) {
    if (option->get_items_expected_max() == 1 && option->count() > 1) return option->get_name();
  }
  for (const CLI::App* const command : app.get_subcommands()) {
    std::string name = RepeatedOption(*command);
    if (!name.empty()) return name;
  }
  return "";
}

// `app` or one of its commands has a long option of that name that needs a value.
bool NeedsValue(const CLI::App& app, const std::string& name) {
  for (const CLI::Option* const option : app.get_options()) {
    if (option->check_lname(name) && option->get_items_expected_min() > 0) return true;
  }
  const std::vector<const CLI::App*> commands = app.get_subcommands({});
  return std::any_of(commands.begin(), commands.end(),
                     [&name](const CLI::App* command) { return NeedsValue(*command, name); });
}

}  // namespace

std::vector<std::string> SettingsReload::Lines() const {
  if (!refusal.empty()) return {refusal + "; nothing was changed"};
  std::vector<std::string> lines;
  const auto told = [](const SettingChange& change) {
    return change.name + ": " + QuotedText(change.from) + " -> " + QuotedText(change.to);
  };
  for (const SettingChange& change : changes.applied) lines.push_back(told(change));
  for (const SettingChange& change : changes.at_next_start)
    lines.push_back(told(change) + " takes effect at the next start");
  if (lines.empty()) lines.emplace_back("no setting has changed");
  return lines;
}

void SettingsSource::Take(const Setting& setting, const std::string& text) {
  arguments_.push_back({&setting, text, "--" + setting.name});
}

void SettingsSource::TakeFile(const std::string& name) {
  std::error_code unknown;  // without a working directory the name is all there is
  has_file_ = true;
  // A name that would make a message unreadable is quoted in it.
  const bool plain = !name.empty() && std::none_of(name.begin(), name.end(), [](unsigned char c) {
    return c < 0x20 || c == 0x7f;
  });
  file_name_ = plain ? name : QuotedText(name);
  file_path_ = std::filesystem::absolute(name, unknown).string();
  if (unknown) file_path_ = name;
}

std::string SettingsSource::ReadFile(Layer* file) const {
  if (!has_file_) return "";
  std::string text;
  std::string wrong = ReadAll(file_path_, &text);
  if (!wrong.empty()) return file_name_ + ": " + wrong;
  const auto place = [this](std::size_t line) { return file_name_ + ':' + std::to_string(line); };
  FileReader reader;
  wrong = reader.Read(text);
  if (!wrong.empty()) return place(reader.line()) + ": " + wrong;
  for (const FileReader::Entry& entry : reader.entries())
    file->push_back(
        {entry.setting, entry.text, place(entry.line) + ": " + entry.setting->name, true});
  return "";
}

std::string SettingsSource::Resolve(Settings* wanted) const {
  Layer file;
  std::string wrong = ReadFile(&file);
  if (!wrong.empty()) return wrong;

  std::vector<const Given*> all;  // weakest first: each value is checked, the last one stays
  for (const Layer* layer : std::array<const Layer*, 3>{&file, &environment_, &arguments_}) {
    for (const Given& given : *layer) all.push_back(&given);
  }
  for (const Given* given : all) {
    wrong = SetSetting(*given->setting, given->text, wanted);
    if (!wrong.empty()) return given->place + ": " + wrong;
  }

  const std::optional<SettingConflict> conflict = FindConflict(*wanted);
  if (!conflict) return "";
  // The file is what somebody has just edited, so its line says most.
  const Given* culprit = nullptr;
  for (const Given* given : all) {
    if (given->setting->name != conflict->name && given->setting->name != conflict->other) continue;
    if (culprit == nullptr || !culprit->in_file) culprit = given;
  }
  return (culprit == nullptr ? "" : culprit->place + ": ") + conflict->reason;
}

std::string SettingsSource::Load(Settings* settings) {
  std::string wrong = MisspeltVariable();
  if (!wrong.empty()) return wrong;
  environment_.clear();
  for (const Setting& setting : SettingTable()) {
    const std::string name = EnvironmentName(setting);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): once, before the program has other threads
    const char* const text = std::getenv(name.c_str());
    if (text != nullptr) environment_.push_back({&setting, text, name});
  }
  Settings wanted;
  wrong = Resolve(&wanted);
  if (wrong.empty()) CopySettings(wanted, settings);
  return wrong;
}

SettingsReload SettingsSource::Reload(Settings* running) const {
  SettingsReload reload;
  Settings wanted;
  reload.refusal = Resolve(&wanted);
  if (reload.refusal.empty()) reload.changes = ApplyLiveSettings(wanted, running);
  return reload;
}

void AddSettings(CLI::App* app, SettingsSource* source) {
  app->get_formatter()->column_width(kWidth);
  app->add_option_function<std::string>(
         "--config", [source](const std::string& name) { source->TakeFile(name); },
         "Read settings from this file (TOML)")
      ->type_name("FILE");
  for (const Setting& setting : SettingTable()) {
    std::string group = setting.group;
    group[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(group[0])));
    app->add_option_function<std::string>(
           "--" + setting.name,
           [source, &setting](const std::string& text) { source->Take(setting, text); },
           Wrapped(Help(setting)))
        ->type_name(TypeName(setting))
        ->default_str(DefaultText(setting))
        ->group(group);
  }
}

std::string SettingsToml(const Settings& settings) {
  std::string file;
  std::string group;
  for (const Setting& setting : SettingTable()) {
    if (setting.group != group) file += "\n[" + setting.group + "]\n";
    group = setting.group;
    const std::string value = ValueText(setting, settings);
    file += "# " + setting.help + " (" + RangeText(setting) + (setting.live ? ", live)\n" : ")\n");
    file += FileLine(setting, value);
    file += value == DefaultText(setting) ? "\n" : "  # not the default\n";
  }
  return file;
}

std::string SettingsFooter() {
  const Setting& example = SettingTable().front();
  return "A setting can also stand in the file of --config, as " + example.name +
         " = VALUE, or in the\nenvironment, as " + EnvironmentName(example) +
         "; the command line goes before the environment, and that\n"
         "before the file. Sizes take K, M, G and T (powers of 1024), durations us, ms, s, m and "
         "h;\n"
         "a bare number is bytes, or has the unit in brackets. What is live can be changed in the\n"
         "file while the program runs.";
}

std::vector<std::string> CommandLineWords(const CLI::App& app, int argc, const char* const* argv) {
  std::vector<std::string> words;
  bool options = true;  // until "--"
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    options = options && word != "--";
    const bool empty_value = options && word.size() > 3 && word.compare(0, 2, "--") == 0 &&
                             word.back() == '=' && NeedsValue(app, word.substr(2, word.size() - 3));
    if (empty_value) word.pop_back();
    words.push_back(std::move(word));
    if (empty_value) words.emplace_back();
  }
  std::reverse(words.begin(), words.end());  // the parser takes them from the back
  return words;
}

std::string ParseErrorText(const CLI::App& app, const CLI::ParseError& error) {
  const std::string repeated = RepeatedOption(app);
  if (!repeated.empty() && error.get_name() == "ArgumentMismatch") {
    return repeated + " is there twice";
  }
  for (const std::string& word : app.remaining(true)) {
    if (word.size() < 3 || word.compare(0, 2, "--") != 0) continue;
    std::vector<std::string> names;
    AddNames(app, &names);
    const std::string name = word.substr(2, word.find('=') - 2);
    if (std::find(names.begin(), names.end(), name) != names.end()) continue;  // behind a "--"
    return "there is no option " + QuotedText("--" + name) + Suggestion(name, names, "--");
  }
  constexpr std::size_t kLongest = 500;  // what was given may be of any length
  return PrintableText(error.what(), kLongest);
}

}  // namespace vesk
