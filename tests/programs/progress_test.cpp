// What a waiting user is shown of a copy: the words, the rate, what fits into a terminal.

#include "programs/cli/progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

namespace vesk_test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk_cli::BytesText;
using vesk_cli::Moved;
using vesk_cli::Progress;
using vesk_cli::StatusLine;
using vesk_cli::Summary;

constexpr std::uint64_t kMiB = 1u << 20;
constexpr unsigned kWide = 200;

Moved Data(std::uint64_t bytes) {
  Moved moved;
  moved.done = moved.data = bytes;
  return moved;
}

class ProgressTest : public testing::Test {
 protected:
  // The line when that much is there after that time.
  std::string Line(Progress& progress, const Moved& moved, vesk::Clock::Duration after,
                   unsigned columns = kWide) const {
    return progress.Line(moved, begin_ + after, columns);
  }

  static bool Has(const std::string& line, const std::string& part) {
    return line.find(part) != std::string::npos;
  }

  const Progress::Time begin_{hours(7)};
};

// ---- the words ----

TEST_F(ProgressTest, TellsAmountShareRateAndTimeLeft) {
  Progress progress(256 * kMiB, begin_);
  EXPECT_EQ(Line(progress, Data(64 * kMiB), seconds(2)),
            "  64.0 MiB of 256.0 MiB   25 %    32.0 MiB/s  ETA 0:06");
}

TEST_F(ProgressTest, KeepsItsPlacesWhileNumbersGrow) {
  Progress progress(2000 * kMiB, begin_);
  const std::string first = Line(progress, Data(1), milliseconds(250));
  const std::string later = Line(progress, Data(1999 * kMiB), milliseconds(500));
  EXPECT_EQ(first.find(" of "), later.find(" of ")) << first << '\n' << later;
  EXPECT_EQ(first.find('%'), later.find('%'));
  EXPECT_EQ(first.find("/s"), later.find("/s"));
}

TEST_F(ProgressTest, SaysHundredPercentOnlyWhenNothingIsLeft) {
  constexpr std::uint64_t kHuge = std::uint64_t{1} << 62;
  Progress progress(kHuge, begin_);
  EXPECT_TRUE(Has(Line(progress, Data(kHuge - 1), seconds(1)), " 99 %"));
  EXPECT_TRUE(Has(Line(progress, Data(kHuge), seconds(2)), "100 %"));
}

TEST_F(ProgressTest, SaysWhatHasToBeFlushedOnceAllIsTaken) {
  Progress progress(4 * kMiB, begin_);
  Moved moved = Data(4 * kMiB);
  moved.unsaved = 3 * kMiB;
  EXPECT_TRUE(Has(Line(progress, moved, seconds(1)), "flushing 3.0 MiB"));
  moved.unsaved = 0;
  const std::string line = Line(progress, moved, seconds(2));
  EXPECT_EQ(line.substr(line.rfind("  ") + 2), "flushing");
}

TEST_F(ProgressTest, TellsUnitsOfPowersOf1024) {
  EXPECT_EQ(BytesText(std::uint64_t{0}), "0 bytes");
  EXPECT_EQ(BytesText(std::uint64_t{1023}), "1023 bytes");
  EXPECT_EQ(BytesText(std::uint64_t{1024}), "1.0 KiB");
  EXPECT_EQ(BytesText(std::uint64_t{1000000}), "976.6 KiB");
  EXPECT_EQ(BytesText(kMiB - 1), "1.0 MiB");  // not 1024.0 KiB
  EXPECT_EQ(BytesText(kMiB), "1.0 MiB");
  EXPECT_EQ(BytesText(std::numeric_limits<std::uint64_t>::max()), "16.0 EiB");
}

// ---- the rate ----

TEST_F(ProgressTest, TakesTheRateOfTheLastSeconds) {
  Progress progress(std::uint64_t{100} << 30, begin_);
  std::uint64_t bytes = 0;
  vesk::Clock::Duration now{};
  std::string line;
  const auto run = [&](std::uint64_t per_second, int time) {
    for (int quarter = 0; quarter < 4 * time; ++quarter) {
      now += milliseconds(250);
      bytes += per_second / 4;
      line = Line(progress, Data(bytes), now);
    }
  };
  run(100 * kMiB, 10);
  EXPECT_TRUE(Has(line, " 100.0 MiB/s")) << line;
  run(8 * kMiB, 6);
  EXPECT_TRUE(Has(line, " 8.0 MiB/s")) << line;  // the fast seconds are forgotten
  run(0, 6);
  EXPECT_TRUE(Has(line, " 0 bytes/s")) << line;  // a store that has stopped shows
  EXPECT_TRUE(Has(line, "ETA -:--")) << line;
}

TEST_F(ProgressTest, CountsNoHolesIntoTheRate) {
  Progress progress(std::uint64_t{64} << 30, begin_);
  Moved moved;
  moved.done = std::uint64_t{32} << 30;
  moved.data = kMiB;
  const std::string line = Line(progress, moved, seconds(1));
  EXPECT_TRUE(Has(line, " 50 %")) << line;
  EXPECT_TRUE(Has(line, " 1.0 MiB/s")) << line;
}

TEST_F(ProgressTest, TellsNoTimeThatIsNone) {
  struct Row {
    std::uint64_t total, done;
    vesk::Clock::Duration after;
    const char* ending;
  };
  const Row rows[] = {
      {100 * kMiB, 0, seconds(0), "ETA -:--"},          // no time has gone by
      {100 * kMiB, 0, seconds(9), "ETA -:--"},          // nothing has come
      {100 * kMiB, 50 * kMiB, seconds(0), "ETA -:--"},  // all at once
      {~std::uint64_t{0}, 1, hours(1), "ETA -:--"},     // more than a life
      {100 * kMiB, 100 * kMiB - 1, seconds(1), "ETA 0:01"},
      {3601, 1, seconds(1), "ETA 1:00:00"},
      {3600, 1, seconds(1), "ETA 59:59"},
      {360000, 1, seconds(1), "ETA 99:59:59"},
      {360001, 1, seconds(1), "ETA -:--"},
      {0, 0, seconds(0), "flushing"},
      {10, 20, seconds(1), "flushing"},  // more than was expected
  };
  for (const Row& row : rows) {
    Progress progress(row.total, begin_);
    const std::string line = Line(progress, Data(row.done), row.after);
    EXPECT_EQ(line.substr(line.rfind("  ") + 2), row.ending) << line;
    for (const char* const odd : {"inf", "nan", "ETA -0", "--:"}) {
      EXPECT_FALSE(Has(line.substr(0, line.find("ETA -:--")), odd)) << line;
    }
  }
}

TEST_F(ProgressTest, SumsUpWhatWasMoved) {
  EXPECT_EQ(Summary("Copied", Data(1000000), milliseconds(500)),
            "Copied 976.6 KiB in 0.50 s (1.9 MiB/s)");
  Moved sparse;
  sparse.done = std::uint64_t{4} << 30;
  sparse.data = kMiB;
  EXPECT_EQ(Summary("Copied", sparse, seconds(2)),
            "Copied 1.0 MiB in 2.00 s (512.0 KiB/s), and passed over 4.0 GiB of holes");
  EXPECT_EQ(Summary("Copied", Data(0), seconds(0)), "Copied 0 bytes in 0.00 s (0 bytes/s)");
}

// ---- the terminal ----

TEST_F(ProgressTest, FitsEveryWidth) {
  std::size_t before = 0;
  for (unsigned columns = 0; columns < kWide; ++columns) {
    Progress progress(256 * kMiB, begin_);
    const std::string line = Line(progress, Data(64 * kMiB), seconds(2), columns);
    EXPECT_LE(line.size() + 1, std::max(columns, 1u)) << line;
    EXPECT_GE(line.size(), before) << "a wider terminal shows no less";
    EXPECT_TRUE(columns < 6 || Has(line, " 25 %")) << columns;
    before = line.size();
  }
}

class StatusLineTest : public testing::Test {
 protected:
  StatusLineTest() : stream_(open_memstream(&text_, &length_)), line_(stream_) {}
  ~StatusLineTest() override {
    std::fclose(stream_);
    free(text_);
  }

  // What a terminal has then: its rows, the last one being that of the cursor.
  std::vector<std::string> Screen() const {
    const std::string erase = "\x1b[K";
    const std::string all(text_, length_);
    std::vector<std::string> rows{""};
    std::size_t column = 0;
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (all[i] == '\n') rows.emplace_back();
      if (all[i] == '\n' || all[i] == '\r') {
        column = 0;
      } else if (all.compare(i, erase.size(), erase) == 0) {
        rows.back().resize(column, ' ');
        i += erase.size() - 1;
      } else {
        rows.back().resize(std::max(rows.back().size(), column + 1), ' ');
        rows.back()[column++] = all[i];
      }
    }
    for (std::string& row : rows) row.erase(row.find_last_not_of(' ') + 1);
    return rows;
  }

  char* text_ = nullptr;
  std::size_t length_ = 0;
  std::FILE* const stream_;
  StatusLine line_;
};

using Rows = std::vector<std::string>;

TEST_F(StatusLineTest, WritesOverWhatWasShown) {
  line_.Show("a long text");
  EXPECT_EQ(Screen(), Rows{"a long text"});
  line_.Show("short");
  EXPECT_EQ(Screen(), Rows{"short"});
  line_.Show("and longer again");
  EXPECT_EQ(Screen(), Rows{"and longer again"});
}

TEST_F(StatusLineTest, LeavesNothingWhenItIsEmptied) {
  line_.Show("text");
  line_.Show("");
  EXPECT_EQ(Screen(), Rows{""});
}

TEST_F(StatusLineTest, CoversWhatWasTypedBehindIt) {
  line_.Show("text");
  std::fputs("^C", stream_);
  line_.Print("a message");
  EXPECT_EQ(Screen(), (Rows{"a message", ""}));
}

TEST_F(StatusLineTest, IsSilentUntilItShowsSomething) {
  line_.Show("");
  std::fflush(stream_);
  EXPECT_EQ(length_, 0u);
  line_.Print("a message");
  EXPECT_EQ(std::string(text_, length_), "a message\n");
}

TEST_F(StatusLineTest, MakesWayForAMessage) {
  line_.Show("a text longer than the message");
  line_.Print("a message");
  EXPECT_EQ(Screen(), (Rows{"a message", ""}));
  line_.Show("text");
  EXPECT_EQ(Screen(), (Rows{"a message", "text"}));
}

// A terminal of its own; its widths are what the test says.
class TerminalColumnsTest : public testing::Test {
 protected:
  TerminalColumnsTest() : fd_(posix_openpt(O_RDWR | O_NOCTTY)) { unsetenv("COLUMNS"); }
  ~TerminalColumnsTest() override {
    unsetenv("COLUMNS");
    close(fd_);
  }

  void SetWidth(unsigned short columns) const {
    struct winsize size = {};
    size.ws_col = columns;
    ASSERT_EQ(ioctl(fd_, TIOCSWINSZ, &size), 0);
  }

  const int fd_;
};

TEST_F(TerminalColumnsTest, AreThoseOfTheTerminal) {
  SetWidth(53);
  EXPECT_EQ(vesk_cli::TerminalColumns(fd_), 53u);
}

TEST_F(TerminalColumnsTest, AreThoseOfTheEnvironmentWhereItSaysThem) {
  SetWidth(53);
  setenv("COLUMNS", "41", 1);
  EXPECT_EQ(vesk_cli::TerminalColumns(fd_), 41u);
  for (const char* const wrong : {"", "0", "-5", "wide", "41x", "99999999999"}) {
    setenv("COLUMNS", wrong, 1);
    EXPECT_EQ(vesk_cli::TerminalColumns(fd_), 53u) << wrong;
  }
}

TEST_F(TerminalColumnsTest, AreEightyWhereNobodyKnows) {
  SetWidth(0);
  EXPECT_EQ(vesk_cli::TerminalColumns(fd_), 80u);
  EXPECT_EQ(vesk_cli::TerminalColumns(-1), 80u);
}

}  // namespace
}  // namespace vesk_test
