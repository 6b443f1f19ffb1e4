// Every setting of a server: its value, and the one table that all ways of setting it are made
// from.

#ifndef RUNTIME_SETTINGS_H_
#define RUNTIME_SETTINGS_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "runtime/logger.h"
#include "vesk/VeskEnv.h"

namespace vesk {

enum class LogFormat { kText, kJson };

enum class UnknownPolicy { kServe, kFail };

// The values; what each one means, and its range, stands in SettingTable(). The defaults stand here
// and nowhere else.
//   Units    bytes, or what a name ends with
//   Threads  the atomic fields can change at any time: read them relaxed, afresh at each use. Each
//            changes on its own, so a reader of two may see one old and one new. The others are
//            written before the first reader starts and never again.
struct Settings : VeskSettings {
  Settings() { refresh_interval.store(30, std::memory_order_relaxed); }

  // store
  std::string store = "auto";
  unsigned threads = 4;
  unsigned descriptors = 64;
  bool direct = false;

  // cache; refresh_interval is inherited
  unsigned block_size = 256 * 1024;
  unsigned read_ahead = 8;
  std::uint64_t memory = std::uint64_t{256} << 20;
  std::uint64_t dirty_soft = std::uint64_t{64} << 20;
  std::uint64_t dirty_hard = std::uint64_t{128} << 20;
  std::int64_t dirty_age_ms = std::int64_t{5} * 1000;
  UnknownPolicy when_unknown = UnknownPolicy::kServe;

  // requests
  std::atomic<std::int64_t> request_timeout_ms{0};
  std::atomic<std::int64_t> shutdown_timeout_ms{std::int64_t{10} * 1000};

  // retry
  std::atomic<std::int64_t> retry_first_delay_ms{100};
  std::atomic<std::int64_t> retry_longest_delay_ms{std::int64_t{30} * 1000};
  std::atomic<unsigned> retry_read_attempts{5};
  std::atomic<unsigned> retry_parked_jobs{0};
  std::atomic<std::uint64_t> retry_parked_bytes{0};
  std::atomic<std::int64_t> retry_parked_age_ms{0};

  // reaper
  unsigned reaper_threads = 1;

  // log
  std::atomic<LogLevels> log_levels{kLogNothing};
  std::atomic<LogLevels> log_ring_levels{kLogInfo | kLogDump | kLogError};
  unsigned log_ring_lines = 1000;
  bool log_stderr = true;
  std::string log_file;
  std::uint64_t log_file_size = std::uint64_t{16} << 20;
  unsigned log_file_count = 4;
  LogFormat log_format = LogFormat::kText;
  bool log_syslog = false;
};

enum class SettingType { kSize, kCount, kDuration, kChoice, kText, kLevels, kBool };

// One row of the table.
struct Setting {
  std::string name;   // in lower case, words joined by '-'
  std::string group;  // "store", "cache", ...: what belongs together in help and file
  SettingType type;
  std::string unit;                  // of a bare number: "bytes", "ms", "s"; empty: it has none
  std::uint64_t least = 0;           // in `unit`, of a size, count or duration
  std::uint64_t most = 0;            // likewise
  std::vector<std::string> choices;  // of a choice or bool, by value
  bool live = false;                 // a change takes effect while requests run
  std::string help;

  // The value as a number: in `unit`, the index of a choice, the bits of levels. Not for a text.
  std::function<std::uint64_t(const Settings&)> number;
  std::function<void(Settings*, std::uint64_t)> set_number;
  std::string Settings::*text = nullptr;  // of a text

  // Of a text that has to be understood: nothing, or what is wrong and what would be right.
  std::function<std::string(const std::string& text)> check;
};

// All settings, those of a group next to each other. Never changes; any thread.
const std::vector<Setting>& SettingTable();

// Null: there is no setting of that name.
const Setting* FindSetting(const std::string& name);

// Reads `text` as a value of `setting`. It has no blanks around it.
//   size      a whole number of bytes, or with K, M, G or T (also KiB ...; powers of 1024)
//   duration  a whole number with us, ms, s, m or h; a bare number is in the setting's unit
//   bool      on, off, true, false
//   After    `*settings` has the value, or is unchanged when an error is returned
//   Ends in  return only: nothing, or what is wrong and what would be right, on one line, without
//            the setting's name
[[nodiscard]] std::string SetSetting(const Setting& setting, const std::string& text,
                                     Settings* settings);

// The value as the shortest text that SetSetting takes for it, with a unit where there is one.
std::string ValueText(const Setting& setting, const Settings& settings);
std::string DefaultText(const Setting& setting);

// For help and documentation: "size", "1 to 1000000", "VESK_BLOCK_SIZE".
std::string TypeText(const Setting& setting);
std::string RangeText(const Setting& setting);
std::string EnvironmentName(const Setting& setting);

// Two settings that are right each for itself and not together.
struct SettingConflict {
  std::string name;
  std::string other;
  std::string reason;  // names both and their values
};

// Nothing: all values go together.
std::optional<SettingConflict> FindConflict(const Settings& settings);

// Takes over every value of `from`.
//   Threads  before anybody reads `*to`
void CopySettings(const Settings& from, Settings* to);

struct SettingChange {
  std::string name;
  std::string from;
  std::string to;
};

struct SettingChanges {
  std::vector<SettingChange> applied;
  std::vector<SettingChange> at_next_start;  // not live: the running value stays
};

// Changes the live settings of a running server to what `wanted` has, and tells what is different.
//   Before   FindConflict(wanted) finds nothing
//   Ends in  return, or std::bad_alloc with nothing changed
//   Threads  one at a time; readers of `*running` go on undisturbed
SettingChanges ApplyLiveSettings(const Settings& wanted, Settings* running);

// `text` as part of one line: control characters become \xNN, "..." stands for what is beyond
// `longest` bytes.
std::string PrintableText(const std::string& text, std::size_t longest);

// The same in single quotes, of at most 100 bytes.
std::string QuotedText(const std::string& text);

// The tables of the documentation page, one for each group.
std::string SettingsMarkdown();

}  // namespace vesk

#endif  // RUNTIME_SETTINGS_H_
