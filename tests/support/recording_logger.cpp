#include "tests/support/recording_logger.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>

namespace vesk_test {

std::set<int>& RecordingLogger::SitesReached() {
  static std::set<int> sites;
  return sites;
}

void RecordingLogger::Keep(const char* operation, const vesk::LogSite& site, const char* format,
                           va_list arguments) {
  EXPECT_EQ(site.first, "VeskStream");
  char text[1024];
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  ASSERT_GE(length, 0);
  ASSERT_LT(static_cast<std::size_t>(length), sizeof text) << format;
  lines.push_back(std::string(operation) + ' ' + std::to_string(site.second) + ' ' + text);
  if (echo) std::fputs((lines.back() + '\n').c_str(), stderr);
  SitesReached().insert(site.second);
}

}  // namespace vesk_test
