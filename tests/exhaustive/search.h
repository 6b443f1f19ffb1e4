// Looks for cases that fail, makes them small, and tells of them.
//
// Cases run in child processes, so that one that ends the process (a block destroyed while it is
// dirty, a sanitizer's finding) is found, shrunk and told of like any other.

#ifndef TESTS_EXHAUSTIVE_SEARCH_H_
#define TESTS_EXHAUSTIVE_SEARCH_H_

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "tests/exhaustive/steps.h"

namespace vesk_test {

// What is wrong with a case; empty when nothing is.
using Trial = std::function<std::string(const Case&)>;

// A number from the environment, or `otherwise`.
unsigned long FromEnvironment(const char* name, unsigned long otherwise);

// True when the trial of a case fails, or does not end well.
bool FailsInChild(const Case& c, const Trial& trial);

// The same failure with fewer steps: none can be left out any more without the case passing.
Case Shrunk(Case c, const std::function<bool(const Case&)>& fails);

// A case that is about to be tried.
struct Tried {
  unsigned long number = 0;  // the searcher's own: a seed
  Case c;
};

// Runs `search` in a child. It calls `trying` before each case, and returns true when all were
// good. Otherwise: the last one.
std::optional<Tried> FirstFailing(
    const std::function<bool(const std::function<void(const Tried&)>& trying)>& search);

// What failed, the shrunk case as text and in words, and the command that repeats it.
std::string Report(const Case& c, const Trial& trial, const std::string& command);

}  // namespace vesk_test

#endif  // TESTS_EXHAUSTIVE_SEARCH_H_
