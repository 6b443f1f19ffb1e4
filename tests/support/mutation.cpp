// What a test program needs to be run as one mutant after the other, and to tell which mutants each
// of its tests reaches.

#include "tests/support/mutation.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace vesk_test {
namespace {

std::size_t size = 0;  // of what MutantSwitch::reached points to

// In a file, so that the processes that death tests start tell of what they reach as well.
unsigned char* MapReached() {
  const char* const path = std::getenv("VESK_MUTANTS_REACHED");
  if (path == nullptr) return nullptr;
  const int file = open(path, O_RDWR | O_CLOEXEC);
  struct stat status {};
  if (file < 0 || fstat(file, &status) != 0) {
    std::perror(path);
    std::_Exit(2);
  }
  size = static_cast<std::size_t>(status.st_size);
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (memory == MAP_FAILED) {
    std::perror("mmap");
    std::_Exit(2);
  }
  return static_cast<unsigned char*>(memory);
}

// Writes one line for each test: its name, whether it passed, its milliseconds, and the mutants
// that it reaches. Those that are reached outside tests are in the lines "begin" and "end".
class Report : public ::testing::EmptyTestEventListener {
 public:
  explicit Report(std::FILE* file) : file_(file) {}
  ~Report() override { std::fclose(file_); }
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  void OnTestProgramStart(const ::testing::UnitTest& /*all*/) override { Write("begin", true, 0); }
  void OnTestProgramEnd(const ::testing::UnitTest& /*all*/) override { Write("end", true, 0); }

  void OnTestEnd(const ::testing::TestInfo& test) override {
    const std::string name = std::string(test.test_suite_name()) + '.' + test.name();
    Write(name, !test.result()->Failed(), static_cast<long>(test.result()->elapsed_time()));
  }

 private:
  void Write(const std::string& name, bool passed, long milliseconds) {
    std::fprintf(file_, "%s\t%d\t%ld\t", name.c_str(), passed ? 1 : 0, milliseconds);
    unsigned char* const reached = TheMutantSwitch().reached;
    for (std::size_t i = 0; i < size; ++i) {
      if (__atomic_exchange_n(reached + i, 0, __ATOMIC_RELAXED) != 0) {
        std::fprintf(file_, "%zu ", i);
      }
    }
    std::fputc('\n', file_);
    std::fflush(file_);
  }

  std::FILE* const file_;
};

[[maybe_unused]] const bool reports = [] {
  const char* const path = std::getenv("VESK_MUTANTS_REPORT");
  if (path == nullptr) return false;
  std::FILE* const file = std::fopen(path, "we");
  if (file == nullptr) {
    std::perror(path);
    std::_Exit(2);
  }
  unsetenv("VESK_MUTANTS_REPORT");  // not for the processes that tests start
  ::testing::UnitTest::GetInstance()->listeners().Append(new Report(file));
  return true;
}();

}  // namespace

const MutantSwitch& TheMutantSwitch() {
  static const MutantSwitch chosen = [] {
    const char* const mutant = std::getenv("VESK_MUTANT");
    return MutantSwitch{mutant == nullptr ? 0 : std::atoi(mutant), MapReached()};
  }();
  return chosen;
}

}  // namespace vesk_test
