// Where settings come from: command line, environment, configuration file; what is refused and how.

#include "programs/settings_source.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temporary_directory.h"

namespace vesk_test {
namespace {

using vesk::FindSetting;
using vesk::Setting;
using vesk::Settings;
using vesk::SettingsReload;
using vesk::SettingTable;
using vesk::ValueText;

class SettingsSourceTest : public testing::Test {
 protected:
  SettingsSourceTest() { ClearEnvironment(); }
  ~SettingsSourceTest() override { ClearEnvironment(); }

  // A program's start. The error, or nothing.
  std::string Start(const std::vector<std::string>& arguments) {
    CLI::App app("A program with settings.", "program");
    app.require_subcommand(0, 1);
    CLI::App* const command = app.add_subcommand("cat", "Write a file")->fallthrough();
    std::string file;
    command->add_option("FILE", file, "The file");
    source_ = vesk::SettingsSource();
    vesk::AddSettings(&app, &source_);
    app.footer(vesk::SettingsFooter());
    help_ = app.help();
    try {
      std::vector<const char*> words = {"program"};
      for (const std::string& argument : arguments) words.push_back(argument.c_str());
      app.parse(vesk::CommandLineWords(app, static_cast<int>(words.size()), words.data()));
    } catch (const CLI::CallForHelp&) {
      return "help";
    } catch (const CLI::ParseError& error) {
      return vesk::ParseErrorText(app, error);
    }
    return source_.Load(&settings_);
  }

  // The same with nothing but a file of this text. Messages say "F" for its name.
  std::string StartWith(const std::string& text) {
    WriteFile(text);
    return WithoutDirectory(Start({"--config", file()}));
  }

  std::vector<std::string> ReloadWith(const std::string& text) {
    WriteFile(text);
    std::vector<std::string> lines = source_.Reload(&settings_).Lines();
    for (std::string& line : lines) line = WithoutDirectory(line);
    return lines;
  }

  void WriteFile(const std::string& text) const {
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << text;
  }

  std::string WithoutDirectory(std::string text) const {
    const std::size_t at = text.find(file());
    return at == std::string::npos ? text : text.replace(at, file().size(), "F");
  }

  std::string file() const { return directory_ / "vesk.toml"; }
  std::string Value(const std::string& name) const {
    return ValueText(*FindSetting(name), settings_);
  }

  void ExpectAllDefaults() const {
    for (const Setting& setting : SettingTable())
      EXPECT_EQ(ValueText(setting, settings_), vesk::DefaultText(setting)) << setting.name;
  }

  static void ClearEnvironment() {
    for (const Setting& setting : SettingTable()) unsetenv(vesk::EnvironmentName(setting).c_str());
  }

  TemporaryDirectory directory_;
  vesk::SettingsSource source_;
  Settings settings_;
  std::string help_;
};

// A text that is not the default.
std::string OtherText(const Setting& setting) {
  if (setting.type == vesk::SettingType::kDuration) return "29s";  // of no delay too long or short
  if (setting.least != setting.most)  // near the default: in conflict with no other default
    return std::to_string(setting.number(Settings()) + 1);
  if (!setting.choices.empty())
    return setting.choices[setting.choices[0] == vesk::DefaultText(setting) ? 1 : 0];
  if (setting.check) return "posix,fault=read:EIO:name=some thing # else,retry";
  return setting.text != nullptr ? "some thing, # else" : "trace,error";
}

// ---- the three places ----

TEST_F(SettingsSourceTest, LeavesDefaultsWhereNothingIsSaid) {
  EXPECT_EQ(Start({}), "");
  ExpectAllDefaults();
  EXPECT_EQ(StartWith(""), "");
  ExpectAllDefaults();
}

TEST_F(SettingsSourceTest, TakesEverySettingFromEachPlace) {
  for (const Setting& setting : SettingTable()) {
    SCOPED_TRACE(setting.name);
    const std::string text = OtherText(setting);
    Settings wanted;
    ASSERT_EQ(vesk::SetSetting(setting, text, &wanted), "");
    const std::string told = ValueText(setting, wanted);
    const std::string line = setting.name + " = \"" + text + "\"\n";

    EXPECT_EQ(Start({"--" + setting.name, text}), "");
    EXPECT_EQ(Value(setting.name), told);
    EXPECT_EQ(Start({"--" + setting.name + '=' + text}), "");
    EXPECT_EQ(Value(setting.name), told);

    setenv(vesk::EnvironmentName(setting).c_str(), text.c_str(), 1);
    EXPECT_EQ(Start({}), "");
    EXPECT_EQ(Value(setting.name), told);
    ClearEnvironment();

    EXPECT_EQ(StartWith(line), "");
    EXPECT_EQ(Value(setting.name), told);
    EXPECT_EQ(StartWith('[' + setting.group + "]\n" + line), "");
    EXPECT_EQ(Value(setting.name), told);
    EXPECT_EQ(StartWith(setting.group + '.' + line), "");
    EXPECT_EQ(Value(setting.name), told);
  }
}

TEST_F(SettingsSourceTest, PutsCommandLineBeforeEnvironmentBeforeFileBeforeDefault) {
  EXPECT_EQ(StartWith("read-ahead = 3\n"), "");
  EXPECT_EQ(Value("read-ahead"), "3");
  setenv("VESK_READ_AHEAD", "2", 1);
  EXPECT_EQ(StartWith("read-ahead = 3\n"), "");
  EXPECT_EQ(Value("read-ahead"), "2");
  EXPECT_EQ(Start({"--read-ahead", "1", "--config", file()}), "");
  EXPECT_EQ(Value("read-ahead"), "1");
}

TEST_F(SettingsSourceTest, RefusesAWrongValueEvenWhereAStrongerOneStands) {
  setenv("VESK_READ_AHEAD", "many", 1);
  EXPECT_EQ(Start({"--read-ahead", "1"}), "VESK_READ_AHEAD: 'many' is not a whole number: 0 to 99");
  ClearEnvironment();
  WriteFile("read-ahead = many\n");
  EXPECT_EQ(WithoutDirectory(Start({"--read-ahead", "1", "--config", file()})),
            "F:1: read-ahead: 'many' is not a whole number: 0 to 99");
}

TEST_F(SettingsSourceTest, ChangesNothingWhenAnyPlaceIsWrong) {
  WriteFile("read-ahead = 3\nmemory = 2\n");
  EXPECT_EQ(Start({"--config", file(), "--block-size", "1K", "--threads", "0"}),
            "--threads: '0' is too small: at least 1");
  ExpectAllDefaults();
}

// ---- the command line ----

TEST_F(SettingsSourceTest, NamesTheOptionOfAWrongValue) {
  EXPECT_EQ(Start({"--block-size", "0"}), "--block-size: '0' is too small: at least 1 byte");
  EXPECT_EQ(Start({"--read-ahead", "-1"}), "--read-ahead: '-1' is not a whole number: 0 to 99");
  EXPECT_EQ(Start({"--read-ahead="}), "--read-ahead: '' is not a whole number: 0 to 99");
  EXPECT_EQ(Start({"--read-ahead", ""}), "--read-ahead: '' is not a whole number: 0 to 99");
  EXPECT_EQ(Start({"--block-size"}), "--block-size: 1 required SIZE missing");
  EXPECT_EQ(Start({"--threads=1", "--threads=2"}), "--threads is there twice");
  EXPECT_EQ(Start({"--threads", "\xd9\xa3"}),
            "--threads: '\xd9\xa3' is not a whole number: 1 to 1024");
}

TEST_F(SettingsSourceTest, TakesTextsAsTheyAre) {
  for (const char* const text : {"[a,b]", "{}", "a b", "", "-", "\"x\"", "#", "a=b"}) {
    EXPECT_EQ(Start({"--log-file", text}), "") << text;
    EXPECT_EQ(Value("log-file"), text);
  }
}

TEST_F(SettingsSourceTest, SuggestsTheOptionThatIsMeant) {
  EXPECT_EQ(Start({"--blok-size", "1K"}),
            "there is no option '--blok-size'; did you mean --block-size?");
  EXPECT_EQ(Start({"--readahead=1"}),
            "there is no option '--readahead'; did you mean --read-ahead?");
  EXPECT_EQ(Start({"--confg", "x"}), "there is no option '--confg'; did you mean --config?");
  EXPECT_EQ(Start({"cat", "x", "--thread", "1"}),
            "there is no option '--thread'; did you mean --threads?");
  EXPECT_EQ(Start({"--bloksiz", "1"}), "there is no option '--bloksiz'");
  EXPECT_EQ(Start({"--" + std::string(10000, 'x')}),
            "there is no option '--" + std::string(98, 'x') + "...'");
  EXPECT_EQ(Start({"stray"}), "The following argument was not expected: stray");
}

TEST_F(SettingsSourceTest, TellsWhatIsWrongOnOneShortLineWhateverWasTyped) {
  EXPECT_EQ(Start({"a\nb\x1b[31m"}), "The following argument was not expected: a\\x0ab\\x1b[31m");
  EXPECT_LT(Start({std::string(10000, 'x')}).size(), 600u);
}

// The next word was taken for it: the file that was to be read became the log.
TEST_F(SettingsSourceTest, TakesAnEmptyValueBehindAnEqualsSign) {
  EXPECT_EQ(Start({"--log-file=", "cat", "file"}), "");
  EXPECT_EQ(Value("log-file"), "");
  WriteFile("log-file = x");
  EXPECT_EQ(Start({"--log-file=", "--config", file()}), "");
  EXPECT_EQ(Value("log-file"), "");
  EXPECT_EQ(Start({"--threads=", "cat"}), "--threads: '' is not a whole number: 1 to 1024");
  EXPECT_EQ(Start({"--help="}), "help") << "takes no value";
  EXPECT_EQ(Start({"--", "--log-file="}),
            "The following arguments were not expected: --log-file= --");
}

TEST_F(SettingsSourceTest, AcceptsOptionsBehindACommandThatFallsThrough) {
  EXPECT_EQ(Start({"--threads=2", "cat", "file", "--read-ahead", "7"}), "");
  EXPECT_EQ(Value("threads"), "2");
  EXPECT_EQ(Value("read-ahead"), "7");
}

TEST_F(SettingsSourceTest, ShowsHelpWhateverElseIsWrong) {
  setenv("VESK_THREADS", "none", 1);
  EXPECT_EQ(Start({"--block-size", "0", "--config", directory_ / "none", "--help"}), "help");
}

TEST_F(SettingsSourceTest, TellsEverySettingInHelpByGroupOnLinesThatFit) {
  ASSERT_EQ(Start({}), "");
  std::size_t last = help_.find("\nStore:\n");
  ASSERT_NE(last, std::string::npos);
  for (const Setting& setting : SettingTable()) {
    const std::size_t at = help_.find("\n  --" + setting.name + ' ');
    EXPECT_NE(at, std::string::npos) << setting.name;
    EXPECT_GT(at, last) << setting.name;
    last = at;
  }
  for (const char* const part :
       {"  --block-size SIZE=256K ", "  --refresh-interval DURATION[s]=30s ",
        "  --direct off|on=off ", "  --log-format text|json=text ", "\nCache:\n", "\nLog:\n",
        " 99)", "--config FILE"})
    EXPECT_NE(help_.find(part), std::string::npos) << part;
  for (std::size_t begin = 0; begin < help_.size();) {
    const std::size_t end = help_.find('\n', begin);
    EXPECT_LE(end - begin, 100u) << help_.substr(begin, end - begin);
    begin = end + 1;
  }
}

// ---- the list of all settings ----

TEST_F(SettingsSourceTest, ListsSettingsAsAFileThatSaysTheSame) {
  for (const char* const name : {"plain", "", "a\"b", "it's", "#", "[x], y", "a=b"}) {
    ASSERT_EQ(Start({"--log-file", name, "--log-levels", "info, error", "--memory=7M"}), "");
    const std::string list = vesk::SettingsToml(settings_);
    EXPECT_EQ(StartWith(list), "") << list;
    EXPECT_EQ(Value("log-file"), name);
    EXPECT_EQ(Value("log-levels"), "info,error");
    EXPECT_EQ(vesk::SettingsToml(settings_), list);
  }
}

TEST_F(SettingsSourceTest, ListsWhatNoFileCanSayInAComment) {
  for (const std::string name : {"a\\b", "a`b", "it's \"x\"", "\"a b\""}) {
    ASSERT_EQ(Start({"--log-file", name}), "");
    const std::string list = vesk::SettingsToml(settings_);
    EXPECT_NE(list.find("\n# no file can say it: log-file = " + name + "  # not the default\n"),
              std::string::npos)
        << list;
    EXPECT_EQ(StartWith(list), "");
    EXPECT_EQ(Value("log-file"), "");
  }
}

// ---- the environment ----

TEST_F(SettingsSourceTest, NamesTheVariableOfAWrongValue) {
  const std::vector<std::vector<std::string>> rows = {
      {"VESK_BLOCK_SIZE", "0", "'0' is too small: at least 1 byte"},
      {"VESK_READ_AHEAD", "", "'' is not a whole number: 0 to 99"},
      {"VESK_DIRECT", "yes", "'yes' is not possible: one of off, on"},
      {"VESK_THREADS", "3\n", "'3\\x0a' has a control character in it"}};
  for (const auto& row : rows) {
    setenv(row[0].c_str(), row[1].c_str(), 1);
    EXPECT_EQ(Start({}), row[0] + ": " + row[2]);
    ClearEnvironment();
  }
}

// ---- the file ----

TEST_F(SettingsSourceTest, ReadsAFileAsPeopleWriteThem) {
  EXPECT_EQ(StartWith("# a comment = 1\n"
                      "\n"
                      "   \t \n"
                      "store = 'posix,latency=5ms' # behind a value\r\n"
                      "\"threads\" = 7\r\n"
                      "[cache] # behind a table\r\n"
                      "  block-size=\"1M\"\r\n"
                      "\tmemory\t=\t5\t\n"
                      "[ log ]\n"
                      "log-levels = [\"debug\" , 'error',]\n"
                      "log-ring-levels = info, dump\n"
                      "log-file = \"/tmp/a #1's, [b]=é.log\"\n"
                      "log-stderr = false\n"
                      "[cache]\n"
                      "read-ahead = 0"),
            "");
  EXPECT_EQ(Value("store"), "posix,latency=5ms");
  EXPECT_EQ(Value("threads"), "7");
  EXPECT_EQ(Value("block-size"), "1M");
  EXPECT_EQ(Value("memory"), "5");
  EXPECT_EQ(Value("log-levels"), "debug,error");
  EXPECT_EQ(Value("log-ring-levels"), "info,dump");
  EXPECT_EQ(Value("log-file"), "/tmp/a #1's, [b]=é.log");
  EXPECT_EQ(Value("log-stderr"), "off");
  EXPECT_EQ(Value("read-ahead"), "0");
}

TEST_F(SettingsSourceTest, ReadsAFileThatBeginsWithAByteOrderMark) {
  EXPECT_EQ(StartWith("\xef\xbb\xbfthreads = 2\n"), "");
  EXPECT_EQ(Value("threads"), "2");
}

TEST_F(SettingsSourceTest, ABareListIsReadAsInEveryOtherPlace) {
  EXPECT_EQ(StartWith("log-levels = info , error"), "");
  EXPECT_EQ(Value("log-levels"), "info,error");
  for (const char* const wrong :
       {"info,", ",info", "info,,error", "info error", "info,\"error\""}) {
    const std::string refusal = StartWith(std::string("log-levels = ") + wrong);
    EXPECT_EQ(refusal.rfind("F:1: log-levels: unknown log level ", 0), 0u) << wrong << refusal;
  }
}

TEST_F(SettingsSourceTest, KeepsAnEmptyTextInQuotes) {
  setenv("VESK_STORE", "memory", 1);
  EXPECT_EQ(StartWith("log-file = \"\"\n"), "");
  EXPECT_EQ(Value("log-file"), "");
  EXPECT_EQ(Value("store"), "memory");
}

TEST_F(SettingsSourceTest, RefusesABadFileWholeWithLineAndReason) {
  const std::string good = "threads = 2\n[cache]\nread-ahead = 3\n";  // ends on line 3
  const std::string one_value = "one value is wanted; one with blanks or commas needs quotes";
  const std::string no_entry = " is neither a comment nor a [table] nor NAME = VALUE";
  const std::string size = " is not a size: a whole number of bytes, or of K, M, G or T as in 256K";
  // clang-format off
  const std::vector<std::vector<std::string>> rows = {
    {"block-size = 0",               "block-size: '0' is too small: at least 1 byte"},
    {"block-size = -5",              "block-size: '-5'" + size},
    {"block-size = 1e9",             "block-size: '1e9'" + size},
    {"block-size = 1_000",           "block-size: '1_000'" + size},
    {"block-size =",                 "block-size: ''" + size},
    {"block-size = \" 1K\"",         "block-size: ' 1K'" + size},
    {"block-size = 99999999999999999999", "block-size: '99999999999999999999' is too large: at most 104857599 bytes"},
    {"block-size = 1 K",             "block-size: " + one_value},
    {"block-size = 1K,",             "block-size: " + one_value},
    {"block-size = 1K, 2K",          "block-size: " + one_value},
    {"block-size = [1K]",            "block-size: " + one_value},
    {"block-size = \"1K\", \"2K\"",  "block-size: " + one_value},
    {"block-size = \"1K\",",         "block-size: " + one_value},
    {"blok-size = 1K",               "there is no setting 'blok-size'; did you mean block-size?"},
    {"Block-Size = 1K",              "there is no setting 'Block-Size'; did you mean block-size?"},
    {"nothing = 1K",                 "there is no setting 'nothing'"},
    {"block\xc2\xa0size = 1K",       "there is no setting 'block\xc2\xa0size'; did you mean block-size?"},
    {"-- = 1",                       "there is no setting '--'"},
    {"++ = 1",                       "'++ = 1'" + no_entry},
    {"= 1K",                         "there is no setting ''"},
    {"threads = 3",                  "threads: belongs in the table [store] or before the first table, not in [cache]"},
    {"read-ahead = 4",               "read-ahead: is there twice, first in line 3"},
    {"[log]\nthreads = 3",           "threads: belongs in the table [store] or before the first table, not in [log]"},
    {"[store]\nthreads = 2",         "threads: is there twice, first in line 1"},
    {"cache.block-size = 1K",        "block-size: belongs in the table [cache] or before the first table, not in [cache.cache]"},
    {"[cahce]",                      "there is no table 'cahce': only store, cache, requests, retry, reaper, log; did you mean cache?"},
    {"[]",                           "there is no table '': only store, cache, requests, retry, reaper, log"},
    {"[default]",                    "there is no table 'default': only store, cache, requests, retry, reaper, log"},
    {"[[cache]]",                    "there is no table '[cache]': only store, cache, requests, retry, reaper, log; did you mean cache?"},
    {"[cache",                       "there is no table '[cache': only store, cache, requests, retry, reaper, log; did you mean cache?"},
    {"[cache.log]",                  "there is no table 'cache.log': only store, cache, requests, retry, reaper, log"},
    {"garbage",                      "'garbage'" + no_entry},
    {"x",                            "'x'" + no_entry},
    {"direct",                       "'direct'" + no_entry},
    {"; threads = 3",                "'; threads = 3'" + no_entry},
    {"a=",                           "'a='" + no_entry},
    {"log-levels = [info,",          "'log-levels = [info,'" + no_entry},
    {"log-levels = [",               "'log-levels = ['" + no_entry},
    {"log-file = \"a",               "the line has a quote that is not closed"},
    {"log-file = \"a # b",           "the line has a quote that is not closed"},
    {"log-file = 'a\" # b",          "the line has a quote that is not closed"},
    {"log-file = it's",              "the line has a quote inside a value"},
    {"log-file = \"a\"b",            "the line has something behind a closing quote"},
    {"log-file = \"\"\"a\"\"\"",     "the line has something behind a closing quote"},
    {"log-file = \"'a b'\"",         "the line has quotes inside quotes"},
    {"log-file = \"a\\tb\"",         "the line has a backslash, which has no meaning here"},
    {"log-file = 'a b\\'",           "the line has a backslash, which has no meaning here"},
    {"log-file = `a b`",             "the line has a backquote"},
    {std::string("log-file = a\0b", 14), "the line has a control character"},
    {"log-file = \"a\x1b[31m\"",     "the line has a control character"},
    {"threads\r= 3",                 "the line has a control character"},
    {"# \x07",                       ""},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    const auto lines = static_cast<std::size_t>(std::count(row[0].begin(), row[0].end(), '\n'));
    const std::string wrong = StartWith(good + row[0] + "\n# end\n");
    if (row[1].empty()) {
      EXPECT_EQ(wrong, "");
      settings_.threads = Settings().threads;
      settings_.read_ahead = Settings().read_ahead;
      continue;
    }
    EXPECT_EQ(wrong, "F:" + std::to_string(4 + lines) + ": " + row[1]);
    ExpectAllDefaults();
  }
}

TEST_F(SettingsSourceTest, RefusesDotsAroundAName) {
  EXPECT_EQ(StartWith("cache.memory = 7\n \"log-file\" = x"), "");
  for (const char* const name : {"memory.", ".memory", "cache.memory.", "cache..memory", "."}) {
    const std::string refusal = StartWith(name + std::string(" = 7"));
    EXPECT_EQ(refusal.rfind("F:1: ", 0), 0u) << name << ": " << refusal;
  }
}

TEST_F(SettingsSourceTest, TellsAWrongTableOnOneShortLine) {
  EXPECT_EQ(StartWith("a\tb.log-stderr = off\n"),
            "F:1: log-stderr: belongs in the table [log] or before the first table, not in "
            "[a\\x09b]");
  EXPECT_LT(StartWith(std::string(10000, 'x') + ".log-stderr = off\n").size(), 250u);
}

TEST_F(SettingsSourceTest, RefusesNamesOfAnyShapeWithoutHarm) {
  for (const std::string& name :
       {std::string("."), std::string(".."), std::string("a."), std::string(".a"),
        std::string("\"\""), std::string("cache."), std::string(10000, '.'),
        std::string(100000, 'a'), std::string("\xff\xfe"), std::string("cache..block-size")}) {
    const std::string wrong = StartWith("\n" + name + " = 1\n");
    EXPECT_EQ(wrong.compare(0, 5, "F:2: "), 0) << wrong;
    EXPECT_LT(wrong.size(), 300u);
    ExpectAllDefaults();
  }
}

TEST_F(SettingsSourceTest, RefusesAFileThatCannotBeReadOrIsNone) {
  EXPECT_EQ(Start({"--config", directory_ / "none"}),
            (directory_ / "none") + ": No such file or directory");
  EXPECT_EQ(Start({"--config", ""}), "'': No such file or directory");
  EXPECT_EQ(Start({"--config", "no\nfile"}), "'no\\x0afile': No such file or directory");
  EXPECT_EQ(Start({"--config", "/"}), "/: Is a directory");
  WriteFile("");
  EXPECT_EQ(WithoutDirectory(Start({"--config", file() + "/x"})), "F/x: Not a directory");
  const std::string loop = directory_ / "loop";
  ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
  EXPECT_EQ(Start({"--config", loop}), loop + ": Too many levels of symbolic links");
  EXPECT_EQ(Start({"--config", "/dev/zero"}), "/dev/zero: Not a regular file");
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(Start({"--config", fifo}), fifo + ": Not a regular file") << "and does not block";
}

TEST_F(SettingsSourceTest, RefusesAFileOverOneMebibyteAndTakesOneBelow) {
  const std::string line = "# " + std::string(1021, 'x') + '\n';
  std::string text = "threads = 2\n";
  while (text.size() + line.size() <= 1024 * 1024) text += line;
  EXPECT_EQ(StartWith(text), "");
  EXPECT_EQ(Value("threads"), "2");
  EXPECT_EQ(StartWith(text + line), "F: Longer than a configuration can be: over 1 MiB");
}

TEST_F(SettingsSourceTest, RefusesValuesThatDoNotGoTogetherAndNamesTheFileFirst) {
  const std::string reason = "retry-first-delay (40s) is longer than retry-longest-delay (30s)";
  EXPECT_EQ(StartWith("threads = 2\nretry-first-delay = \"40s\"\n"),
            "F:2: retry-first-delay: " + reason);
  EXPECT_EQ(Start({"--retry-first-delay", "40s"}), "--retry-first-delay: " + reason);
  setenv("VESK_RETRY_FIRST_DELAY", "40s", 1);
  EXPECT_EQ(Start({}), "VESK_RETRY_FIRST_DELAY: " + reason);
  EXPECT_EQ(StartWith("[retry]\nretry-longest-delay = 1s\n"),
            "F:2: retry-longest-delay: retry-first-delay (40s) is longer than "
            "retry-longest-delay (1s)");
  ExpectAllDefaults();
  EXPECT_EQ(Start({"--retry-longest-delay", "40s"}), "") << "equal is fine";
}

// ---- reload ----

TEST_F(SettingsSourceTest, ReloadAppliesLiveSettingsAndTellsWhatNeedsAStart) {
  ASSERT_EQ(StartWith("retry-first-delay = 1s\nthreads = 2\n"), "");
  EXPECT_EQ(ReloadWith("refresh-interval = 1m\nretry-first-delay = 2s\nthreads = 3\n"),
            (std::vector<std::string>{"refresh-interval: '30s' -> '1m'",
                                      "retry-first-delay: '1s' -> '2s'",
                                      "threads: '2' -> '3' takes effect at the next start"}));
  EXPECT_EQ(settings_.refresh_interval, 60);
  EXPECT_EQ(settings_.retry_first_delay_ms, 2000);
  EXPECT_EQ(settings_.threads, 2u);
  EXPECT_EQ(ReloadWith("refresh-interval = 60\nretry-first-delay = 2s\nthreads = 2\n"),
            std::vector<std::string>{"no setting has changed"});
}

TEST_F(SettingsSourceTest, ReloadTakesARemovedSettingBackToDefaultOrEnvironment) {
  setenv("VESK_RETRY_READ_ATTEMPTS", "7", 1);
  ASSERT_EQ(StartWith("refresh-interval = 1m\nretry-read-attempts = 9\n"), "");
  EXPECT_EQ(settings_.retry_read_attempts, 7u);
  EXPECT_EQ(ReloadWith("# nothing\n"), std::vector<std::string>{"refresh-interval: '1m' -> '30s'"});
  EXPECT_EQ(settings_.refresh_interval, 30);
  EXPECT_EQ(settings_.retry_read_attempts, 7u);
}

TEST_F(SettingsSourceTest, ReloadLeavesWhatCommandLineAndEnvironmentGave) {
  setenv("VESK_RETRY_READ_ATTEMPTS", "7", 1);
  WriteFile("");
  ASSERT_EQ(Start({"--config", file(), "--refresh-interval", "5s"}), "");
  EXPECT_EQ(ReloadWith("refresh-interval = 1m\nretry-read-attempts = 9\nretry-parked-jobs = 4\n"),
            std::vector<std::string>{"retry-parked-jobs: '0' -> '4'"});
  EXPECT_EQ(settings_.refresh_interval, 5);
  EXPECT_EQ(settings_.retry_read_attempts, 7u);
}

TEST_F(SettingsSourceTest, ReloadOfABadFileChangesNothing) {
  ASSERT_EQ(StartWith("refresh-interval = 1m\n"), "");
  EXPECT_EQ(ReloadWith("refresh-interval = 2m\n\nretry-first-delay = fast\n"),
            std::vector<std::string>{"F:3: retry-first-delay: 'fast' is not a duration: a whole "
                                     "number of us, ms, s, m or h as in 30s; nothing was changed"});
  EXPECT_EQ(ReloadWith("refresh-interval = 2m\nretry-first-delay = 1h\n"),
            std::vector<std::string>{"F:2: retry-first-delay: retry-first-delay (1h) is longer "
                                     "than retry-longest-delay (30s); nothing was changed"});
  EXPECT_EQ(
      ReloadWith("refresh-interval = 2m\nthreads = 0\n"),
      std::vector<std::string>{"F:2: threads: '0' is too small: at least 1; nothing was changed"});
  ASSERT_EQ(unlink(file().c_str()), 0);
  const SettingsReload reload = source_.Reload(&settings_);
  EXPECT_EQ(WithoutDirectory(reload.refusal), "F: No such file or directory");
  EXPECT_TRUE(reload.changes.applied.empty());
  EXPECT_EQ(settings_.refresh_interval, 60);
  EXPECT_EQ(settings_.retry_first_delay_ms, 100);
}

TEST_F(SettingsSourceTest, ReloadWithoutAFileChangesNothing) {
  ASSERT_EQ(Start({"--refresh-interval", "5s"}), "");
  EXPECT_EQ(source_.Reload(&settings_).Lines(), std::vector<std::string>{"no setting has changed"});
  EXPECT_EQ(settings_.refresh_interval, 5);
}

TEST_F(SettingsSourceTest, ReloadFindsTheFileFromAnotherDirectory) {
  const std::filesystem::path before = std::filesystem::current_path();
  WriteFile("refresh-interval = 1m\n");
  std::filesystem::current_path(directory_ / "");
  const std::string wrong = Start({"--config", "vesk.toml"});
  std::filesystem::current_path("/");
  const SettingsReload good = source_.Reload(&settings_);
  WriteFile("refresh-interval = never\n");
  const SettingsReload bad = source_.Reload(&settings_);
  std::filesystem::current_path(before);
  EXPECT_EQ(wrong, "");
  EXPECT_EQ(good.refusal, "");
  EXPECT_EQ(bad.refusal,
            "vesk.toml:1: refresh-interval: 'never' is not a duration: a whole number of us, ms, "
            "s, m or h as in 30s");
  EXPECT_EQ(settings_.refresh_interval, 60);
}

TEST_F(SettingsSourceTest, ReloadsWhileAThreadReads) {
  ASSERT_EQ(StartWith("refresh-interval = 5s\nblock-size = 4K\n"), "");
  std::atomic<bool> stop{false};
  std::atomic<int> rounds{0};
  std::atomic<int> wrong{0};
  std::thread reader([&] {
    while (!stop) {
      const int interval = settings_.refresh_interval.load(std::memory_order_relaxed);
      if (interval != 5 && interval != 7) ++wrong;
      if (settings_.block_size != 4096) ++wrong;
      ++rounds;
    }
  });
  for (int i = 0; i < 100 || rounds < 100; ++i) {
    ReloadWith("block-size = 8K\nrefresh-interval = 7s\n");
    ReloadWith("block-size = 8K\nrefresh-interval = broken\n");
    ReloadWith("refresh-interval = 5s\n");
  }
  stop = true;
  reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace vesk_test
