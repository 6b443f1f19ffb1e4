// The loggers of the runtime.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "runtime/log_null.h"
#include "runtime/log_stderr.h"

namespace vesk_test {
namespace {

using vesk::LogLevel;
using vesk::LogSite;

const LogSite kSite("VeskStream", 520);

void LogOnEachLevel(vesk::VeskLogger& logger) {
  logger.Debug(kSite, "at %s\n", "debug");
  logger.Trace(kSite, "at %s\n", "trace");
  logger.Info(kSite, "at %s\n", "info");
  logger.Dump(kSite, "at %s\n", "dump");
  logger.Error(kSite, "at %s\n", "error");
}

// What goes to standard error, each line without its time, which must look like one.
std::vector<std::string> Captured(vesk::VeskLogger& logger, void (*log)(vesk::VeskLogger&)) {
  testing::internal::CaptureStderr();
  log(logger);
  const std::string text = testing::internal::GetCapturedStderr();
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    EXPECT_NE(end, std::string::npos) << "a line is not ended";
    const std::string line = text.substr(begin, end - begin);
    int parts[7];
    int length = 0;
    EXPECT_EQ(std::sscanf(line.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%6dZ %n", &parts[0], &parts[1],
                          &parts[2], &parts[3], &parts[4], &parts[5], &parts[6], &length),
              7)
        << line;
    EXPECT_EQ(length, 28) << line;
    lines.push_back(line.substr(28));
    begin = end + 1;
  }
  return lines;
}

TEST(StderrLoggerTest, WritesItsLevelAndAbove) {
  const std::vector<std::string> all = {
      "debug VeskStream:520 at debug", "trace VeskStream:520 at trace",
      "info VeskStream:520 at info", "dump VeskStream:520 at dump",
      "error VeskStream:520 at error"};
  for (int lowest = 0; lowest < 5; ++lowest) {
    vesk::StderrLogger logger(static_cast<LogLevel>(lowest));
    EXPECT_EQ(Captured(logger, LogOnEachLevel),
              std::vector<std::string>(all.begin() + lowest, all.end()));
  }
}

TEST(StderrLoggerTest, MakesOneLineOfWhateverNewlinesTheTextHas) {
  vesk::StderrLogger logger(LogLevel::kDebug);
  EXPECT_EQ(Captured(logger,
                     [](vesk::VeskLogger& log) {
                       log.Error(kSite, "ASSERT failure::\n");
                       log.Error(kSite, "Out of memory");
                       log.Error(kSite, "\n\n");
                       log.Debug(kSite, "%s Pending %d\n", "a\nfaked\x7f line", 3);
                     }),
            (std::vector<std::string>{
                "error VeskStream:520 ASSERT failure::", "error VeskStream:520 Out of memory",
                "error VeskStream:520 ", "debug VeskStream:520 a\\x0afaked\\x7f line Pending 3"}));
}

TEST(StderrLoggerTest, CutsATextThatIsLongerThanAnyShouldBe) {
  vesk::StderrLogger logger(LogLevel::kDebug);
  const std::vector<std::string> lines = Captured(logger, [](vesk::VeskLogger& log) {
    log.Info(kSite, "%s", std::string(10000, 'x').c_str());
  });
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "info VeskStream:520 " + std::string(4095, 'x'));
}

TEST(NullLoggerTest, WritesNothing) {
  vesk::NullLogger logger;
  EXPECT_EQ(Captured(logger, LogOnEachLevel), std::vector<std::string>{});
}

}  // namespace
}  // namespace vesk_test
