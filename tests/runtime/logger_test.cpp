// The logger: what reaches its sinks, what the ring keeps, what happens when a sink fails.

#include "runtime/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/allocation.h"
#include "tests/support/temporary_directory.h"

namespace vesk_test {
namespace {

using vesk::Logger;
using vesk::LogLevels;
using vesk::LogSite;
using Strings = std::vector<std::string>;

const LogSite kSite("VeskStream", 520);
const LogSite kCheck("VeskStream", 700);

constexpr char kEnds[] = "dump Logger:100 history ends";

std::string Begins(int lines, const std::string& reason = "ASSERT failure") {
  return "dump Logger:100 history begins, lines: " + std::to_string(lines) + ", reason: " + reason;
}

void LogOnEach(vesk::VeskLogger& logger) {
  logger.Debug(kSite, "at %s\n", "debug");
  logger.Trace(kSite, "at %s\n", "trace");
  logger.Info(kSite, "at %s\n", "info");
  logger.Dump(kSite, "at %s\n", "dump");
  logger.Error(kSite, "at %s\n", "error");
}

// As the cache reports a failed check.
void Assert(vesk::VeskLogger& logger) {
  logger.Error(kCheck, "ASSERT failure::\n");
  logger.Error(kCheck, "No action taken %d\n", 9);
  logger.Error(kCheck, "\n\n");
}

const Strings kAssertLines = {"error VeskStream:700 ASSERT failure::",
                              "error VeskStream:700 No action taken 9", "error VeskStream:700 "};

Strings operator+(Strings left, const Strings& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Strings Split(const std::string& text) {
  Strings lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    EXPECT_NE(end, std::string::npos) << "a line is not ended";
    lines.push_back(text.substr(begin, end - begin));
    begin = lines.back().size() + begin + 1;
  }
  return lines;
}

std::string Content(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << name;
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The line behind its time, which must look like one.
std::string WithoutTime(const std::string& line) {
  int parts[7];
  int length = 0;
  EXPECT_EQ(std::sscanf(line.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%6dZ %n", &parts[0], &parts[1],
                        &parts[2], &parts[3], &parts[4], &parts[5], &parts[6], &length),
            7)
      << line;
  EXPECT_EQ(length, 28) << line;
  return line.substr(std::min<std::size_t>(28, line.size()));
}

Strings WithoutTimes(Strings lines) {
  for (std::string& line : lines) line = WithoutTime(line);
  return lines;
}

template <typename Log>
Strings StandardErrorOf(Log log) {
  testing::internal::CaptureStderr();
  log();
  return Split(testing::internal::GetCapturedStderr());
}

// One object of strings, numbers and truths, as strict as RFC 8259; strings are returned decoded.
class JsonObject {
 public:
  static std::optional<std::map<std::string, std::string>> Parse(const std::string& text) {
    JsonObject parser(text);
    return parser.Object() && parser.at_ == text.size() ? std::optional(parser.fields_)
                                                        : std::nullopt;
  }

 private:
  explicit JsonObject(const std::string& text) : text_(text) {}

  bool Take(char c) {
    if (at_ == text_.size() || text_[at_] != c) return false;
    ++at_;
    return true;
  }
  bool Object() {
    if (!Take('{')) return false;
    do {
      std::string key, value;
      if (!String(&key) || !Take(':') || !(String(&value) || Word(&value))) return false;
      if (!fields_.emplace(key, value).second) return false;
    } while (Take(','));
    return Take('}');
  }
  bool Word(std::string* value) {
    const std::size_t end = std::min(text_.find_first_of(",}", at_), text_.size());
    *value = text_.substr(at_, end - at_);
    at_ = end;
    const bool number = !value->empty() && value->find_first_not_of("0123456789") == value->npos;
    return number || *value == "true";
  }
  bool String(std::string* value) {
    if (!Take('"')) return false;
    while (!Take('"')) {
      if (at_ == text_.size()) return false;
      if (text_[at_] == '\\' ? !Escape(value) : !Character(value)) return false;
    }
    return true;
  }
  bool Escape(std::string* value) {
    const std::string two = text_.substr(at_, 2);
    if (two == "\\\\" || two == "\\\"") {
      *value += two[1];
      at_ += 2;
      return true;
    }
    unsigned code = 0;
    int length = 0;
    if (std::sscanf(text_.c_str() + at_, "\\u00%2x%n", &code, &length) != 1 || length != 6) {
      return false;
    }
    *value += static_cast<char>(code);
    at_ += 6;
    return true;
  }
  // Decodes one character and encodes it again: what does not come out alike was not valid.
  bool Character(std::string* value) {
    const unsigned lead = static_cast<unsigned char>(text_[at_]);
    if (lead < 0x20) return false;
    std::size_t length = 1;
    while (length < 5 && lead >= 0x80 && (lead << length & 0x80) != 0) ++length;
    if (lead >= 0x80 && (length == 1 || length == 5)) return false;
    unsigned code = lead >= 0x80 ? lead & (0x7fu >> length) : lead;
    for (std::size_t i = 1; i < length; ++i) {
      if (at_ + i >= text_.size()) return false;
      code = code << 6 | (static_cast<unsigned char>(text_[at_ + i]) & 0x3f);
    }
    if (code > 0x10ffff || (code >= 0xd800 && code < 0xe000)) return false;
    if (Encoded(code) != text_.substr(at_, length)) return false;
    *value += text_.substr(at_, length);
    at_ += length;
    return true;
  }
  static std::string Encoded(unsigned code) {
    if (code < 0x80) return {static_cast<char>(code)};
    std::string tail;
    unsigned room = 0x40;  // values that fit the first byte
    for (; code >= room; code >>= 6, room = room == 0x40 ? 0x20 : room / 2) {
      tail.insert(tail.begin(), static_cast<char>(0x80 | (code & 0x3f)));
    }
    return static_cast<char>((0x100 - 2 * room) | code) + tail;
  }

  const std::string& text_;
  std::size_t at_ = 0;
  std::map<std::string, std::string> fields_;
};

TEST(JsonObjectTest, TellsValidFromInvalid) {
  EXPECT_TRUE(JsonObject::Parse("{\"a\":1,\"b\":true,\"c\":\"\\u0007\\\\\\\"\"}"));
  EXPECT_TRUE(JsonObject::Parse("{\"a\":\"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\x7f\"}"));
  for (const char* text : {"",
                           "{",
                           "{}",
                           "{\"a\":}",
                           "{\"a\":1",
                           "{\"a\":1}x",
                           "{\"a\":1,}",
                           "{\"a\":1,\"a\":2}",
                           "{\"a\":\"\n\"}",
                           "{\"a\":\"\\x41\"}",
                           "{\"a\":\"\\u41\"}",
                           "{\"a\":\"\\\"}",
                           "{\"a\":\"\xff\"}",
                           "{\"a\":\"\x80\"}",
                           "{\"a\":\"\xc3\"}",
                           "{\"a\":\"\xc0\x80\"}",
                           "{\"a\":\"\xe0\x9f\xbf\"}",
                           "{\"a\":\"\xed\xa0\x80\"}",
                           "{\"a\":\"\xf0\x8f\xbf\xbf\"}",
                           "{\"a\":\"\xf4\x90\x80\x80\"}",
                           "{\"a\":\"\xf8\x88\x80\x80\x80\"}"}) {
    EXPECT_FALSE(JsonObject::Parse(text)) << text;
  }
}

class LoggerTest : public testing::Test {
 protected:
  // To the file alone.
  Logger::Options ToFile(LogLevels levels) const {
    Logger::Options options;
    options.levels = levels;
    options.to_stderr = false;
    options.file = name_;
    return options;
  }

  Strings Lines() const { return WithoutTimes(Split(Content(name_))); }

  const TemporaryDirectory directory_;
  const std::string name_ = directory_ / "vesk.log";
};

TEST_F(LoggerTest, WritesExactlyTheOperationsThatAreOn) {
  const Strings all = {"debug VeskStream:520 at debug", "trace VeskStream:520 at trace",
                       "info VeskStream:520 at info", "dump VeskStream:520 at dump",
                       "error VeskStream:520 at error"};
  for (LogLevels levels = vesk::kLogNothing; levels <= vesk::kLogEverything; ++levels) {
    Strings expected;
    for (std::size_t i = 0; i < all.size(); ++i) {
      if ((levels & 1u << i) != 0) expected.push_back(all[i]);
    }
    Logger::Options options = ToFile(levels);
    options.to_stderr = true;
    std::filesystem::remove(name_);
    Logger logger(options);
    EXPECT_EQ(WithoutTimes(StandardErrorOf([&] { LogOnEach(logger); })), expected) << levels;
    EXPECT_EQ(Lines(), expected) << levels;
    EXPECT_EQ(logger.Dropped(), 0u);
  }
}

TEST_F(LoggerTest, LogsErrorsToStandardErrorUnlessTold) {
  Logger logger{Logger::Options()};
  EXPECT_EQ(WithoutTimes(StandardErrorOf([&] { LogOnEach(logger); })),
            Strings{"error VeskStream:520 at error"});
}

TEST_F(LoggerTest, ALineBeginsWithTheTimeOfItsMakingInUtc) {
  Logger logger{Logger::Options()};
  // Not time(): it lags behind the logger's clock by up to a tick of the kernel.
  using std::chrono::system_clock;
  const std::time_t before = system_clock::to_time_t(system_clock::now());
  const Strings lines = StandardErrorOf([&] { LogOnEach(logger); });
  const std::time_t after = system_clock::to_time_t(system_clock::now());
  ASSERT_EQ(lines.size(), 1u);
  std::tm parts = {};
  ASSERT_NE(strptime(lines[0].c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr);
  const std::time_t made = timegm(&parts);
  EXPECT_LE(before, made);
  EXPECT_LE(made, after);
}

TEST_F(LoggerTest, MakesOneLineOfWhateverNewlinesTheTextHas) {
  Logger logger(ToFile(vesk::kLogEverything));
  logger.Error(kSite, "Out of memory");
  logger.Error(kSite, "\n\n");
  logger.Debug(kSite, "%s Pending %d\n", "a\nfaked\x7f\x1b line", 3);
  logger.Info(kSite, "nul %c and \xc3\xa4 \xff\n", 0);
  logger.Info(LogSite("a\nb", -1), "%s", "");
  EXPECT_EQ(Lines(),
            (Strings{"error VeskStream:520 Out of memory", "error VeskStream:520 ",
                     "debug VeskStream:520 a\\x0afaked\\x7f\\x1b line Pending 3",
                     "info VeskStream:520 nul \\x00 and \xc3\xa4 \xff", "info a\\x0ab:-1 "}));
}

TEST_F(LoggerTest, CutsATextThatIsLongerThanAnyShouldBe) {
  Logger logger(ToFile(vesk::kLogEverything));
  logger.Info(kSite, "%s", std::string(4095, 'x').c_str());
  logger.Info(kSite, "%s", std::string(10000, 'x').c_str());
  logger.DumpRing(std::string(10000, 'y'));
  const Strings lines = Lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0], "info VeskStream:520 " + std::string(4095, 'x'));
  EXPECT_EQ(lines[1], lines[0]);
  EXPECT_EQ(lines[2].size(), std::string("dump Logger:100 ").size() + 4095);
  EXPECT_EQ(lines[4], "history " + lines[0]);
}

TEST_F(LoggerTest, LeavesErrnoAsItWas) {
  Logger::Options options = ToFile(vesk::kLogEverything);
  options.file = "/dev/full";
  Logger logger(options);
  errno = ENOENT;
  logger.Info(kSite, "text");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(logger.Dropped(), 1u);
}

TEST_F(LoggerTest, WritesNothingWhenAllIsOff) {
  Logger::Options options;
  options.levels = options.ring_levels = vesk::kLogNothing;
  Logger logger(options);
  EXPECT_EQ(StandardErrorOf([&] { LogOnEach(logger); }), Strings{});
}

TEST_F(LoggerTest, SeveralLoggersDoNotMeet) {
  Logger first(ToFile(vesk::kLogInfo));
  Logger::Options options = ToFile(vesk::kLogDebug);
  options.file = directory_ / "other.log";
  Logger second(options);
  LogOnEach(first);
  LogOnEach(second);
  first.SetLevels(vesk::kLogNothing);
  first.SetRingLevels(vesk::kLogNothing);
  second.Error(kCheck, "ASSERT failure::\n");
  first.Error(kCheck, "not of the second's assertion");
  second.Error(kCheck, "No action taken %d\n", 9);
  second.Error(kCheck, "\n\n");
  EXPECT_EQ(Lines(), Strings{"info VeskStream:520 at info"});
  EXPECT_EQ(WithoutTimes(Split(Content(options.file))),
            (Strings{"debug VeskStream:520 at debug", Begins(3),
                     "history info VeskStream:520 at info", "history dump VeskStream:520 at dump",
                     "history error VeskStream:520 at error", kEnds} +
             kAssertLines));
}

TEST_F(LoggerTest, ChildProgramsDoNotInheritTheFile) {
  const Logger logger(ToFile(vesk::kLogEverything));
  int found = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    std::error_code none;
    const auto link = "/proc/self/fd/" + std::to_string(fd);
    if (std::filesystem::read_symlink(link, none) != name_) continue;
    ++found;
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  }
  EXPECT_EQ(found, 1);
}

// JSON.

class JsonLoggerTest : public LoggerTest {
 protected:
  JsonLoggerTest() : logger_(Json(ToFile(vesk::kLogEverything))) {}

  static Logger::Options Json(Logger::Options options) {
    options.json = true;
    return options;
  }

  // The last line's part behind `"text":`; the line must be valid.
  std::string TextOf(const std::string& text) {
    logger_.Info(kSite, "%s", text.c_str());
    const std::string line = Split(Content(name_)).back();
    EXPECT_TRUE(JsonObject::Parse(line)) << line;
    return line.substr(line.rfind("\"text\":") + 7);
  }

  Logger logger_;
};

TEST_F(JsonLoggerTest, WritesOneObjectALine) {
  logger_.Trace(kSite, "a \"quoted\" \\ text\n");
  logger_.DumpRing("none");
  const Strings lines = Split(Content(name_));
  ASSERT_EQ(lines.size(), 3u);
  const std::string time = lines[0].substr(9, 27);
  WithoutTime(time + ' ');
  EXPECT_EQ(lines[0],
            "{\"time\":\"" + time +
                "\",\"level\":\"trace\",\"file\":\"VeskStream\",\"site\":520,\"thread\":" +
                std::to_string(gettid()) + ",\"text\":\"a \\\"quoted\\\" \\\\ text\"}");
}

TEST_F(JsonLoggerTest, MarksHistory) {
  logger_.Dump(kSite, "kept");
  logger_.DumpRing("\"asked\"");
  const Strings lines = Split(Content(name_));
  ASSERT_EQ(lines.size(), 4u);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const auto fields = JsonObject::Parse(lines[i]);
    ASSERT_TRUE(fields) << lines[i];
    EXPECT_EQ(fields->count("history"), i == 2 ? 1u : 0u) << lines[i];
  }
  EXPECT_EQ(JsonObject::Parse(lines[2])->at("history"), "true");
  EXPECT_EQ(JsonObject::Parse(lines[2])->at("time"), JsonObject::Parse(lines[0])->at("time"));
  EXPECT_EQ(JsonObject::Parse(lines[1])->at("text"), "history begins, lines: 1, reason: \"asked\"");
}

TEST_F(JsonLoggerTest, StandardErrorGetsTheSameLine) {
  Logger::Options options = Json(ToFile(vesk::kLogEverything));
  options.to_stderr = true;
  options.file = directory_ / "other.log";
  Logger logger(options);
  const Strings lines = StandardErrorOf([&] { LogOnEach(logger); });
  EXPECT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines, Split(Content(options.file)));
}

TEST_F(JsonLoggerTest, IsValidForHostileBytes) {
  const struct {
    std::string text, expected;
  } rows[] = {
      {"\x01\x1f\x7f\t\r\n.", "\"\\u0001\\u001f\\u007f\\u0009\\u000d\\u000a.\"}"},
      {"\",\"level\":\"", "\"\\\",\\\"level\\\":\\\"\"}"},
      {"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80", "\"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80\"}"},
      {"\xff\xfe", "\"\\\\xff\\\\xfe\"}"},
      {"\x80 \xbf", "\"\\\\x80 \\\\xbf\"}"},
      // A character that is cut: by the end, by another one.
      {"\xc3", "\"\\\\xc3\"}"},
      {"\xe2\x82", "\"\\\\xe2\\\\x82\"}"},
      {"\xf0\x9f\x98 ", "\"\\\\xf0\\\\x9f\\\\x98 \"}"},
      {"\xe2\"", "\"\\\\xe2\\\"\"}"},
      // Both sides of each edge: two, three, four bytes, the surrogates, the last character.
      {"\xc1\xbf\xc2\x80", "\"\\\\xc1\\\\xbf\xc2\x80\"}"},
      {"\xe0\x9f\xbf\xe0\xa0\x80", "\"\\\\xe0\\\\x9f\\\\xbf\xe0\xa0\x80\"}"},
      {"\xed\xa0\x80\xed\x9f\xbf", "\"\\\\xed\\\\xa0\\\\x80\xed\x9f\xbf\"}"},
      {"\xf0\x8f\xbf\xbf\xf0\x90\x80\x80", "\"\\\\xf0\\\\x8f\\\\xbf\\\\xbf\xf0\x90\x80\x80\"}"},
      {"\xf4\x90\x80\x80\xf4\x8f\xbf\xbf", "\"\\\\xf4\\\\x90\\\\x80\\\\x80\xf4\x8f\xbf\xbf\"}"},
      {"\xf5\x80\x80\x80", "\"\\\\xf5\\\\x80\\\\x80\\\\x80\"}"},
  };
  for (const auto& row : rows) EXPECT_EQ(TextOf(row.text), row.expected);
}

TEST_F(JsonLoggerTest, IsValidForWhateverBytes) {
  std::mt19937 random(7);
  const std::string bytes =
      "\x01\x0a\"\\/ax\x7f\x80\x8f\x90\x9f\xa0\xbf\xc0\xc1\xc2\xdf\xe0\xe1\xec\xed\xee\xef\xf0\xf1"
      "\xf3\xf4\xf5\xff";
  constexpr int kLines = 3000;
  for (int i = 0; i < kLines; ++i) {
    std::string text, file;
    for (std::size_t length = random() % 24; length > 0; --length) {
      text += bytes[random() % bytes.size()];
      file += bytes[random() % bytes.size()];
    }
    logger_.Info(LogSite(file, i), "%s", text.c_str());
  }
  const Strings lines = Split(Content(name_));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kLines));
  for (int i = 0; i < kLines; ++i) {
    const auto fields = JsonObject::Parse(lines[static_cast<std::size_t>(i)]);
    ASSERT_TRUE(fields) << lines[static_cast<std::size_t>(i)];
    ASSERT_EQ(fields->at("site"), std::to_string(i));
  }
}

TEST_F(JsonLoggerTest, IsValidWhereTheTextIsCutInsideACharacter) {
  const std::string text = TextOf(std::string(4094, 'x') + "\xc3\xa4");
  EXPECT_EQ(text, '"' + std::string(4094, 'x') + "\\\\xc3\"}");
}

// The file.

TEST_F(LoggerTest, RotationKeepsTheNewestFiles) {
  Logger::Options options = ToFile(vesk::kLogEverything);
  options.file_size = 1000;
  options.file_count = 3;
  constexpr int kLines = 200;
  {
    Logger logger(options);
    for (int i = 0; i < kLines; ++i) logger.Info(kSite, "line %d", i);
  }
  Strings kept;
  for (const char* name : {"vesk.2.log", "vesk.1.log", "vesk.log"}) {
    EXPECT_LE(std::filesystem::file_size(directory_ / name), options.file_size) << name;
    kept = kept + WithoutTimes(Split(Content(directory_ / name)));
  }
  EXPECT_FALSE(std::filesystem::exists(directory_ / "vesk.3.log"));
  ASSERT_GT(kept.size(), 20u);
  ASSERT_LT(kept.size(), static_cast<std::size_t>(kLines)) << "nothing was ever given up";
  for (std::size_t i = 0; i < kept.size(); ++i) {
    const std::size_t line = static_cast<std::size_t>(kLines) - kept.size() + i;
    EXPECT_EQ(kept[i], "info VeskStream:520 line " + std::to_string(line));
  }
}

TEST_F(LoggerTest, RotationWithOneFileStartsItAfresh) {
  Logger::Options options = ToFile(vesk::kLogEverything);
  options.file_size = 200;
  options.file_count = 1;
  Logger logger(options);
  for (int i = 0; i < 50; ++i) logger.Info(kSite, "line %d", i);
  EXPECT_EQ(Lines().back(), "info VeskStream:520 line 49");
  EXPECT_LE(std::filesystem::file_size(name_), options.file_size);
  EXPECT_FALSE(std::filesystem::exists(directory_ / "vesk.1.log"));
}

TEST_F(LoggerTest, FileSizeZeroNeverRotates) {
  Logger::Options options = ToFile(vesk::kLogEverything);
  options.file_size = 0;
  Logger logger(options);
  for (int i = 0; i < 50; ++i) logger.Info(kSite, "line %d", i);
  EXPECT_EQ(Lines().size(), 50u);
}

TEST_F(LoggerTest, AppendsToTheFileAndEndsALineThatWasCut) {
  std::ofstream(name_) << "2022-01-01T00:00:00.000000Z info VeskStream:1 whole\n"
                          "2022-01-01T00:00:00.000000Z info Vesk";
  Logger(ToFile(vesk::kLogInfo)).Info(kSite, "behind it");
  Logger(ToFile(vesk::kLogInfo)).Info(kSite, "once more");
  EXPECT_EQ(Lines(), (Strings{"info VeskStream:1 whole", "info Vesk",
                              "info VeskStream:520 behind it", "info VeskStream:520 once more"}));
}

TEST_F(LoggerTest, RefusesAFileThatCannotBeOpenedByItsName) {
  Logger::Options options = ToFile(vesk::kLogInfo);
  const auto refusal = [&options](const std::string& file) -> std::string {
    options.file = file;
    try {
      const Logger logger(options);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "not refused";
  };
  const std::string missing = directory_ / "none/vesk.log";
  EXPECT_EQ(refusal(missing), "log file " + missing + ": No such file or directory");
  EXPECT_FALSE(std::filesystem::exists(directory_ / "none"));
  EXPECT_EQ(refusal(directory_ / "."), "log file " + directory_ / "." + ": Is a directory");
  options.file_count = 0;
  EXPECT_EQ(refusal(name_), "log file " + name_ + ": at least 1 file is kept");
  options.file_count = 1000000;
  EXPECT_EQ(refusal(name_).find("log file " + name_ + ": "), 0u) << refusal(name_);
}

TEST_F(LoggerTest, ReopenLeavesARenamedFileBehind) {
  Logger logger(ToFile(vesk::kLogEverything));
  logger.Info(kSite, "one");
  const std::string renamed = directory_ / "vesk.log.old";
  std::filesystem::rename(name_, renamed);
  logger.Info(kSite, "two");
  EXPECT_TRUE(logger.Reopen());
  logger.Info(kSite, "three");
  EXPECT_EQ(WithoutTimes(Split(Content(renamed))),
            (Strings{"info VeskStream:520 one", "info VeskStream:520 two"}));
  EXPECT_EQ(Lines(), Strings{"info VeskStream:520 three"});
}

TEST_F(LoggerTest, ReopenThatFailsSaysSoAndKeepsTheFileInUse) {
  std::filesystem::create_directory(directory_ / "logs");
  Logger::Options options = ToFile(vesk::kLogInfo);
  options.file = directory_ / "logs/vesk.log";
  Logger logger(options);
  std::filesystem::rename(directory_ / "logs", directory_ / "away");
  EXPECT_FALSE(logger.Reopen());
  logger.Info(kSite, "still here");
  EXPECT_EQ(WithoutTimes(Split(Content(directory_ / "away/vesk.log"))),
            (Strings{"error Logger:200 log file " + options.file + ": No such file or directory",
                     "info VeskStream:520 still here"}));
  EXPECT_EQ(logger.Dropped(), 0u);
}

TEST_F(LoggerTest, ReopenWithoutAFileHasNothingToDo) {
  Logger::Options options;
  Logger logger(options);
  EXPECT_TRUE(logger.Reopen());
}

// Sinks that fail.

TEST_F(LoggerTest, AFullDiskCountsTheLineAndHoldsUpNoOtherSink) {
  Logger::Options options = ToFile(vesk::kLogInfo);
  options.to_stderr = true;
  options.file = "/dev/full";
  Logger logger(options);
  EXPECT_EQ(WithoutTimes(StandardErrorOf([&] {
              logger.Info(kSite, "one");
              logger.Debug(kSite, "off");
              logger.Info(kSite, "two");
            })),
            (Strings{"info VeskStream:520 one", "info VeskStream:520 two"}));
  EXPECT_EQ(logger.Dropped(), 2u);
  EXPECT_EQ(StandardErrorOf([&] { Assert(logger); }).size(), 2u + 2 + 3);
  EXPECT_EQ(logger.Dropped(), 2u + 2 + 2 + 3);
}

// Files of this process end at `bytes` while one exists.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit = {bytes, before_.rlim_max};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) throw std::runtime_error("no limit");
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit before_ = {};
  void (*const handler_)(int);
};

TEST_F(LoggerTest, WritesOnWhenTheDiskHasRoomAgain) {
  Logger logger(ToFile(vesk::kLogInfo));
  logger.Info(kSite, "one");
  const std::size_t whole = Content(name_).size();
  {
    const FileSizeLimit limit(whole + 10);
    logger.Info(kSite, "two");  // ten bytes of it are stored
    logger.Info(kSite, "three");
  }
  EXPECT_EQ(logger.Dropped(), 2u);
  EXPECT_EQ(Content(name_).size(), whole + 10);
  logger.Info(kSite, "four");
  EXPECT_EQ(logger.Dropped(), 2u);
  const Strings lines = Split(Content(name_));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(WithoutTime(lines[0]), "info VeskStream:520 one");
  EXPECT_EQ(lines[1].size(), 10u);
  EXPECT_EQ(WithoutTime(lines[2]), "info VeskStream:520 four");
}

TEST_F(LoggerTest, ARotationThatFailsLosesLinesButNotTheLogger) {
  const std::string logs = directory_ / "logs";
  std::filesystem::create_directory(logs);
  Logger::Options options = ToFile(vesk::kLogInfo);
  options.file = logs + "/vesk.log";
  options.file_size = 250;
  Logger logger(options);
  logger.Info(kSite, "%s", std::string(100, 'x').c_str());
  std::filesystem::rename(logs, directory_ / "away");
  std::ofstream(logs) << "no directory";
  logger.Info(kSite, "%s", std::string(100, 'y').c_str());  // does not fit: rotates
  logger.Info(kSite, "fits where nothing was written");
  EXPECT_EQ(logger.Dropped(), 2u);

  std::filesystem::remove(logs);
  std::filesystem::create_directory(logs);
  logger.Info(kSite, "again");
  EXPECT_EQ(logger.Dropped(), 2u);
  EXPECT_EQ(WithoutTimes(Split(Content(options.file))), Strings{"info VeskStream:520 again"});
}

TEST_F(LoggerTest, AStandardErrorThatFailsCountsTheLine) {
  Logger::Options options = ToFile(vesk::kLogInfo);
  options.to_stderr = true;
  Logger logger(options);
  const int saved = dup(STDERR_FILENO);
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(saved, 0);
  ASSERT_GE(full, 0);
  dup2(full, STDERR_FILENO);
  logger.Info(kSite, "full");
  close(STDERR_FILENO);
  logger.Info(kSite, "closed");
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(full);
  EXPECT_EQ(logger.Dropped(), 2u);
  EXPECT_EQ(Lines(), (Strings{"info VeskStream:520 full", "info VeskStream:520 closed"}));
}

TEST_F(LoggerTest, AnAllocationThatFailsLosesLinesAtMost) {
  Logger::Options options = ToFile(vesk::kLogInfo);
  options.to_syslog = true;
  const LogSite site("a name that is longer than a string keeps inside", 1);
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    std::filesystem::remove(name_);
    Logger logger(options);
    logger.Info(kSite, "before");
    {
      const FailingAllocation failing(nth);
      logger.Error(site, "to the ring");
      logger.Info(site, "a text that is longer than a string keeps inside");
      Assert(logger);
      fired = failing.Fired();
    }
    logger.Info(kSite, "behind");
    ASSERT_LT(nth, 1000) << "the failing allocation is always reached";
    const Strings lines = Lines();
    EXPECT_EQ(lines.front(), "info VeskStream:520 before") << nth;
    EXPECT_EQ(lines.back(), "info VeskStream:520 behind") << nth;
    if (!fired) {
      EXPECT_EQ(logger.Dropped(), 0u);
      EXPECT_GT(nth, 3) << "the lines need no memory: nothing was shown";
    }
  }
}

// The ring.

TEST_F(LoggerTest, TheRingIsWrittenWhenAsked) {
  Logger logger(ToFile(vesk::kLogDump));
  LogOnEach(logger);
  EXPECT_EQ(Lines(), Strings{"dump VeskStream:520 at dump"});
  logger.DumpRing("signal");
  logger.DumpRing("again\nand again");
  EXPECT_EQ(Lines(),
            (Strings{"dump VeskStream:520 at dump", Begins(3, "signal"),
                     "history info VeskStream:520 at info", "history dump VeskStream:520 at dump",
                     "history error VeskStream:520 at error", kEnds,
                     Begins(0, "again\\x0aand again"), kEnds}));
}

TEST_F(LoggerTest, TheRingKeepsTheLastLinesInOrder) {
  for (const std::size_t capacity : {std::size_t{0}, std::size_t{1}, std::size_t{3}}) {
    std::filesystem::remove(name_);
    Logger::Options options = ToFile(vesk::kLogNothing);
    options.ring_lines = capacity;
    Logger logger(options);
    Strings expected;
    int line = 0;
    for (int count = 0; count < 9; ++count) {  // lines between two dumps; the ring goes round
      Strings kept;
      for (int i = 0; i < count; ++i) {
        logger.Info(kSite, "%d", ++line);
        kept.push_back("history info VeskStream:520 " + std::to_string(line));
      }
      const std::size_t given_up = kept.size() - std::min(kept.size(), capacity);
      kept.erase(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(given_up));
      logger.DumpRing("test");
      expected =
          expected + Strings{Begins(static_cast<int>(kept.size()), "test")} + kept + Strings{kEnds};
    }
    EXPECT_EQ(Lines(), expected) << capacity;
  }
}

TEST_F(LoggerTest, AFullRingAndAnAssertionTakeNoMoreMemory) {
  Logger::Options options = ToFile(vesk::kLogNothing);
  options.ring_lines = 50;
  Logger logger(options);
  const auto log = [&logger](const char* text) {
    for (int i = 0; i < 100; ++i) logger.Info(kSite, "%s", text);
  };
  log(std::string(4000, 'x').c_str());
  const long live = LiveAllocations();
  const FailingAllocation failing(1);
  log("a text that is longer than a string keeps inside");
  Assert(logger);  // which may be about memory
  EXPECT_FALSE(failing.Fired());
  EXPECT_EQ(LiveAllocations(), live);
  EXPECT_EQ(logger.Dropped(), 0u);
}

TEST_F(LoggerTest, AnAssertionIsWrittenWithWhatLedToItWhateverTheLevels) {
  for (const LogLevels ring : {vesk::kLogNothing, vesk::kLogDebug | vesk::kLogError}) {
    std::filesystem::remove(name_);
    Logger::Options options = ToFile(vesk::kLogNothing);
    options.ring_levels = ring;
    options.to_stderr = true;
    Logger logger(options);
    const Strings standard_error = StandardErrorOf([&] {
      LogOnEach(logger);
      Assert(logger);
      logger.Error(kCheck, "not of the assertion");
    });
    const Strings kept = ring == vesk::kLogNothing
                             ? Strings{}
                             : Strings{"history debug VeskStream:520 at debug",
                                       "history error VeskStream:520 at error"};
    const Strings expected =
        Strings{Begins(static_cast<int>(kept.size()))} + kept + Strings{kEnds} + kAssertLines;
    EXPECT_EQ(Lines(), expected);
    EXPECT_EQ(WithoutTimes(standard_error), expected);
  }
}

TEST_F(LoggerTest, ASecondAssertionWritesOnlyWhatCameSince) {
  Logger logger(ToFile(vesk::kLogError));
  logger.Info(kSite, "one");
  Assert(logger);
  logger.Info(kSite, "two");
  logger.Error(kSite, "three");
  Assert(logger);
  Assert(logger);
  EXPECT_EQ(Lines(),
            (Strings{Begins(1), "history info VeskStream:520 one", kEnds} + kAssertLines +
             Strings{"error VeskStream:520 three", Begins(2), "history info VeskStream:520 two",
                     "history error VeskStream:520 three", kEnds} +
             kAssertLines + Strings{Begins(0), kEnds} + kAssertLines));
}

TEST_F(LoggerTest, LinesOfOtherThreadsAndSitesAreNotOfTheAssertion) {
  Logger::Options options = ToFile(vesk::kLogNothing);
  options.ring_levels = vesk::kLogNothing;
  Logger logger(options);
  logger.Error(kCheck, "ASSERT failure::\n");
  std::thread([&logger] { logger.Error(kCheck, "another thread's"); }).join();
  logger.Error(kSite, "another site's");
  logger.Debug(kCheck, "another operation's");
  logger.Error(kCheck, "No action taken %d\n", 9);
  logger.Error(kCheck, "\n\n");
  EXPECT_EQ(Lines(), (Strings{Begins(0), kEnds} + kAssertLines));
}

// Threads.

TEST_F(LoggerTest, ThreadsSeeOneOrderInFileAndRing) {
  constexpr int kThreads = 4, kLines = 500;
  Logger::Options options = ToFile(vesk::kLogEverything);
  options.ring_levels = vesk::kLogEverything;
  options.ring_lines = 700;
  Logger logger(options);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&logger, thread] {
      for (int i = 0; i < kLines; ++i) logger.Debug(LogSite("Thread", thread), "%d", i);
    });
  }
  for (std::thread& thread : threads) thread.join();

  Strings lines = Split(Content(name_));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
  std::map<std::string, int> next;
  for (const std::string& line : lines) {
    const std::string body = WithoutTime(line);
    const std::string thread = body.substr(0, body.rfind(' '));
    ASSERT_EQ(body, thread + ' ' + std::to_string(next[thread]++));
  }
  EXPECT_EQ(next.size(), static_cast<std::size_t>(kThreads));

  logger.DumpRing("test");
  const Strings all = Split(Content(name_));
  ASSERT_EQ(all.size(), lines.size() + 702);
  for (std::size_t i = 0; i < 700; ++i) {
    std::string expected = lines[lines.size() - 700 + i];
    ASSERT_EQ(all[lines.size() + 1 + i], expected.insert(28, "history "));
  }
}

TEST_F(LoggerTest, AssertionsOfManyThreadsKeepTheirLines) {
  constexpr int kThreads = 4, kAssertions = 50;
  Logger::Options options = ToFile(vesk::kLogNothing);
  options.ring_lines = 5000;
  Logger logger(options);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&logger] {
      for (int i = 0; i < kAssertions; ++i) {
        logger.Info(kSite, "line");
        Assert(logger);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::map<std::string, int> counts;
  int following = 0, announced = 0;
  for (const std::string& line : Lines()) {
    ++counts[line.substr(0, line.find(','))];
    if (line == kEnds) {
      EXPECT_EQ(following, announced);
    } else if (line.compare(0, 8, "history ") == 0) {
      ++following;
    } else if (std::sscanf(line.c_str(), "dump Logger:100 history begins, lines: %d", &announced)) {
      following = 0;
    }
  }
  constexpr int kAll = kThreads * kAssertions;
  const std::map<std::string, int> expected = {{"dump Logger:100 history begins", kAll},
                                               {"dump Logger:100 history ends", kAll},
                                               {"history info VeskStream:520 line", kAll},
                                               {kAssertLines[0], kAll},
                                               {kAssertLines[1], kAll},
                                               {kAssertLines[2], kAll}};
  EXPECT_EQ(counts, expected);
}

TEST_F(LoggerTest, LevelsChangeWhileOthersLog) {
  Logger logger(ToFile(vesk::kLogNothing));
  std::atomic<int> logging{2};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) LogOnEach(logger);
      --logging;
    });
  }
  // Each of the two changes its own levels only: neither loses what the other has set.
  threads.emplace_back([&] {
    for (LogLevels i = 0; logging > 0; ++i) logger.SetLevels(i % 2 * vesk::kLogInfo);
    logger.SetLevels(vesk::kLogDebug | vesk::kLogDump);
  });
  threads.emplace_back([&] {
    for (LogLevels i = 0; logging > 0; ++i) logger.SetRingLevels(i % 2 * vesk::kLogEverything);
    logger.SetRingLevels(vesk::kLogTrace);
  });
  for (std::thread& thread : threads) thread.join();
  for (const std::string& line : Lines()) ASSERT_EQ(line, "info VeskStream:520 at info");

  logger.DumpRing("test");
  std::filesystem::remove(name_);
  ASSERT_TRUE(logger.Reopen());
  LogOnEach(logger);
  logger.DumpRing("test");
  EXPECT_EQ(Lines(), (Strings{"debug VeskStream:520 at debug", "dump VeskStream:520 at dump",
                              Begins(1, "test"), "history trace VeskStream:520 at trace", kEnds}));
  EXPECT_EQ(logger.Dropped(), 0u);
}

TEST_F(LoggerTest, LevelsBeyondTheOperationsMeanNothing) {
  Logger logger(ToFile(~0u));
  logger.SetRingLevels(vesk::kLogNothing);
  logger.SetLevels(~vesk::kLogEverything);
  LogOnEach(logger);
  logger.DumpRing("test");
  EXPECT_EQ(Lines(), (Strings{Begins(0, "test"), kEnds}));
}

// The system log.

// What this program hands to the system log while the object lives, instead of handing it over.
class SystemLogLines {
 public:
  using Line = std::pair<int, std::string>;  // priority, text

  SystemLogLines() { recording_ = this; }
  ~SystemLogLines() { recording_ = nullptr; }
  SystemLogLines(const SystemLogLines&) = delete;
  SystemLogLines& operator=(const SystemLogLines&) = delete;

  static void Take(int priority, const char* format, va_list arguments)
      __attribute__((format(printf, 2, 0))) {
    if (recording_ == nullptr) {
      vsyslog(priority, format, arguments);
      return;
    }
    char text[1000];
    EXPECT_LT(std::vsnprintf(text, sizeof text, format, arguments), static_cast<int>(sizeof text));
    recording_->lines.emplace_back(priority, text);
  }

  std::vector<Line> lines;

 private:
  static SystemLogLines* recording_;
};

SystemLogLines* SystemLogLines::recording_ = nullptr;

}  // namespace

// Stand before the C library's own in this program: syslog(3), and what a compiler that fortifies
// makes of it. Under other names here, since the header may have bodies for these.
extern "C" {
void TakeSyslog(int priority, const char* format, ...) __asm__("syslog")
    __attribute__((format(printf, 2, 3)));
void TakeFortifiedSyslog(int priority, int flag, const char* format, ...) __asm__("__syslog_chk")
    __attribute__((format(printf, 3, 4)));

void TakeSyslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  SystemLogLines::Take(priority, format, arguments);
  va_end(arguments);
}

void TakeFortifiedSyslog(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  SystemLogLines::Take(priority, format, arguments);
  va_end(arguments);
}
}

namespace {

class SystemLogTest : public LoggerTest {
 protected:
  static Logger::Options ToSystemLog(LogLevels levels) {
    Logger::Options options;
    options.levels = levels;
    options.to_stderr = false;
    options.to_syslog = true;
    return options;
  }

  using Lines = std::vector<SystemLogLines::Line>;

  const SystemLogLines system_log_;
};

TEST_F(SystemLogTest, EachLineArrivesWithThePriorityOfItsOperation) {
  Logger logger(ToSystemLog(vesk::kLogEverything));
  LogOnEach(logger);
  EXPECT_EQ(system_log_.lines, (Lines{{LOG_DAEMON | LOG_DEBUG, "VeskStream:520 at debug"},
                                      {LOG_DAEMON | LOG_DEBUG, "VeskStream:520 at trace"},
                                      {LOG_DAEMON | LOG_INFO, "VeskStream:520 at info"},
                                      {LOG_DAEMON | LOG_NOTICE, "VeskStream:520 at dump"},
                                      {LOG_DAEMON | LOG_ERR, "VeskStream:520 at error"}}));
}

TEST_F(SystemLogTest, ItGetsTheOperationsThatAreOnAlone) {
  Logger logger(ToSystemLog(vesk::kLogInfo));
  LogOnEach(logger);
  EXPECT_EQ(system_log_.lines, (Lines{{LOG_DAEMON | LOG_INFO, "VeskStream:520 at info"}}));
}

TEST_F(SystemLogTest, ItGetsNothingUnlessTold) {
  Logger logger(ToFile(vesk::kLogEverything));
  LogOnEach(logger);
  EXPECT_EQ(system_log_.lines, Lines{});
}

TEST_F(SystemLogTest, ATextIsNoFormatAndNoJson) {
  Logger::Options options = ToSystemLog(vesk::kLogInfo);
  options.json = true;
  Logger logger(options);
  logger.Info(kSite, "%s", "a \"%s\" %n\nfaked");
  EXPECT_EQ(system_log_.lines,
            (Lines{{LOG_DAEMON | LOG_INFO, "VeskStream:520 a \"%s\" %n\\x0afaked"}}));
}

TEST_F(SystemLogTest, AnAssertionAndItsHistoryArriveWithTheTimesOfThePast) {
  Logger logger(ToSystemLog(vesk::kLogNothing));
  logger.Info(kSite, "past");
  Assert(logger);
  Lines lines = system_log_.lines;
  ASSERT_EQ(lines.size(), 6u);
  lines[1].second = WithoutTime(lines[1].second);
  EXPECT_EQ(lines, (Lines{{LOG_DAEMON | LOG_NOTICE,
                           "Logger:100 history begins, lines: 1, reason: ASSERT failure"},
                          {LOG_DAEMON | LOG_INFO, "history info VeskStream:520 past"},
                          {LOG_DAEMON | LOG_NOTICE, "Logger:100 history ends"},
                          {LOG_DAEMON | LOG_ERR, "VeskStream:700 ASSERT failure::"},
                          {LOG_DAEMON | LOG_ERR, "VeskStream:700 No action taken 9"},
                          {LOG_DAEMON | LOG_ERR, "VeskStream:700 "}}));
}

TEST(SyslogTest, EachOperationHasItsPriority) {
  EXPECT_EQ(vesk::SyslogPriority(vesk::kLogDebug), LOG_DEBUG);
  EXPECT_EQ(vesk::SyslogPriority(vesk::kLogTrace), LOG_DEBUG);
  EXPECT_EQ(vesk::SyslogPriority(vesk::kLogInfo), LOG_INFO);
  EXPECT_EQ(vesk::SyslogPriority(vesk::kLogDump), LOG_NOTICE);
  EXPECT_EQ(vesk::SyslogPriority(vesk::kLogError), LOG_ERR);
}

TEST_F(LoggerTest, LogsWithTheSystemLogWhetherOrNotThereIsOne) {
  Logger::Options options = ToFile(vesk::kLogInfo);
  options.to_syslog = true;
  Logger logger(options);
  logger.Info(kSite, "%s", "to the system log: %s %n");
  Assert(logger);
  EXPECT_EQ(Lines().size(), 1u + 2 + 1 + 3);
  EXPECT_EQ(Lines().front(), "info VeskStream:520 to the system log: %s %n");
  EXPECT_EQ(logger.Dropped(), 0u);
}

// Levels as text.

TEST(LogLevelsTest, TextAndSetAgree) {
  for (LogLevels levels = vesk::kLogNothing; levels <= vesk::kLogEverything; ++levels) {
    LogLevels parsed = 77;
    std::string why;
    EXPECT_TRUE(vesk::ParseLogLevels(vesk::LogLevelsText(levels), &parsed, &why)) << why;
    EXPECT_EQ(parsed, levels);
    EXPECT_EQ(why, "");
  }
  EXPECT_EQ(vesk::LogLevelsText(0), "off");
  EXPECT_EQ(vesk::LogLevelsText(31), "all");
  EXPECT_EQ(vesk::LogLevelsText(~0u), "all");
  EXPECT_EQ(vesk::LogLevelsText(vesk::kLogError | vesk::kLogDebug), "debug,error");
  EXPECT_EQ(vesk::LogLevelsText(vesk::kLogTrace | vesk::kLogInfo | vesk::kLogDump),
            "trace,info,dump");
}

TEST(LogLevelsTest, BlanksOrderAndRepetitionDoNotCount) {
  const struct {
    const char* text;
    LogLevels expected;
  } rows[] = {{" off ", vesk::kLogNothing},
              {"\tall", vesk::kLogEverything},
              {"error , debug", vesk::kLogError | vesk::kLogDebug},
              {" info", vesk::kLogInfo},
              {"dump,dump", vesk::kLogDump},
              {"debug,trace,info,dump,error", vesk::kLogEverything}};
  for (const auto& row : rows) {
    LogLevels parsed = 77;
    std::string why;
    EXPECT_TRUE(vesk::ParseLogLevels(row.text, &parsed, &why)) << why;
    EXPECT_EQ(parsed, row.expected) << row.text;
  }
}

TEST(LogLevelsTest, RefusesAWordThatItDoesNotKnow) {
  const struct {
    const char *text, *word;
  } rows[] = {{"", ""},
              {" ", ""},
              {"warn", "warn"},
              {"Error", "Error"},
              {"debug,", ""},
              {",debug", ""},
              {"debug,,info", ""},
              {"debug,off", "off"},
              {"all,info", "all"},
              {"info error", "info error"},
              {"info,tracer", "tracer"}};
  for (const auto& row : rows) {
    LogLevels levels = 77;
    std::string why;
    EXPECT_FALSE(vesk::ParseLogLevels(row.text, &levels, &why)) << row.text;
    EXPECT_EQ(why, "unknown log level '" + std::string(row.word) +
                       "': use off, all, or a comma list of debug,trace,info,dump,error");
    EXPECT_EQ(levels, 77u);
  }
}

TEST(LogLevelsTest, ARefusalIsOneShortLineWhateverTheWord) {
  LogLevels levels = 77;
  std::string why;
  EXPECT_FALSE(vesk::ParseLogLevels("info,a\nb", &levels, &why));
  EXPECT_EQ(why.find('\n'), std::string::npos) << why;
  EXPECT_FALSE(vesk::ParseLogLevels(std::string(4096, 'x'), &levels, &why));
  EXPECT_LT(why.size(), 200u) << why;
}

}  // namespace
}  // namespace vesk_test
