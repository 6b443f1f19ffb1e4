// The log of threads that use files of a whole file system at once: nothing in it contradicts what
// was rebuilt, although the lines of several streams of one name are mixed.

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "files/file_system.h"
#include "programs/replay/replay.h"
#include "runtime/runtime.h"
#include "tests/support/temporary_directory.h"

namespace vesk_test {
namespace {

using vesk_replay::Note;
using vesk_replay::Replay;

struct World {
  const char* name;
  vesk::LogFormat format;
  const char* store;
};

class ReplayFilesTest : public testing::TestWithParam<World> {
 protected:
  // Some requests of one thread to a file that others use as well.
  static void Use(vesk::FileSystem& files, const std::string& name, unsigned seed) {
    vesk::OpenOptions options;
    options.write = options.create = true;
    std::unique_ptr<vesk::FileHandle> file;
    if (!files.Open(name, options, &file).ok()) return;
    std::mt19937 random(seed);
    const auto below = [&random](unsigned end) {
      return std::uniform_int_distribution<unsigned>(0, end - 1)(random);
    };
    std::vector<unsigned char> bytes(20000, 'x');
    for (int request = 0; request < 150; ++request) {
      const std::size_t length = 1 + below(below(2) == 0 ? 20000 : 500);
      const std::uint64_t offset = below(300000);
      std::size_t count = 0;
      switch (below(16)) {
        case 0: (void)file->Truncate(below(300000)); break;
        case 1: (void)file->Sync(); break;
        case 2: (void)file->Flush(); break;
        case 3:
        case 4:
        case 5:
        case 6:
        case 7: (void)file->WriteAt(bytes.data(), length, offset, &count); break;
        default: (void)file->ReadAt(bytes.data(), length, offset, &count); break;
      }
    }
    (void)file->Sync();
    (void)file->Close();
  }

  // What several threads do with two files.
  void WriteLog(const TemporaryDirectory& directory) {
    vesk::Settings settings;
    settings.store = GetParam().store;
    settings.block_size = 4096;
    settings.memory = 200000;
    settings.dirty_soft = 30000;
    settings.dirty_hard = 60000;
    settings.retry_first_delay_ms = 1;
    settings.request_timeout_ms = 5000;
    settings.log_levels = vesk::kLogEverything;
    settings.log_stderr = false;
    settings.log_file = directory / "log";
    settings.log_file_size = 0;
    settings.log_format = GetParam().format;
    vesk::VeskRuntime runtime(settings);
    vesk::FileSystem files(runtime.services(), runtime.store(), vesk::OptionsFrom(settings));
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 4; ++seed) {
      threads.emplace_back([&, seed] {
        const vesk::RequestScope scope(runtime.NewLimits());
        Use(files, directory / "file" + std::to_string(seed % 2), seed);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
};

TEST_P(ReplayFilesTest, FindsNoContradictionInTheLogOfManyThreads) {
  const TemporaryDirectory directory;
  WriteLog(directory);
  Replay replay(true);
  std::ifstream log(directory / "log");
  for (std::string line; std::getline(log, line);) {
    for (const Note& note : replay.Feed(line)) {
      const bool wrong =
          note.kind == Note::Kind::kContradiction || note.kind == Note::Kind::kFailure;
      ASSERT_FALSE(wrong) << "line " << replay.totals().lines << ": " << line << '\n' << note.text;
    }
  }
  EXPECT_GT(replay.totals().cache_lines, 5000u);
  EXPECT_GT(replay.totals().write_jobs, 100u);
  EXPECT_GT(replay.totals().read_jobs, 100u);
  EXPECT_EQ(replay.totals().damaged, 0u);
  EXPECT_EQ(replay.files().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Worlds, ReplayFilesTest,
    testing::Values(World{"Text", vesk::LogFormat::kText, "posix"},
                    World{"Json", vesk::LogFormat::kJson, "posix"},
                    World{"FailingText", vesk::LogFormat::kText,
                          "posix,latency=100us:jitter=200us,fault=read+write:EIO:every=9"},
                    World{"FailingJson", vesk::LogFormat::kJson,
                          "posix,latency=100us:jitter=200us,fault=read+write:EIO:every=9"},
                    World{"RetriedJson", vesk::LogFormat::kJson,
                          "posix,fault=read+write:EIO:every=7,retry"}),
    [](const auto& world) { return std::string(world.param.name); });

}  // namespace
}  // namespace vesk_test
