// What holds of every log line, and the check that no site goes untested: when all tests of this
// program have run, each site that docs/trace.md lists must have logged.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/keeping_logger.h"
#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::LogSite;
using vesk::VeskBuffer;
using vesk::VeskJob;
using vesk::VeskStream;

// --- The list of sites ---------------------------------------------------------------------------

// Sites that only ever log in a process that ends: the destructor of a block lets no exception out,
// so a failed check there is seen by the death tests' child processes and not by this one.
const std::set<int> kEndTheProcess = {108, 110};

// Numbers of the table's rows, which begin "| 101 |".
std::set<int> ListedSites(const std::string& path) {
  std::set<int> sites;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    int number = 0;
    int length = 0;
    if (std::sscanf(line.c_str(), "| %d |%n", &number, &length) == 1 && length > 0) {
      sites.insert(number);
    }
  }
  return sites;
}

bool AllTestsWereAskedFor() {
  const char* const shards = std::getenv("GTEST_TOTAL_SHARDS");
  return ::testing::GTEST_FLAG(filter) == "*" && (shards == nullptr || std::atoi(shards) <= 1);
}

class EverySiteIsReached : public ::testing::Environment {
 public:
  void TearDown() override {
    if (!AllTestsWereAskedFor()) {
      std::puts("The list of log sites was not compared: this run is a part of the tests only.");
      return;
    }
    const std::string path = VESK_SOURCE_DIR "/docs/trace.md";
    const std::set<int> listed = ListedSites(path);
    const std::set<int>& reached = RecordingLogger::SitesReached();
    EXPECT_FALSE(listed.empty()) << "no sites found in " << path;
    std::string missing;
    std::string unknown;
    for (const int site : listed) {
      if (reached.count(site) == 0 && kEndTheProcess.count(site) == 0) {
        missing += ' ' + std::to_string(site);
      }
    }
    for (const int site : reached) {
      if (listed.count(site) == 0) unknown += ' ' + std::to_string(site);
    }
    for (const int site : kEndTheProcess) {
      if (listed.count(site) == 0) unknown += ' ' + std::to_string(site);
    }
    EXPECT_EQ(missing, "") << "no test has reached these log sites of " << path;
    EXPECT_EQ(unknown, "") << "these log sites are not in " << path;
  }
};

[[maybe_unused]] const ::testing::Environment* const registered =
    ::testing::AddGlobalTestEnvironment(new EverySiteIsReached);

// --- Rules of every line -------------------------------------------------------------------------

// Shows each call to `probe` before anything else.
class ProbeLogger : public KeepingLogger {
 public:
  using Probe = std::function<void(const char* operation, const LogSite& site, const char* format)>;
  explicit ProbeLogger(Probe probe) : probe_(std::move(probe)) {}

 private:
  void Keep(const char* operation, const LogSite& site, const char* format,
            va_list /*arguments*/) override __attribute__((format(printf, 4, 0))) {
    probe_(operation, site, format);
  }

  Probe probe_;
};

class TraceTest : public ModuleTest {
 protected:
  ~TraceTest() override { Clean(stream); }

  unsigned int Read(unsigned long off, unsigned int len) {
    return stream.Read(&lock, memory, off, len, &eof, 65536, 0, 4096, 8, 0, nullptr);
  }

  unsigned int Write(unsigned long off, unsigned int len) {
    return stream.Write(&lock, memory, off, len, 65536, 0, 4096, 8, false, nullptr);
  }

  // Lines of all four operations, a failed check and a failed job among them.
  void LogAllSorts() {
    EXPECT_EQ(Thrown([&] { Read(0, 100); }), 1000);
    dispatcher.FinishRead(stream.buffers.front()->job, 4096);
    EXPECT_EQ(Read(0, 100), 100u);
    EXPECT_EQ(Write(4096, 100), 100u);
    EXPECT_EQ(Write(8192, 100), 100u);  // ships the block before
    stream.GetMaxLen();
    stream.Dump();
    stream.Flush(&lock, false, false, false, false);
    dispatcher.FinishWrite(stream.buffers.back()->job, 5);
    EXPECT_EQ(Thrown([&] { Write(8192, 1); }), 5);
    EXPECT_EQ(Thrown([&] { Read(20000, 0); }), 1001);
    EXPECT_EQ(Thrown([&] { Write(65536, 1); }), 1001);
  }

  VeskStream stream{"f", bundler, 0, 0, 0};
  bool eof = false;
};

TEST_F(TraceTest, LoggerThatIsExchangedInMidCallGetsTheNextLine) {
  RecordingLogger second;
  dispatcher.on_submit = [&](VeskJob*) { env.logger = &second; };
  EXPECT_EQ(Thrown([&] { Read(0, 100); }), 1000);
  const std::string job = P(stream.buffers.front()->job);
  ExpectLog({"Debug 493 f New buffer O:0 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:0 L:4096 DL:0\n",
             "Debug 254 f Creating Read job " + job + " O:0 L:4096 ST:8\n"});
  EXPECT_EQ(second.lines, Lines({"Trace 370 f Wait for job " + job + " O:0\n"}));
}

TEST_F(TraceTest, EnvironmentThatIsExchangedInMidCallGetsTheNextLine) {
  RecordingLogger second;
  vesk::VeskEnv other{};
  other.logger = &second;
  other.settings = &settings;
  dispatcher.on_submit = [&](VeskJob*) { vesk::gEnv = &other; };
  EXPECT_EQ(Thrown([&] { Read(0, 100); }), 1000);
  EXPECT_EQ(logger.lines.size(), 3u);
  EXPECT_EQ(second.lines.size(), 1u);
  vesk::gEnv = &env;
}

TEST_F(TraceTest, ThreeLinesOfAFailedCheckAskForTheLoggerThreeTimes) {
  RecordingLogger third;
  ProbeLogger second([&](const char* operation, const LogSite& site, const char* format) {
    EXPECT_STREQ(operation, "Error");
    EXPECT_EQ(site.second, 734);
    EXPECT_STREQ(format, "Length is 0\n");
    env.logger = &third;
  });
  ProbeLogger first([&](const char* operation, const LogSite& site, const char* format) {
    EXPECT_STREQ(operation, "Error");
    EXPECT_EQ(site.second, 734);
    EXPECT_STREQ(format, "ASSERT failure::\n");
    env.logger = &second;
  });
  env.logger = &first;
  EXPECT_EQ(Thrown([&] { Read(0, 0); }), 1001);
  EXPECT_EQ(third.lines, Lines({"Error 734 \n\n"}));
  ExpectLog({});
}

TEST_F(TraceTest, SettingsThatAreExchangedCountFromTheNextRequestOn) {
  Add(stream, 0, 4096, 4096, VALID);
  clock_now += 100;
  EXPECT_EQ(Read(0, 10), 10u);
  vesk::VeskSettings strict{};
  strict.refresh_interval = 99;
  env.settings = &strict;
  EXPECT_EQ(Thrown([&] { Read(0, 10); }), 1000);
  EXPECT_TRUE(stream.buffers.empty());
}

TEST_F(TraceTest, EveryLineCarriesTheNameOfTheModuleAndANumber) {
  std::set<std::string> operations;
  std::set<int> sites;
  ProbeLogger probe([&](const char* operation, const LogSite& site, const char* format) {
    EXPECT_EQ(site.first, "VeskStream") << format;
    EXPECT_GT(site.second, 0) << format;
    operations.insert(operation);
    sites.insert(site.second);
  });
  env.logger = &probe;
  LogAllSorts();
  env.logger = &logger;
  EXPECT_EQ(operations, std::set<std::string>({"Debug", "Dump", "Error", "Trace"}));  // never Info
  EXPECT_GE(sites.size(), 20u);
}

TEST_F(TraceTest, FailedChecksWriteThreeLinesWithOneNumberEach) {
  struct Line {
    std::string operation;
    int site;
    std::string format;
  };
  std::vector<Line> lines;
  ProbeLogger probe([&](const char* operation, const LogSite& site, const char* format) {
    lines.push_back({operation, site.second, format});
  });
  VeskBuffer* const clean = Add(stream, 0, 4096, 100, VALID);
  VeskBuffer* const reading = Add(stream, 4096, 4096, 0, IOR);
  VeskBuffer* const dirty = Add(stream, 8192, 4096, 100, DIRTY);
  env.logger = &probe;
  const struct {
    int site;
    const char* format;
    std::function<void()> call;
  } checks[] = {
      {140, "Length is 0\n", [&] { clean->Write(memory, 0, 0); }},
      {143, "Offset too small O:%lld B_O:%lld\n", [&] { reading->Write(memory, 4095, 1); }},
      {184, "Offset too big O:%lld B_O:%lld B_DL:%d\n", [&] { clean->Read(memory, 100, 1); }},
      {151, "Buffer is not valid %d\n", [&] { reading->Write(memory, 4096, 1); }},
      {210, "buffer dirty %d\n", [&] { clean->ReduceLength(stream.name, -1); }},
      {226, "Buffer is dirty\n",
       [&] { dirty->DoReadIO(&lock, bundler, stream.name, false, nullptr, &stream); }},
      {328, "No job exists\n",
       [&] { reading->WaitForBuffer(&lock, bundler, stream.name, true, "test"); }},
      {491, "Allocation too big %ld",
       [&] { stream.AllocateBuffer(stream.buffers.end(), 0, 0, ~0UL, 104857600); }},
      {734, "Length is 0\n", [&] { Read(100000, 0); }},
      {962, "Offset out of range O:%lld S_O:%lld S_L:%d", [&] { stream.Split(&lock, nullptr, 0); }},
  };
  for (const auto& check : checks) {
    SCOPED_TRACE(check.site);
    lines.clear();
    EXPECT_EQ(Thrown(check.call), 1001);
    ASSERT_GE(lines.size(), 3u);
    const std::vector<Line> last(lines.end() - 3, lines.end());  // lines of the way there before
    EXPECT_EQ(last[0].format, "ASSERT failure::\n");
    EXPECT_EQ(last[1].format, check.format);
    EXPECT_EQ(last[2].format, "\n\n");
    for (const Line& line : last) {
      EXPECT_EQ(line.operation, "Error");
      EXPECT_EQ(line.site, check.site);
    }
    for (std::size_t i = 0; i + 3 < lines.size(); ++i) EXPECT_NE(lines[i].operation, "Error");
  }
  env.logger = &logger;
}

TEST_F(TraceTest, FailedJobIsOneErrorLineAndNotAFailedCheck) {
  AddBusy(stream, 0, 4096, 0, IOR);
  dispatcher.FinishRead(stream.buffers.front()->job, 0, 1001);  // even with the code of one
  EXPECT_EQ(Thrown([&] { Read(0, 10); }), 1001);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:0 L:10 S:0 ST:8\n",
             "Error 353 f Block error RC:1001\n"});
}

// A logger may lock whatever it likes: no mutex of the module is held while it is called, failed
// allocations under a mutex included.
TEST_F(TraceTest, NoMutexIsHeldWhileTheLoggerIsCalled) {
  int lines = 0;
  VeskStream* watched = &stream;
  const auto expect_free = [](pthread_mutex_t* mutex, const LogSite& site) {
    const int result = pthread_mutex_trylock(mutex);
    if (result == 0) pthread_mutex_unlock(mutex);
    if (result != 0) ADD_FAILURE() << "a mutex is held at site " << site.second;
  };
  ProbeLogger probe([&](const char*, const LogSite& site, const char*) {
    ++lines;
    expect_free(&watched->stream_mutex, site);
    expect_free(&pool->tp_mutex, site);
  });
  env.logger = &probe;
  LogAllSorts();
  EXPECT_GT(lines, 20);

  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    VeskStream other("f", bundler, 0, 8192, 0);
    watched = &other;
    Add(other, 0, 4096, 4096, DIRTY);
    Add(other, 4096, 4096, 4096, VALID);
    pool->pending_streams.clear();
    dispatcher.Release();
    dispatcher.submitted.reserve(8);  // the dispatcher is not to fail
    lines = 0;
    {
      const FailingAllocation failing(nth);
      try {
        other.ReadAhead(&lock, 0, 65536, 4096, 8, 2, nullptr);
        pool->pending_streams.clear();
        other.Flush(&lock, false, false, false, false);
      } catch (const vesk::VeskException& thrown) {
        EXPECT_EQ(thrown.code, 1001) << nth;
      }
      fired = failing.Fired();
    }
    EXPECT_GT(lines, 0);
    ASSERT_LT(nth, 100);
    Clean(other);
    watched = &stream;
  }
  env.logger = &logger;
}

TEST_F(TraceTest, LineIsWrittenWhetherOrNotAnybodyKeepsIt) {
  int lines = 0;
  ProbeLogger probe([&](const char*, const LogSite&, const char*) { ++lines; });
  env.logger = &probe;
  Add(stream, 0, 4096, 4096, IOW);
  EXPECT_EQ(Read(0, 10), 10u);
  EXPECT_EQ(lines, 3);
  env.logger = &logger;
  EXPECT_EQ(Read(0, 10), 10u);
  EXPECT_EQ(logger.lines.size(), 3u);
}

}  // namespace
}  // namespace vesk_test
