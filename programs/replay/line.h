// One line of a log, in any of the forms that a logger writes.

#ifndef PROGRAMS_REPLAY_LINE_H_
#define PROGRAMS_REPLAY_LINE_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vesk_replay {

// What was logged, and where.
struct LogLine {
  std::string file;  // of the site
  int site = 0;
  std::string text;      // without blanks and newlines at its end
  std::string time;      // as written; empty: not told
  std::string thread;    // as written; empty: not told, as in every form but JSON
  bool history = false;  // a line of the past, written again when a check failed
};

// Takes `raw` apart: "<time> [history] <level> <file>:<site> <text>", a JSON object, or whatever
// the system log has put in front of "<file>:<site> <text>".
//   Ends in  return only; false: no line of the cache or of its logger
bool ParseLine(std::string_view raw, LogLine* line);

// What the conversions of a format stand for in a text.
struct Values {
  std::vector<std::string> texts;      // of each %s, in order
  std::vector<std::uint64_t> numbers;  // of each number or pointer, in order; negative ones wrap
};

// Takes `text` apart as `format`, a printf format without widths. Where the first %s could end in
// several places, it is as long as it can be: a name may hold anything.
//   Ends in  return only; false: the text was not made by that format, or is cut
bool Match(std::string_view format, std::string_view text, Values* values);

}  // namespace vesk_replay

#endif  // PROGRAMS_REPLAY_LINE_H_
