// The file-access layer over real files, and over a store that fails.

#include "files/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "runtime/backend_threads.h"
#include "runtime/log_null.h"
#include "runtime/transfer.h"
#include "tests/support/temporary_directory.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskJob.h"

namespace vesk_test {
namespace {

using vesk::CacheShape;
using vesk::File;
using vesk::VeskJob;

// The operating system's files, with failures by kind and offset.
class FailingBackend : public vesk::ThreadsBackend {
 public:
  FailingBackend() : ThreadsBackend({}) {}

  void Run(VeskJob* job) override {
    const vesk::Transfer transfer(job->GetOP());
    int& budget = transfer.is_write ? failing_writes : failing_reads;
    if (budget > 0 && transfer.offset >= from) {
      --budget;
      job->Complete(error);
      return;
    }
    ThreadsBackend::Run(job);
  }
  void Start(VeskJob* job) override {  // by this thread: the test says when
    if (job->Claim()) Run(job);
  }

  int error = EIO;
  int failing_reads = 0;   // the next so many reads ...
  int failing_writes = 0;  // ... and writes
  std::uint64_t from = 0;  // at or beyond this offset
};

class FileTest : public ::testing::Test {
 protected:
  FileTest() {
    settings_.refresh_interval = 60;
    vesk::gEnv = &env_;
  }
  ~FileTest() override { vesk::gEnv = nullptr; }

  static std::string Content(std::size_t length) {
    std::string content(length, '\0');
    for (std::size_t i = 0; i < length; ++i) content[i] = static_cast<char>(i * 7 + i / 253);
    return content;
  }

  void Put(const std::string& content) { std::ofstream(name_, std::ios::binary) << content; }

  std::string Get() const {
    std::ostringstream content;
    content << std::ifstream(name_, std::ios::binary).rdbuf();
    return content.str();
  }

  std::string Read(File& file, std::uint64_t offset, std::size_t length, int expected_error = 0) {
    std::string bytes(length, '?');
    std::size_t moved = 0;
    EXPECT_EQ(file.ReadAt(bytes.data(), length, offset, &moved), expected_error);
    return bytes.substr(0, moved);
  }

  const TemporaryDirectory directory_;
  const std::string name_ = directory_ / "file";
  vesk::NullLogger logger_;
  vesk::VeskSettings settings_;
  vesk::VeskEnv env_{nullptr, &logger_, &settings_};
};

class RealFileTest : public FileTest {
 protected:
  vesk::ThreadsBackend backend_{{}};
  vesk::VeskBundler bundler_{backend_};
};

TEST_F(RealFileTest, IsByteIdenticalAroundEveryBlockBoundary) {
  constexpr unsigned int kBlock = 64;
  for (const CacheShape shape : {CacheShape{kBlock, 1, 0}, CacheShape{kBlock, 2, 1},
                                 CacheShape{kBlock, 8, 4}, CacheShape{1, 4, 2}}) {
    for (const std::size_t size : {0u, 1u, 63u, 64u, 65u, 127u, 128u, 129u, 640u, 641u}) {
      const std::string content = Content(size);
      Put("");
      File out(bundler_, name_, 0, shape);
      for (std::size_t at = 0; at < size; at += 50) {
        EXPECT_EQ(out.WriteAt(content.data() + at, std::min<std::size_t>(50, size - at), at), 0);
      }
      EXPECT_EQ(out.Close(), 0);
      EXPECT_EQ(Get(), content);

      File in(bundler_, name_, size, shape);
      EXPECT_EQ(Read(in, 0, size + 100), content);
      EXPECT_EQ(in.Close(), 0);
      File pieces(bundler_, name_, size, shape);
      std::string read;
      while (read.size() < size) read += Read(pieces, read.size(), 33);
      EXPECT_EQ(read, content);
    }
  }
}

TEST_F(RealFileTest, ReadsAreClippedToTheSize) {
  Put("0123456789");
  File file(bundler_, name_, 10, CacheShape{});
  EXPECT_EQ(Read(file, 8, 100), "89");
  EXPECT_EQ(Read(file, 10, 1), "");
  EXPECT_EQ(Read(file, ~0UL, 1), "");
  EXPECT_EQ(Read(file, 3, 0), "");
}

TEST_F(RealFileTest, AFileThatBecameShorterEndsTheReadThere) {
  Put(Content(100));
  File file(bundler_, name_, 1000, CacheShape{64, 8, 0});
  EXPECT_EQ(Read(file, 0, 1000), Content(100));
}

TEST_F(RealFileTest, AGapThatWasNeverWrittenReadsAsZeros) {
  Put("");
  File file(bundler_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt("end", 3, 300), 0);
  EXPECT_EQ(file.Flush(), 0);
  EXPECT_EQ(Get(), std::string(300, '\0') + "end");
}

TEST_F(RealFileTest, BytesWrittenAreReadBackBeforeTheyReachTheStore) {
  Put(std::string(1000, '.'));
  File file(bundler_, name_, 1000, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt("new", 3, 0), 0);
  EXPECT_EQ(Read(file, 0, 3), "new");
  EXPECT_EQ(Get(), std::string(1000, '.'));
  EXPECT_EQ(file.Flush(), 0);
  EXPECT_EQ(Get(), "new" + std::string(997, '.'));
}

TEST_F(RealFileTest, SequentialReadsAreServedByReadAhead) {
  Put(Content(64 * 100));
  File file(bundler_, name_, 64 * 100, CacheShape{64, 16, 8});
  for (unsigned int i = 0; i < 100; ++i) EXPECT_EQ(Read(file, i * 64, 64).size(), 64u);
  EXPECT_EQ(bundler_.GetStats().waits["Read"].count, 1u) << "only the first block is a miss";
  EXPECT_EQ(file.GetStats().requests, 100u);
  EXPECT_GE(file.GetStats().waited, 1u);
}

TEST_F(RealFileTest, AFileCannotGrowBeyondTheLargestOffset) {
  Put("");
  File file(bundler_, name_, 0, CacheShape{64, 8, 0});
  constexpr std::uint64_t kMax = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(file.WriteAt("ab", 2, kMax - 1), EFBIG);
  EXPECT_EQ(file.WriteAt("ab", 2, kMax + 1), EFBIG);
  EXPECT_EQ(file.WriteAt("ab", 2, ~0UL), EFBIG);
  EXPECT_EQ(file.WriteAt("ab", 2, 0), 0);
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(Get(), "ab");
}

TEST_F(RealFileTest, AClosedFileTakesNoMoreRequests) {
  Put("abc");
  File file(bundler_, name_, 3, CacheShape{});
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(file.Flush(), EBADF);
  EXPECT_EQ(file.WriteAt("x", 1, 0), EBADF);
  Read(file, 0, 1, EBADF);
}

TEST_F(RealFileTest, ManyThreadsReadOneFile) {
  const std::string content = Content(64 * 200);
  Put(content);
  File file(bundler_, name_, content.size(), CacheShape{64, 8, 4});
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 6; ++t) {
    readers.emplace_back([&] {
      std::string bytes(50, '?');
      for (std::size_t at = 0; at + bytes.size() <= content.size(); at += bytes.size()) {
        std::size_t moved = 0;
        const int error = file.ReadAt(bytes.data(), bytes.size(), at, &moved);
        if (error != 0 || bytes != content.substr(at, bytes.size())) ++wrong;
      }
    });
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(file.Close(), 0);
}

class FailingFileTest : public FileTest {
 protected:
  FailingBackend backend_;
  vesk::VeskBundler bundler_{backend_};
};

TEST_F(FailingFileTest, AFailedReadIsReportedAndTheNextOneTriesAgain) {
  Put(Content(200));
  File file(bundler_, name_, 200, CacheShape{64, 8, 0});
  backend_.failing_reads = 1;
  EXPECT_EQ(Read(file, 0, 200, EIO), "");
  EXPECT_EQ(Read(file, 0, 200), Content(200));
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(FailingFileTest, AFailedWriteIsReportedByTheFlushOnce) {
  Put("");
  File file(bundler_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(Content(64).data(), 64, 0), 0);
  backend_.error = ENOSPC;
  backend_.failing_writes = 1;
  EXPECT_EQ(file.Flush(), ENOSPC);
  EXPECT_EQ(file.Flush(), 0);
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(FailingFileTest, AFailedWriteIsReportedByClose) {
  Put("");
  File file(bundler_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(Content(64).data(), 64, 0), 0);
  backend_.failing_writes = 1;
  EXPECT_EQ(file.Close(), EIO);
}

TEST_F(FailingFileTest, EveryFailedBlockIsPassedAndTheOthersAreStored) {
  Put("");
  File file(bundler_, name_, 0, CacheShape{64, 8, 0});
  const std::string content = Content(192);
  for (unsigned int at = 0; at < 192; at += 64) {
    EXPECT_EQ(file.WriteAt(content.data() + at, 64, at), 0);
  }
  backend_.failing_writes = 1;  // the first two blocks were shipped on the way: the last fails
  backend_.from = 128;
  EXPECT_EQ(file.Close(), EIO);
  EXPECT_EQ(Get(), content.substr(0, 128));
}

TEST_F(FailingFileTest, AFailedWriteThatAReaderRanIntoIsReportedToTheWriterAsWell) {
  Put(Content(1000));
  File file(bundler_, name_, 1000, CacheShape{64, 1, 0});
  backend_.failing_writes = 1;
  EXPECT_EQ(file.WriteAt(Content(64).data(), 64, 0), 0);
  int reader_errors = 0;
  for (unsigned int at = 64; at < 1000; at += 64) {
    std::string bytes(64, '?');
    std::size_t moved = 0;
    if (file.ReadAt(bytes.data(), 64, at, &moved) != 0) ++reader_errors;
  }
  EXPECT_EQ(reader_errors, 1);
  EXPECT_EQ(file.Flush(), EIO);
  EXPECT_EQ(file.Flush(), 0);
}

TEST_F(FailingFileTest, ALaterWriteReportsAFailedWriteBack) {
  Put("");
  File file(bundler_, name_, 0, CacheShape{64, 1, 0});
  backend_.failing_writes = 1;
  int errors = 0;
  for (unsigned int at = 0; at < 640; at += 64) {
    if (file.WriteAt(Content(64).data(), 64, at) != 0) ++errors;
  }
  EXPECT_EQ(errors, 1);
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(FailingFileTest, AFailedCheckOfTheCacheBreaksTheFileAndNotTheProcess) {
  Put(Content(64 * 200));
  CacheShape shape{64, 200, 150};  // more blocks ahead than a stream bears
  File file(bundler_, name_, 64 * 200, shape);
  EXPECT_FALSE(file.Broken());
  Read(file, 0, 64, EIO);
  EXPECT_TRUE(file.Broken());
  Read(file, 64, 64, EIO);
  EXPECT_EQ(file.Flush(), EIO);
  EXPECT_EQ(file.Close(), EIO);
}

}  // namespace
}  // namespace vesk_test
