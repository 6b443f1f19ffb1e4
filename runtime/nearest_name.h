// The name that somebody may have meant.

#ifndef RUNTIME_NEAREST_NAME_H_
#define RUNTIME_NEAREST_NAME_H_

#include <string>
#include <vector>

namespace vesk {

// Of `known`, the name that is at most two letters changed, added or left out away from `text`; the
// nearest, and of several the first. Empty: there is none.
std::string NearestName(const std::string& text, const std::vector<std::string>& known);

}  // namespace vesk

#endif  // RUNTIME_NEAREST_NAME_H_
