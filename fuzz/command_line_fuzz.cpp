// Any command line: it ends in settings that hold, in a text that was asked for, or in one line
// that says what is wrong. An input is the arguments, with a NUL between two of them.

#include <algorithm>
#include <iostream>
#include <sstream>
#include <vector>

#include "fuzz/settings.h"
#include "programs/cli/options.h"

namespace {

using vesk_fuzz::Require;
using vesk_fuzz::RequireSame;

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> arguments = {"vesk"};
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\0', begin), text.size());
    arguments.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return arguments;
}

// What is printed from here to the end of the scope.
class Captured {
 public:
  explicit Captured(std::ostream& stream) : stream_(stream), before_(stream.rdbuf(kept_.rdbuf())) {}
  ~Captured() { stream_.rdbuf(before_); }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;

  std::string text() const { return kept_.str(); }

 private:
  std::ostringstream kept_;
  std::ostream& stream_;
  std::streambuf* const before_;
};

void RequireUsageError(std::string message, std::size_t given) {
  Require(!message.empty() && message.back() == '\n', "a message is a line");
  message.pop_back();
  vesk_fuzz::RequireMessage(message, 1000 + given);  // the name of a file is told whole
  Require(message.compare(0, 6, "vesk: ") == 0, "a message says whose it is");
  Require(message.compare(message.size() - 8, 8, " --help)") == 0, "a message says where help is");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string& defaults = *new std::string(vesk_fuzz::Snapshot(vesk::Settings()));
  std::vector<std::string> arguments = Split(vesk_fuzz::Text(data, size));
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);

  vesk_cli::Options options;
  vesk::Settings settings;
  int status = vesk_cli::kExitOk;
  const Captured out(std::cout);
  const Captured err(std::cerr);
  const bool runs = vesk_cli::ParseOptions(static_cast<int>(arguments.size()), pointers.data(),
                                           &options, &settings, &status);
  if (runs) {
    RequireSame(out.text() + err.text(), "", "a program that goes on has printed nothing");
    vesk_fuzz::RequireValid(settings);
    return 0;
  }
  RequireSame(vesk_fuzz::Snapshot(settings), defaults, "a program that ends has changed nothing");
  if (status == vesk_cli::kExitOk) {
    Require(!out.text().empty() && err.text().empty(), "help is on standard output");
    return 0;
  }
  Require(status == vesk_cli::kExitUsage, "the status of a wrong command line");
  RequireSame(out.text(), "", "a message is on standard error");
  RequireUsageError(err.text(), size);
  return 0;
}
