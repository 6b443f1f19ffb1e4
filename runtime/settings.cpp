#include "runtime/settings.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <limits>
#include <string_view>
#include <utility>

#include "runtime/store_spec.h"

namespace vesk {

namespace {

// A suffix of numbers and what it is worth in the smallest unit.
struct Suffix {
  std::string_view text;
  std::uint64_t worth;
};

// Largest first: a value is told in the first that divides it, and 1 divides every one.
constexpr Suffix kSizes[] = {{"T", std::uint64_t{1} << 40},
                             {"G", std::uint64_t{1} << 30},
                             {"M", std::uint64_t{1} << 20},
                             {"K", std::uint64_t{1} << 10},
                             {"", 1}};
constexpr Suffix kDurations[] = {
    {"h", 3600000000}, {"m", 60000000}, {"s", 1000000}, {"ms", 1000}, {"us", 1}};

constexpr std::size_t kLongestText = 4096;  // as long as a path can be
constexpr std::uint64_t kHourMs = std::uint64_t{3600} * 1000;
constexpr std::uint64_t kLargestSize = std::uint64_t{1} << 40;
constexpr std::uint64_t kLargestBlock = 100 * 1024 * 1024 - 1;  // what the cache allocates at most

// What a setting's unit is worth: that of a duration in microseconds, any other is the smallest.
std::uint64_t WorthOf(std::string_view unit) {
  for (const Suffix& suffix : kDurations) {
    if (suffix.text == unit) return suffix.worth;
  }
  return 1;
}

template <std::size_t N>
std::string NumberText(std::uint64_t value, const Suffix (&suffixes)[N]) {
  if (value == 0) return "0";
  const Suffix* suffix = suffixes;
  while (value % suffix->worth != 0) ++suffix;
  return std::to_string(value / suffix->worth) + std::string(suffix->text);
}

std::string NumberText(const Setting& setting, std::uint64_t value) {
  if (setting.type == SettingType::kSize) return NumberText(value, kSizes);
  if (setting.type == SettingType::kDuration)
    return NumberText(value * WorthOf(setting.unit), kDurations);
  return std::to_string(value);
}

// As NumberText, for people: a number of bytes says so.
std::string BoundText(const Setting& setting, std::uint64_t value) {
  std::string text = NumberText(setting, value);
  if (setting.type != SettingType::kSize || value == 0 || text.back() > '9') return text;
  return text + (value == 1 ? " byte" : " bytes");
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

// ---- the table's rows ----

template <class T>
T Get(const T& field) {
  return field;
}
template <class T>
T Get(const std::atomic<T>& field) {
  return field.load(std::memory_order_relaxed);
}

template <class T>
void Put(std::uint64_t value, T* field) {
  *field = static_cast<T>(value);
}
template <class T>
void Put(std::uint64_t value, std::atomic<T>* field) {
  field->store(static_cast<T>(value), std::memory_order_relaxed);
}

template <class T>
constexpr bool IsLive(const T*) {
  return false;
}
template <class T>
constexpr bool IsLive(const std::atomic<T>*) {
  return true;
}

// What all settings have that are numbers inside. A setting is live where its field is atomic.
template <class Owner, class Field>
Setting Row(const char* name, const char* group, SettingType type, Field Owner::*field,
            const char* help) {
  Setting setting;
  setting.name = name;
  setting.group = group;
  setting.type = type;
  setting.live = IsLive(static_cast<const Field*>(nullptr));
  setting.help = help;
  setting.number = [field](const Settings& settings) {
    return static_cast<std::uint64_t>(Get(settings.*field));
  };
  setting.set_number = [field](Settings* settings, std::uint64_t value) {
    Put(value, &(settings->*field));
  };
  return setting;
}

template <class Owner, class Field>
Setting Number(const char* name, const char* group, SettingType type, const char* unit,
               Field Owner::*field, std::uint64_t least, std::uint64_t most, const char* help) {
  Setting setting = Row(name, group, type, field, help);
  setting.unit = unit;
  setting.least = least;
  setting.most = most;
  return setting;
}

template <class Field>
Setting Count(const char* name, const char* group, Field Settings::*field, std::uint64_t least,
              std::uint64_t most, const char* help) {
  return Number(name, group, SettingType::kCount, "", field, least, most, help);
}

template <class Field>
Setting Size(const char* name, const char* group, Field Settings::*field, std::uint64_t least,
             std::uint64_t most, const char* help) {
  return Number(name, group, SettingType::kSize, "bytes", field, least, most, help);
}

template <class Field>
Setting Milliseconds(const char* name, const char* group, Field Settings::*field,
                     std::uint64_t least, std::uint64_t most, const char* help) {
  return Number(name, group, SettingType::kDuration, "ms", field, least, most, help);
}

template <class Field>
Setting Choice(const char* name, const char* group, SettingType type, Field Settings::*field,
               std::vector<std::string> choices, const char* help) {
  Setting setting = Row(name, group, type, field, help);
  setting.choices = std::move(choices);
  return setting;
}

Setting Bool(const char* name, const char* group, bool Settings::*field, const char* help) {
  return Choice(name, group, SettingType::kBool, field, {"off", "on"}, help);
}

Setting Text(const char* name, const char* group, std::string Settings::*field, const char* help) {
  Setting setting;
  setting.name = name;
  setting.group = group;
  setting.type = SettingType::kText;
  setting.help = help;
  setting.text = field;
  return setting;
}

Setting Store(const char* help) {
  Setting setting = Text("store", "store", &Settings::store, help);
  setting.check = [](const std::string& text) {
    StoreSpec spec;
    std::string why;
    return ParseStoreSpec(text, &spec, &why) ? std::string() : why;
  };
  return setting;
}

// clang-format off
std::vector<Setting> MakeTable() {
  using S = Settings;
  const SettingType levels = SettingType::kLevels;
  return {
    Store(
         "Where the files live: a backend (auto, posix, uring, memory) and what stands before it"),
    Count("threads", "store", &S::threads, 1, 1024, "Threads of the POSIX backend"),
    Count("descriptors", "store", &S::descriptors, 1, 1048576, "Files kept open at most"),
    Bool("direct", "store", &S::direct,
         "Go past the system's page cache (O_DIRECT) where the alignment allows it"),

    Size("block-size", "cache", &S::block_size, 1, kLargestBlock, "Bytes of a cache block"),
    Count("read-ahead", "cache", &S::read_ahead, 0, 99,
          "Blocks fetched ahead of a sequential reader; 0: off"),
    Number("refresh-interval", "cache", SettingType::kDuration, "s", &S::refresh_interval, 0,
           std::numeric_limits<int>::max(),
           "Age at which cached bytes are fetched again and the file is checked for changes; 0: never, "
           "and no read-ahead"),
    Choice("when-unknown", "cache", SettingType::kChoice, &S::when_unknown, {"serve", "fail"},
           "What to do with cached bytes of that age when the store cannot tell whether its file has "
           "changed"),
    Size("memory", "cache", &S::memory, 1, kLargestSize,
         "Bytes that all cached blocks take together at most"),
    Size("dirty-soft", "cache", &S::dirty_soft, 0, kLargestSize,
         "Bytes not yet stored from which on they are written out and writers are slowed down"),
    Size("dirty-hard", "cache", &S::dirty_hard, 1, kLargestSize,
         "Bytes not yet stored at which writers wait"),
    Milliseconds("dirty-age", "cache", &S::dirty_age_ms, 1, 24 * kHourMs,
                 "Bytes not yet stored for longer are written out"),

    Milliseconds("request-timeout", "requests", &S::request_timeout_ms, 0, 24 * kHourMs,
                 "A request that takes longer fails; 0: none does"),
    Milliseconds("shutdown-timeout", "requests", &S::shutdown_timeout_ms, 0, kHourMs,
                 "How long the end of the program waits for data to reach storage; 0: not at all"),

    Milliseconds("retry-first-delay", "retry", &S::retry_first_delay_ms, 1, kHourMs,
                 "Pause before a write that failed, or a read that failed for a passing reason, is tried again"),
    Milliseconds("retry-longest-delay", "retry", &S::retry_longest_delay_ms, 1, 24 * kHourMs,
                 "The pause grows with each failure up to this"),
    Count("retry-read-attempts", "retry", &S::retry_read_attempts, 1, 1000,
          "Tries of a read that fails for a passing reason, the first one included"),
    Count("retry-parked-jobs", "retry", &S::retry_parked_jobs, 0, 1000000,
          "Failing writes kept to be tried again; one more ends with its error, and the file writes its "
          "bytes again later; 0: no limit"),
    Size("retry-parked-bytes", "retry", &S::retry_parked_bytes, 0, kLargestSize,
         "Bytes of failing writes kept at most, likewise; 0: no limit"),
    Milliseconds("retry-parked-age", "retry", &S::retry_parked_age_ms, 0, std::uint64_t{30} * 24 * kHourMs,
                 "A write that has failed for longer is given up, likewise; 0: never"),

    Count("reaper-threads", "reaper", &S::reaper_threads, 1, 64,
          "Threads that collect finished jobs of files that nobody is asking for"),

    Row("log-levels", "log", levels, &S::log_levels, "Levels that are logged"),
    Row("log-ring-levels", "log", levels, &S::log_ring_levels,
        "Levels whose latest lines are kept in memory, to be told when something goes wrong"),
    Count("log-ring-lines", "log", &S::log_ring_lines, 0, 1000000,
          "Lines kept in memory; 0: none"),
    Bool("log-stderr", "log", &S::log_stderr, "Log to standard error"),
    Text("log-file", "log", &S::log_file, "Log to this file; empty: to none"),
    Size("log-file-size", "log", &S::log_file_size, 4096, kLargestSize,
         "Size at which a new log file is begun"),
    Count("log-file-count", "log", &S::log_file_count, 1, 1000,
          "Log files kept, the current one included"),
    Choice("log-format", "log", SettingType::kChoice, &S::log_format, {"text", "json"},
           "Form of the lines"),
    Bool("log-syslog", "log", &S::log_syslog, "Log to the system's log"),
  };
}
// clang-format on

// ---- reading a text ----

std::string NotANumber(const Setting& setting, const std::string& text) {
  switch (setting.type) {
    case SettingType::kSize:
      return QuotedText(text) +
             " is not a size: a whole number of bytes, or of K, M, G or T as in 256K";
    case SettingType::kDuration:
      return QuotedText(text) + " is not a duration: a whole number of us, ms, s, m or h as in 30s";
    default: return QuotedText(text) + " is not a whole number: " + RangeText(setting);
  }
}

std::string TooLarge(const Setting& setting, const std::string& text) {
  return QuotedText(text) + " is too large: at most " + BoundText(setting, setting.most);
}

// "KiB" and "k" are "K".
std::string SizeSuffix(std::string suffix) {
  if (suffix.size() == 3 && suffix.compare(1, 2, "iB") == 0) suffix.resize(1);
  if (suffix.size() == 1)
    suffix[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(suffix[0])));
  return suffix;
}

// What one of the number is worth, in bytes, microseconds or 1; 0: there is no such suffix.
std::uint64_t Worth(const Setting& setting, const std::string& suffix) {
  if (setting.type == SettingType::kCount) return suffix.empty() ? 1 : 0;
  if (setting.type == SettingType::kDuration && suffix.empty()) return WorthOf(setting.unit);
  const bool size = setting.type == SettingType::kSize;
  const std::string wanted = size ? SizeSuffix(suffix) : suffix;
  const Suffix* const begin = size ? std::begin(kSizes) : std::begin(kDurations);
  const Suffix* const end = size ? std::end(kSizes) : std::end(kDurations);
  const Suffix* const found =
      std::find_if(begin, end, [&wanted](const Suffix& one) { return one.text == wanted; });
  return found == end ? 0 : found->worth;
}

std::string ParseNumber(const Setting& setting, const std::string& text, std::uint64_t* value) {
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  if (digits == 0) return NotANumber(setting, text);
  const std::uint64_t worth = Worth(setting, text.substr(digits));
  if (worth == 0) return NotANumber(setting, text);

  std::uint64_t number = 0;
  const auto end = std::from_chars(text.data(), text.data() + digits, number);
  if (end.ec != std::errc() || __builtin_mul_overflow(number, worth, &number))
    return TooLarge(setting, text);
  const std::uint64_t unit = WorthOf(setting.unit);
  if (number % unit != 0)
    return QuotedText(text) + " is finer than this can be set: a whole number of " + setting.unit;
  number /= unit;
  if (number > setting.most) return TooLarge(setting, text);
  if (number < setting.least)
    return QuotedText(text) + " is too small: at least " + BoundText(setting, setting.least);
  *value = number;
  return "";
}

std::string ParseChoice(const Setting& setting, const std::string& text, std::uint64_t* value) {
  const bool on_or_off = setting.type == SettingType::kBool;
  const std::string word = !on_or_off        ? text
                           : text == "true"  ? "on"
                           : text == "false" ? "off"
                                             : text;
  const auto found = std::find(setting.choices.begin(), setting.choices.end(), word);
  if (found == setting.choices.end())
    return QuotedText(text) + " is not possible: one of " + Joined(setting.choices);
  *value = static_cast<std::uint64_t>(found - setting.choices.begin());
  return "";
}

std::string ParseLevels(const std::string& text, std::uint64_t* value) {
  LogLevels levels = kLogNothing;
  std::string why;
  if (!ParseLogLevels(text, &levels, &why)) return why;
  *value = levels;
  return "";
}

bool IsControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

// What is wrong with a text whatever the setting: nothing should have to print or store it.
std::string NotAText(const std::string& text) {
  if (text.size() > kLongestText)
    return QuotedText(text) + " is too long: at most " + std::to_string(kLongestText) + " bytes";
  if (std::any_of(text.begin(), text.end(), IsControl))
    return QuotedText(text) + " has a control character in it";
  return "";
}

std::string Parse(const Setting& setting, const std::string& text, std::uint64_t* value) {
  if (setting.type == SettingType::kLevels) return ParseLevels(text, value);
  if (!setting.choices.empty()) return ParseChoice(setting, text, value);
  return ParseNumber(setting, text, value);
}

SettingConflict Conflict(const std::string& name, const std::string& is_what,
                         const std::string& other, const Settings& settings) {
  const auto told = [&settings](const std::string& one) {
    return one + " (" + ValueText(*FindSetting(one), settings) + ')';
  };
  return {name, other, told(name) + is_what + told(other)};
}

void CopySetting(const Setting& setting, const Settings& from, Settings* to) {
  if (setting.text != nullptr) {
    to->*setting.text = from.*setting.text;
  } else {
    setting.set_number(to, setting.number(from));
  }
}

// ---- the documentation page ----

std::string MarkdownHead(const std::string& group) {
  std::string title = group;
  title[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(title[0])));
  return "### " + title +
         "\n\n"
         "| Name | Environment | Type | Range | Default | Live | What it does |\n"
         "|---|---|---|---|---|---|---|\n";
}

std::string MarkdownRow(const Setting& setting) {
  const std::string unit = setting.unit.empty() ? "" : " (" + setting.unit + ")";
  const std::string standard = DefaultText(setting);
  return "| `" + setting.name + "` | `" + EnvironmentName(setting) + "` | " + TypeText(setting) +
         unit + " | " + RangeText(setting) + " | " +
         (standard.empty() ? "empty" : '`' + standard + '`') + " | " +
         (setting.live ? "yes" : "no") + " | " + setting.help + " |\n";
}

}  // namespace

const std::vector<Setting>& SettingTable() {
  static const std::vector<Setting>* const table = new std::vector<Setting>(MakeTable());
  return *table;  // never destroyed: threads that outlive main() may still report a setting
}

const Setting* FindSetting(const std::string& name) {
  for (const Setting& setting : SettingTable()) {
    if (setting.name == name) return &setting;
  }
  return nullptr;
}

std::string SetSetting(const Setting& setting, const std::string& text, Settings* settings) {
  std::string wrong = NotAText(text);
  if (!wrong.empty()) return wrong;
  if (setting.text != nullptr) {
    if (setting.check) wrong = setting.check(text);
    if (wrong.empty()) settings->*setting.text = text;
    return wrong;
  }
  std::uint64_t value = 0;
  wrong = Parse(setting, text, &value);
  if (wrong.empty()) setting.set_number(settings, value);
  return wrong;
}

std::string ValueText(const Setting& setting, const Settings& settings) {
  if (setting.text != nullptr) return settings.*setting.text;
  const std::uint64_t value = setting.number(settings);
  if (setting.type == SettingType::kLevels) return LogLevelsText(static_cast<LogLevels>(value));
  return setting.choices.empty() ? NumberText(setting, value) : setting.choices[value];
}

std::string DefaultText(const Setting& setting) { return ValueText(setting, Settings()); }

std::string TypeText(const Setting& setting) {
  switch (setting.type) {
    case SettingType::kSize: return "size";
    case SettingType::kCount: return "count";
    case SettingType::kDuration: return "duration";
    case SettingType::kChoice: return "choice";
    case SettingType::kText: return "text";
    case SettingType::kLevels: return "levels";
    case SettingType::kBool: return "switch";
  }
  return "";
}

std::string RangeText(const Setting& setting) {
  if (setting.type == SettingType::kText) return "any";
  if (setting.type == SettingType::kLevels)
    return "off, all, or any of debug,trace,info,dump,error";
  if (!setting.choices.empty()) return Joined(setting.choices);
  return NumberText(setting, setting.least) + " to " + NumberText(setting, setting.most);
}

std::string EnvironmentName(const Setting& setting) {
  std::string name = "VESK_";
  for (const char c : setting.name)
    name += c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return name;
}

std::optional<SettingConflict> FindConflict(const Settings& settings) {
  if (settings.dirty_soft > settings.dirty_hard)
    return Conflict("dirty-soft", " is larger than ", "dirty-hard", settings);
  if (Get(settings.retry_first_delay_ms) > Get(settings.retry_longest_delay_ms))
    return Conflict("retry-first-delay", " is longer than ", "retry-longest-delay", settings);
  return {};
}

void CopySettings(const Settings& from, Settings* to) {
  for (const Setting& setting : SettingTable()) CopySetting(setting, from, to);
}

SettingChanges ApplyLiveSettings(const Settings& wanted, Settings* running) {
  SettingChanges changes;
  std::vector<const Setting*> live;
  for (const Setting& setting : SettingTable()) {
    SettingChange change = {setting.name, ValueText(setting, *running), ValueText(setting, wanted)};
    if (change.from == change.to) continue;
    if (setting.live) live.push_back(&setting);
    (setting.live ? changes.applied : changes.at_next_start).push_back(std::move(change));
  }
  for (const Setting* setting : live) CopySetting(*setting, wanted, running);
  return changes;
}

std::string PrintableText(const std::string& text, std::size_t longest) {
  std::string printable;
  for (const char c : text.substr(0, longest)) {
    if (!IsControl(c)) {
      printable += c;
      continue;
    }
    char escaped[5];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
    printable += escaped;
  }
  return text.size() > longest ? printable + "..." : printable;
}

std::string QuotedText(const std::string& text) { return '\'' + PrintableText(text, 100) + '\''; }

std::string SettingsMarkdown() {
  std::string page;
  std::string group;
  for (const Setting& setting : SettingTable()) {
    if (setting.group != group) {
      page += (page.empty() ? "" : "\n") + MarkdownHead(setting.group);
      group = setting.group;
    }
    page += MarkdownRow(setting);
  }
  return page;
}

}  // namespace vesk
