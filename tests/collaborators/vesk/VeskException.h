// Minimal set of the cache's collaborators: no more than the module may use. See docs/headers.md.
#pragma once

namespace vesk {

enum : int { ERR_WAIT = 1000, ERR_ASSERT = 1001 };

struct VeskException {
  VeskException(int c) : code(c) {}  // NOLINT(google-explicit-constructor): the loosest form
  int code;
};

}  // namespace vesk
