// The table of settings: what texts mean, what is refused and how, how values change.

#include "runtime/settings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "runtime/nearest_name.h"

namespace vesk_test {
namespace {

using vesk::DefaultText;
using vesk::FindSetting;
using vesk::SetSetting;
using vesk::Setting;
using vesk::Settings;
using vesk::SettingTable;
using vesk::SettingType;
using vesk::ValueText;

// What is wrong with `text`; nothing: it was taken.
std::string Set(const std::string& name, const std::string& text, Settings* settings) {
  const Setting* const setting = FindSetting(name);
  if (setting == nullptr) return "no such setting";
  return SetSetting(*setting, text, settings);
}

// `text` once it has been taken and told again, or what is wrong with it.
std::string Told(const std::string& name, const std::string& text) {
  Settings settings;
  const std::string wrong = Set(name, text, &settings);
  return wrong.empty() ? ValueText(*FindSetting(name), settings) : wrong;
}

bool Begins(const std::string& text, const std::string& beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

// ---- the table ----

TEST(SettingTableTest, HoldsEverySettingWithItsRangeAndDefault) {
  struct Row {
    const char *name, *group, *range, *standard;
    bool live;
  };
  const char* const levels = "off, all, or any of debug,trace,info,dump,error";
  // clang-format off
  const std::vector<Row> rows = {
    {"store",               "store",    "any",              "auto",            false},
    {"threads",             "store",    "1 to 1024",        "4",               false},
    {"descriptors",         "store",    "1 to 1048576",     "64",              false},
    {"direct",              "store",    "off, on",          "off",             false},
    {"block-size",          "cache",    "1 to 104857599",   "256K",            false},
    {"read-ahead",          "cache",    "0 to 99",          "8",               false},
    {"refresh-interval",    "cache",    "0 to 2147483647s", "30s",             true},
    {"when-unknown",        "cache",    "serve, fail",      "serve",           false},
    {"memory",              "cache",    "1 to 1T",          "256M",            false},
    {"dirty-soft",          "cache",    "0 to 1T",          "64M",             false},
    {"dirty-hard",          "cache",    "1 to 1T",          "128M",            false},
    {"dirty-age",           "cache",    "1ms to 24h",       "5s",              false},
    {"request-timeout",     "requests", "0 to 24h",         "0",               true},
    {"shutdown-timeout",    "requests", "0 to 1h",          "10s",             true},
    {"retry-first-delay",   "retry",    "1ms to 1h",        "100ms",           true},
    {"retry-longest-delay", "retry",    "1ms to 24h",       "30s",             true},
    {"retry-read-attempts", "retry",    "1 to 1000",        "5",               true},
    {"retry-parked-jobs",   "retry",    "0 to 1000000",     "0",               true},
    {"retry-parked-bytes",  "retry",    "0 to 1T",          "0",               true},
    {"retry-parked-age",    "retry",    "0 to 720h",        "0",               true},
    {"reaper-threads",      "reaper",   "1 to 64",          "1",               false},
    {"log-levels",          "log",      levels,             "off",             true},
    {"log-ring-levels",     "log",      levels,             "info,dump,error", true},
    {"log-ring-lines",      "log",      "0 to 1000000",     "1000",            false},
    {"log-stderr",          "log",      "off, on",          "on",              false},
    {"log-file",            "log",      "any",              "",                false},
    {"log-file-size",       "log",      "4K to 1T",         "16M",             false},
    {"log-file-count",      "log",      "1 to 1000",        "4",               false},
    {"log-format",          "log",      "text, json",       "text",            false},
    {"log-syslog",          "log",      "off, on",          "off",             false},
  };
  // clang-format on
  ASSERT_EQ(SettingTable().size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].name);
    const Setting& setting = SettingTable()[i];
    EXPECT_EQ(setting.name, rows[i].name);
    EXPECT_EQ(setting.group, rows[i].group);
    EXPECT_EQ(vesk::RangeText(setting), rows[i].range);
    EXPECT_EQ(setting.live, rows[i].live);
    EXPECT_EQ(DefaultText(setting), rows[i].standard);
    EXPECT_FALSE(setting.help.empty());
  }
  EXPECT_EQ(Settings().log_levels, vesk::kLogNothing);
  EXPECT_EQ(Settings().log_ring_levels, vesk::kLogInfo | vesk::kLogDump | vesk::kLogError);
}

TEST(SettingTableTest, HasNamesThatCommandLineFileAndEnvironmentCanTell) {
  std::set<std::string> names;
  for (const Setting& setting : SettingTable()) {
    SCOPED_TRACE(setting.name);
    EXPECT_TRUE(names.insert(setting.name).second) << "twice";
    EXPECT_EQ(setting.name.find_first_not_of("abcdefghijklmnopqrstuvwxyz-"), std::string::npos);
    EXPECT_EQ(FindSetting(setting.name), &setting);
  }
  EXPECT_EQ(vesk::EnvironmentName(*FindSetting("block-size")), "VESK_BLOCK_SIZE");
  EXPECT_EQ(FindSetting("block_size"), nullptr);
  EXPECT_EQ(FindSetting(""), nullptr);
}

TEST(SettingTableTest, ReadsEveryDefaultAsItself) {
  for (const Setting& setting : SettingTable())
    EXPECT_EQ(Told(setting.name, DefaultText(setting)), DefaultText(setting)) << setting.name;
}

// The bounds are read back from their own texts, which come from the fields themselves: a field too
// narrow for its range shows here.
TEST(SettingTableTest, TakesBothBoundsOfEachRangeAndNothingBeyond) {
  int ranges = 0;
  for (const Setting& setting : SettingTable()) {
    if (setting.least == setting.most) continue;
    ++ranges;
    SCOPED_TRACE(setting.name);
    const std::string unit = setting.type == SettingType::kDuration ? setting.unit : "";
    Settings settings;
    for (const std::uint64_t bound : {setting.least, setting.most}) {
      EXPECT_EQ(SetSetting(setting, std::to_string(bound) + unit, &settings), "");
      EXPECT_EQ(setting.number(settings), bound);
      EXPECT_EQ(Told(setting.name, ValueText(setting, settings)), ValueText(setting, settings));
    }
    EXPECT_NE(SetSetting(setting, std::to_string(setting.most + 1) + unit, &settings), "");
    if (setting.least > 0) {
      EXPECT_NE(SetSetting(setting, std::to_string(setting.least - 1) + unit, &settings), "");
    }
    EXPECT_EQ(setting.number(settings), setting.most) << "a refused value was stored";
  }
  EXPECT_EQ(ranges, 21);
}

TEST(SettingTableTest, StoresEachValueInAFieldOfItsOwn) {
  for (const Setting& changed : SettingTable()) {
    SCOPED_TRACE(changed.name);
    Settings settings;
    std::string text = changed.check ? "posix,retry" : "other";
    if (changed.least != changed.most) text = std::to_string(changed.least + 1);
    if (!changed.choices.empty())
      text = changed.choices[changed.choices[0] == DefaultText(changed) ? 1 : 0];
    if (changed.type == SettingType::kLevels) text = "trace";
    ASSERT_EQ(SetSetting(changed, text, &settings), "");
    for (const Setting& setting : SettingTable()) {
      const bool same = ValueText(setting, settings) == DefaultText(setting);
      EXPECT_EQ(same, setting.name != changed.name) << setting.name;
    }
  }
}

// ---- texts ----

TEST(SettingTextTest, ReadsSizes) {
  // clang-format off
  const std::vector<std::vector<std::string>> rows = {
    {"4096", "4K"}, {"4097", "4097"}, {"4K", "4K"}, {"4k", "4K"}, {"4KiB", "4K"}, {"4kiB", "4K"},
    {"1024K", "1M"}, {"1M", "1M"}, {"1MiB", "1M"}, {"3G", "3G"}, {"3GiB", "3G"}, {"1T", "1T"},
    {"1TiB", "1T"}, {"1024G", "1T"}, {"0004096", "4K"},
  };
  // clang-format on
  for (const auto& row : rows) EXPECT_EQ(Told("log-file-size", row[0]), row[1]) << row[0];
  EXPECT_EQ(Told("retry-parked-bytes", "0"), "0");
  EXPECT_EQ(Told("retry-parked-bytes", "0K"), "0");
}

TEST(SettingTextTest, ReadsDurations) {
  // clang-format off
  const std::vector<std::vector<std::string>> rows = {
    {"250ms", "250ms"}, {"2s", "2s"}, {"1m", "1m"}, {"1h", "1h"}, {"60s", "1m"}, {"90s", "90s"},
    {"1000us", "1ms"}, {"3000000us", "3s"}, {"7", "7ms"}, {"1000", "1s"}, {"60m", "1h"},
  };
  // clang-format on
  for (const auto& row : rows) EXPECT_EQ(Told("retry-first-delay", row[0]), row[1]) << row[0];
  EXPECT_EQ(Told("request-timeout", "0"), "0");
  EXPECT_EQ(Told("request-timeout", "0h"), "0");
  EXPECT_EQ(Told("refresh-interval", "7"), "7s") << "a bare number has the setting's own unit";
  EXPECT_EQ(Told("refresh-interval", "2000ms"), "2s");
}

TEST(SettingTextTest, StoresValuesInTheUnitOfTheField) {
  Settings settings;
  for (const auto& [name, text] :
       std::vector<std::pair<const char*, const char*>>{{"refresh-interval", "2m"},
                                                        {"request-timeout", "3s"},
                                                        {"retry-parked-bytes", "2M"},
                                                        {"block-size", "1M"},
                                                        {"memory", "5G"},
                                                        {"dirty-soft", "3G"},
                                                        {"dirty-hard", "4G"},
                                                        {"dirty-age", "2m"},
                                                        {"when-unknown", "fail"},
                                                        {"direct", "on"},
                                                        {"log-format", "json"},
                                                        {"log-levels", "debug,error"},
                                                        {"log-file", "/var/log/vesk é.log"}})
    EXPECT_EQ(Set(name, text, &settings), "") << name;
  EXPECT_EQ(settings.refresh_interval, 120);
  EXPECT_EQ(settings.request_timeout_ms, 3000);
  EXPECT_EQ(settings.retry_parked_bytes, 2u << 20);
  EXPECT_EQ(settings.block_size, 1u << 20);
  EXPECT_EQ(settings.memory, std::uint64_t{5} << 30);
  EXPECT_EQ(settings.dirty_soft, std::uint64_t{3} << 30);
  EXPECT_EQ(settings.dirty_hard, std::uint64_t{4} << 30);
  EXPECT_EQ(settings.dirty_age_ms, 120 * 1000);
  EXPECT_EQ(settings.when_unknown, vesk::UnknownPolicy::kFail);
  EXPECT_TRUE(settings.direct);
  EXPECT_EQ(settings.log_format, vesk::LogFormat::kJson);
  EXPECT_EQ(settings.log_levels, vesk::kLogDebug | vesk::kLogError);
  EXPECT_EQ(settings.log_file, "/var/log/vesk é.log");
}

TEST(SettingTextTest, ReadsSwitches) {
  for (const char* const yes : {"on", "true"}) EXPECT_EQ(Told("direct", yes), "on");
  for (const char* const no : {"off", "false"}) EXPECT_EQ(Told("log-stderr", no), "off");
  for (const char* const wrong : {"", "ON", "yes", "1", "0", "on ", "tru"})
    EXPECT_TRUE(Begins(Told("direct", wrong), vesk::QuotedText(wrong) + " is not possible"))
        << wrong;
}

TEST(SettingTextTest, RefusesWhatIsNotANumberOfTheSetting) {
  const std::vector<std::string> hostile = {
      "",   " ",    "1 ",  " 1",   "-1",  "+1",           "1e9", "1.5", "0x10",         "1_000",
      "1,", "K",    "s",   "ms",   "iB",  "1 K",          "1KB", "1kb", "1Ki",          "1iB",
      "1P", "1d",   "1S",  "1Ms",  "1KK", "NaN",          "inf", "--",  "\xef\xbc\x91", "1\xc2\xa0",
      "1µ", "1m s", "1ss", "true", "off", "1\xef\xbb\xbf"};
  for (const char* const name : {"read-ahead", "log-file-size", "retry-first-delay"}) {
    for (const std::string& text : hostile)
      EXPECT_TRUE(Begins(Told(name, text), vesk::QuotedText(text) + " is not a "))
          << name << ": " << Told(name, text);
  }
  EXPECT_TRUE(Begins(Told("read-ahead", "1K"), "'1K' is not a whole number"));
  EXPECT_TRUE(Begins(Told("log-file-size", "1s"), "'1s' is not a size"));
  EXPECT_TRUE(Begins(Told("retry-first-delay", "1K"), "'1K' is not a duration"));
}

TEST(SettingTextTest, RefusesNumbersThatNoIntegerHolds) {
  for (const std::string& number : {std::string("4294967297"), std::string("18446744073709551616"),
                                    std::string("18446744073709551617"),
                                    std::string("99999999999999999999"), std::string(4000, '9')}) {
    EXPECT_TRUE(Begins(Told("threads", number), vesk::QuotedText(number) + " is too large: "));
    EXPECT_TRUE(Begins(Told("block-size", number), vesk::QuotedText(number) + " is too large: "));
  }
  // Each wraps around to something small where the product is not checked.
  EXPECT_EQ(Told("block-size", "16777216T"), "'16777216T' is too large: at most 104857599 bytes");
  EXPECT_EQ(Told("block-size", "18014398509481985K"),
            "'18014398509481985K' is too large: at most 104857599 bytes");
  EXPECT_EQ(Told("refresh-interval", "18446744073709552s"),
            "'18446744073709552s' is too large: at most 2147483647s");
  EXPECT_EQ(Told("retry-first-delay", "5124095576030432h"),
            "'5124095576030432h' is too large: at most 1h");
}

TEST(SettingTextTest, SaysWhatWouldBeRight) {
  EXPECT_EQ(Told("block-size", "0"), "'0' is too small: at least 1 byte");
  EXPECT_EQ(Told("block-size", "100M"), "'100M' is too large: at most 104857599 bytes");
  EXPECT_EQ(Told("log-file-size", "4095"), "'4095' is too small: at least 4K");
  EXPECT_EQ(Told("read-ahead", "100"), "'100' is too large: at most 99");
  EXPECT_EQ(Told("read-ahead", "-1"), "'-1' is not a whole number: 0 to 99");
  EXPECT_EQ(Told("block-size", "1e9"),
            "'1e9' is not a size: a whole number of bytes, or of K, M, G or T as in 256K");
  EXPECT_EQ(Told("request-timeout", "soon"),
            "'soon' is not a duration: a whole number of us, ms, s, m or h as in 30s");
  EXPECT_EQ(Told("retry-first-delay", "500us"),
            "'500us' is finer than this can be set: a whole number of ms");
  EXPECT_EQ(Told("refresh-interval", "1500ms"),
            "'1500ms' is finer than this can be set: a whole number of s");
  EXPECT_EQ(Told("log-format", "xml"), "'xml' is not possible: one of text, json");
  EXPECT_NE(Told("log-levels", "loud").find("loud"), std::string::npos);
}

TEST(SettingTextTest, RefusesTextsThatWouldSpoilALine) {
  EXPECT_EQ(Told("log-file", "a\nb"), "'a\\x0ab' has a control character in it");
  EXPECT_EQ(Told("store", std::string("a\0b", 3)), "'a\\x00b' has a control character in it");
  EXPECT_EQ(Told("log-levels", "info\x1b[31m"), "'info\\x1b[31m' has a control character in it");
  EXPECT_EQ(Told("threads", "3\n"), "'3\\x0a' has a control character in it");
  EXPECT_EQ(Told("log-file", std::string(4096, 'x')), std::string(4096, 'x'));
  EXPECT_EQ(Told("log-file", std::string(4097, 'x')),
            '\'' + std::string(100, 'x') + "...' is too long: at most 4096 bytes");
}

TEST(PrintableTextTest, WritesControlCharactersAsNumbersAndCutsWhatIsLonger) {
  EXPECT_EQ(vesk::PrintableText("a~ \x7f\n\x1f", 10), "a~ \\x7f\\x0a\\x1f");
  EXPECT_EQ(vesk::PrintableText("abc", 3), "abc");
  EXPECT_EQ(vesk::PrintableText("abcd", 3), "abc...");
}

TEST(NearestNameTest, IsAtMostTwoLettersAway) {
  const std::vector<std::string> known = {"abcdef", "abcxyz"};
  EXPECT_EQ(vesk::NearestName("abcdef", known), "abcdef");
  EXPECT_EQ(vesk::NearestName("abcdefgh", known), "abcdef");
  EXPECT_EQ(vesk::NearestName("abcdefghi", known), "");
  EXPECT_EQ(vesk::NearestName("abcxy", known), "abcxyz");
  EXPECT_EQ(vesk::NearestName("bcxyzz", known), "abcxyz");
}

TEST(SettingTextTest, RefusesAStoreThatCannotBeUnderstood) {
  EXPECT_EQ(Told("store", "posix,latency=2ms,retry"), "posix,latency=2ms,retry");
  EXPECT_EQ(Told("store", "posix,retyr"),
            "unknown decorator 'retyr'; did you mean 'retry'? known: fault, latency, retry");
}

TEST(SettingTextTest, LeavesTheValueAloneWhenItRefuses) {
  for (const Setting& setting : SettingTable()) {
    Settings settings;
    EXPECT_NE(SetSetting(setting, "\x01", &settings), "") << setting.name;
    EXPECT_EQ(ValueText(setting, settings), DefaultText(setting)) << setting.name;
  }
}

// ---- several settings ----

TEST(SettingConflictTest, ComesOfAFirstDelayAboveTheLongestOne) {
  Settings settings;
  EXPECT_FALSE(vesk::FindConflict(settings));
  settings.retry_longest_delay_ms = 100;
  EXPECT_FALSE(vesk::FindConflict(settings)) << "equal is fine";
  settings.retry_longest_delay_ms = 99;
  const auto conflict = vesk::FindConflict(settings);
  ASSERT_TRUE(conflict);
  EXPECT_EQ(conflict->name, "retry-first-delay");
  EXPECT_EQ(conflict->other, "retry-longest-delay");
  EXPECT_EQ(conflict->reason,
            "retry-first-delay (100ms) is longer than retry-longest-delay (99ms)");
}

TEST(SettingConflictTest, ComesOfASoftLimitAboveTheHardOne) {
  Settings settings;
  settings.dirty_soft = settings.dirty_hard;
  EXPECT_FALSE(vesk::FindConflict(settings)) << "equal is fine";
  ++settings.dirty_soft;
  const auto conflict = vesk::FindConflict(settings);
  ASSERT_TRUE(conflict);
  EXPECT_EQ(conflict->name, "dirty-soft");
  EXPECT_EQ(conflict->other, "dirty-hard");
  EXPECT_EQ(conflict->reason, "dirty-soft (134217729) is larger than dirty-hard (128M)");
}

TEST(SettingsTest, CopiesEveryValue) {
  Settings from;
  for (const Setting& setting : SettingTable()) {
    if (setting.text != nullptr)
      from.*setting.text = "other";
    else
      setting.set_number(&from, setting.number(from) ^ 1u);
  }
  Settings to;
  vesk::CopySettings(from, &to);
  for (const Setting& setting : SettingTable()) {
    EXPECT_EQ(ValueText(setting, to), ValueText(setting, from)) << setting.name;
    EXPECT_NE(ValueText(setting, to), DefaultText(setting)) << setting.name;
  }
}

TEST(SettingsTest, ChangesOnlyLiveValuesWhileRunningAndTellsTheOthers) {
  Settings running;
  Settings wanted;
  ASSERT_EQ(Set("retry-first-delay", "1s", &wanted), "");
  ASSERT_EQ(Set("refresh-interval", "0", &wanted), "");
  ASSERT_EQ(Set("block-size", "1M", &wanted), "");
  ASSERT_EQ(Set("store", "memory", &wanted), "");

  const vesk::SettingChanges changes = vesk::ApplyLiveSettings(wanted, &running);
  ASSERT_EQ(changes.applied.size(), 2u);
  EXPECT_EQ(changes.applied[0].name, "refresh-interval");
  EXPECT_EQ(changes.applied[0].from, "30s");
  EXPECT_EQ(changes.applied[0].to, "0");
  EXPECT_EQ(changes.applied[1].name, "retry-first-delay");
  ASSERT_EQ(changes.at_next_start.size(), 2u);
  EXPECT_EQ(changes.at_next_start[0].name, "store");
  EXPECT_EQ(changes.at_next_start[1].name, "block-size");
  EXPECT_EQ(changes.at_next_start[1].from, "256K");
  EXPECT_EQ(changes.at_next_start[1].to, "1M");
  EXPECT_EQ(running.retry_first_delay_ms, 1000);
  EXPECT_EQ(running.refresh_interval, 0);
  EXPECT_EQ(running.block_size, 256u * 1024);
  EXPECT_EQ(running.store, "auto");

  const vesk::SettingChanges again = vesk::ApplyLiveSettings(wanted, &running);
  EXPECT_TRUE(again.applied.empty());
  EXPECT_EQ(again.at_next_start.size(), 2u) << "still not what was asked for";
}

TEST(SettingsTest, ChangesLiveValuesWhileAThreadReadsThem) {
  Settings running;
  Settings other;
  ASSERT_EQ(Set("refresh-interval", "5s", &other), "");
  ASSERT_EQ(Set("retry-parked-bytes", "1T", &other), "");
  ASSERT_EQ(Set("log-levels", "all", &other), "");
  std::atomic<bool> stop{false};
  std::atomic<int> rounds{0};
  std::atomic<int> wrong{0};
  std::thread reader([&] {
    while (!stop) {
      const int interval = running.refresh_interval.load(std::memory_order_relaxed);
      const std::uint64_t bytes = running.retry_parked_bytes.load(std::memory_order_relaxed);
      const vesk::LogLevels levels = running.log_levels.load(std::memory_order_relaxed);
      if (interval != 30 && interval != 5) ++wrong;
      if (bytes != 0 && bytes != std::uint64_t{1} << 40) ++wrong;
      if (levels != vesk::kLogNothing && levels != vesk::kLogEverything) ++wrong;
      if (running.block_size != 256u * 1024) ++wrong;  // a plain field: never written meanwhile
      ++rounds;
    }
  });
  const Settings standard;
  for (int i = 0; i < 500 || rounds < 100; ++i)
    vesk::ApplyLiveSettings(i % 2 == 0 ? other : standard, &running);
  stop = true;
  reader.join();
  EXPECT_EQ(wrong, 0);
}

// ---- the documentation page ----

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

TEST(SettingsMarkdownTest, HasOneRowForEachSettingInTheTableOfItsGroup) {
  std::vector<std::string> rows;
  std::string group;
  std::set<std::string> groups;
  for (const std::string& line : Lines(vesk::SettingsMarkdown())) {
    if (Begins(line, "### ")) {
      group = line.substr(4);
      EXPECT_TRUE(groups.insert(group).second) << group << " is split";
    }
    if (!line.empty() && line.front() == '|') {
      EXPECT_EQ(std::count(line.begin(), line.end(), '|'), 8) << line;
    }
    if (!Begins(line, "| `")) continue;
    ASSERT_LT(rows.size(), SettingTable().size());
    const Setting& setting = SettingTable()[rows.size()];
    EXPECT_TRUE(Begins(line, "| `" + setting.name + "` | `" + vesk::EnvironmentName(setting)))
        << line;
    EXPECT_EQ(group.substr(1), setting.group.substr(1));
    EXPECT_NE(line.find(setting.help), std::string::npos);
    rows.push_back(line);
  }
  EXPECT_EQ(rows.size(), SettingTable().size());
  EXPECT_EQ(rows[6],
            "| `refresh-interval` | `VESK_REFRESH_INTERVAL` | duration (s) | 0 to 2147483647s | "
            "`30s` | yes | Age at which cached bytes are fetched again and the file is checked for "
            "changes; 0: never, and no read-ahead |");
}

}  // namespace
}  // namespace vesk_test
