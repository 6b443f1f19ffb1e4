// Tests that end the process count as well: a program built for coverage writes its profile before
// std::terminate ends it.

#include <cstdlib>
#include <exception>

extern "C" int __llvm_profile_write_file() __attribute__((weak));  // there in coverage builds only

namespace {

[[maybe_unused]] const std::terminate_handler before =
    __llvm_profile_write_file == nullptr ? nullptr : std::set_terminate([] {
      __llvm_profile_write_file();
      std::abort();
    });

}  // namespace
