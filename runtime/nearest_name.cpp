#include "runtime/nearest_name.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

namespace vesk {

namespace {

// Letters to change, add or leave out to make `b` of `a`.
std::size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, replaced}));
    }
  }
  return row.back();
}

}  // namespace

std::string NearestName(const std::string& text, const std::vector<std::string>& known) {
  constexpr std::size_t kSlip = 2;
  constexpr std::size_t kLongest = 64;  // no name is that long; more would only cost time
  if (text.size() > kLongest) return "";
  std::size_t best_distance = kSlip + 1;
  std::string best;
  for (const std::string& name : known) {
    const std::size_t distance = Distance(text, name);
    if (distance >= best_distance || distance >= name.size()) continue;
    best_distance = distance;
    best = name;
  }
  return best;
}

}  // namespace vesk
