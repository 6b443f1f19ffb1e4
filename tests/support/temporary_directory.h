// A directory of a test's own, removed with all that is in it.

#ifndef TESTS_SUPPORT_TEMPORARY_DIRECTORY_H_
#define TESTS_SUPPORT_TEMPORARY_DIRECTORY_H_

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace vesk_test {

class TemporaryDirectory {
 public:
  TemporaryDirectory() : path_(std::filesystem::temp_directory_path() / "vesk-test-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no directory: " + path_);
  }
  ~TemporaryDirectory() {
    std::error_code ignored;  // what is left behind is no reason to end the tests
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string operator/(const std::string& name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_TEMPORARY_DIRECTORY_H_
