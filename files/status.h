// The outcome of a request to a file.

#ifndef FILES_STATUS_H_
#define FILES_STATUS_H_

#include <string>
#include <system_error>
#include <utility>

namespace vesk {

// Success, or a positive errno value with what it was about. A success holds no memory.
class [[nodiscard]] Status {
 public:
  Status() = default;
  Status(int error, std::string context, bool write_back = false)
      : error_(error), write_back_(write_back), context_(std::move(context)) {}

  bool ok() const { return error_ == 0; }
  int error() const { return error_; }

  // It is a write-back that failed: bytes that an earlier request has written, which are kept.
  bool write_back() const { return write_back_; }

  // What was being done, to which file: "write-back of 'a.bin'". Empty: success.
  const std::string& context() const { return context_; }

  // "<context>: <the system's words for the error>".
  std::string Message() const {
    if (ok()) return "Success";
    return context_ + ": " + std::generic_category().message(error_);
  }

 private:
  int error_ = 0;
  bool write_back_ = false;
  std::string context_;
};

}  // namespace vesk

#endif  // FILES_STATUS_H_
