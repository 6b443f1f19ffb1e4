// The fixture of the module's tests: environment, dispatcher, clock, and verbs.

#ifndef TESTS_SUPPORT_MODULE_TEST_H_
#define TESTS_SUPPORT_MODULE_TEST_H_

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/allocation.h"
#include "tests/support/clock.h"
#include "tests/support/dispatcher.h"
#include "tests/support/recording_logger.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskException.h"
#include "vesk/VeskStream.h"
#include "vesk/VeskThreadPool.h"

namespace vesk_test {

constexpr unsigned int INV = vesk::VeskBuffer::INV, DIRTY = vesk::VeskBuffer::DIRTY,
                       VALID = vesk::VeskBuffer::VALID, IOR = vesk::VeskBuffer::IOR,
                       IOW = vesk::VeskBuffer::IOW, END_OF_FILE = vesk::VeskBuffer::END_OF_FILE;
constexpr unsigned int ALL_STATES = 64;  // combinations of the bits above
constexpr unsigned int kNoState = ~63u;  // every bit that means nothing

// As printf makes it.
std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The clock stands at kStart; refresh_interval is 0; a thread pool is there; the file is "f".
class ModuleTest : public ::testing::Test {
 protected:
  static constexpr long kStart = 1000000;
  using Lines = std::vector<std::string>;

  ModuleTest();
  ~ModuleTest() override;

  // A block outside any stream, its fields set as given; skip, rc and dirty_length are 0, ltime is
  // kStart. Bytes of the data area: FileByte of their offsets.
  static std::unique_ptr<vesk::VeskBuffer> Block(unsigned long off, unsigned int blen,
                                                 unsigned int dlen, unsigned int state);

  // The same at the end of `stream`'s list; a DIRTY block is dirty in all its data. Range and
  // position of the stream stay.
  static vesk::VeskBuffer* Add(vesk::VeskStream& stream, unsigned long off, unsigned int blen,
                               unsigned int dlen, unsigned int state);

  // The same, with a job in flight (state IOR or IOW is yours to give): submitted, not counted in
  // pending_io.
  vesk::VeskBuffer* AddBusy(vesk::VeskStream& stream, unsigned long off, unsigned int blen,
                            unsigned int dlen, unsigned int state);

  // Makes every block clean and idle, whatever it is, so that the stream may be destroyed. Drops a
  // block's reference to its job.
  static void Clean(vesk::VeskStream& stream);
  static void Clean(vesk::VeskBuffer& block);

  // What byte `offset` of the file holds in these tests.
  static unsigned char FileByte(unsigned long offset);

  // The code of the VeskException that `call` throws; -1 with a failure when it throws none.
  static int Thrown(const std::function<void()>& call);

  // Compares all lines since the last call, whole, and forgets them.
  void ExpectLog(const Lines& expected);

  // The three lines of a failed check.
  static Lines Assertion(int site, const std::string& message);

  // `call` fails this check (code 1001) after exactly the lines `before`.
  void ExpectAssertion(int site, const std::string& message, const std::function<void()>& call,
                       const Lines& before = {});

  // As %p prints it.
  static std::string P(const void* pointer);

  // Joins lists of lines.
  static Lines Join(const std::vector<Lines>& parts);

  RecordingLogger logger;
  vesk::VeskSettings settings{};
  std::shared_ptr<vesk::VeskThreadPool> pool = NewThreadPool();
  vesk::VeskEnv env{};
  ScriptedDispatcher dispatcher;
  vesk::VeskBundler* const bundler = dispatcher.bundler();
  vesk::VeskLock lock;
  std::string name = "f";
  unsigned char memory[65536] = {};  // a caller's buffer
};

// One stream, whose range and position the test sets and looks at; its blocks may be in any state
// when the test ends, and null.
class OneStreamTest : public ModuleTest {
 protected:
  explicit OneStreamTest(unsigned long off = 0, unsigned long len = 0)
      : stream(name, bundler, off, len, 0) {}
  ~OneStreamTest() override;

  void Cover(unsigned long off, long len, unsigned long pos);
  void ExpectRange(unsigned long off, long len, unsigned long pos) const;

  vesk::VeskStream stream;
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_MODULE_TEST_H_
