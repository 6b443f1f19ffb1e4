#include "programs/replay/replay.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "programs/cli/commands.h"
#include "vesk/VeskStream.h"

namespace vesk_cli {

namespace {

using vesk_replay::Block;
using vesk_replay::File;
using vesk_replay::Note;
using vesk_replay::Replay;
using vesk_replay::Totals;

// The lines of a file, whatever is in it. Of a line that is longer than any of a log only the
// beginning is kept.
class LineReader {
 public:
  explicit LineReader(std::FILE* file) : file_(file) {}

  // False: there is none left, or reading failed.
  bool Next(std::string* line) {
    line->clear();
    for (int c = std::getc(file_); c != EOF; c = std::getc(file_)) {
      if (c == '\n') return true;
      if (line->size() < kLongest) *line += static_cast<char>(c);
    }
    return !line->empty();
  }

  bool Failed() const { return std::ferror(file_) != 0; }

 private:
  static constexpr std::size_t kLongest = 64u << 10;

  std::FILE* const file_;
};

// The log is somebody else's text: nothing in it moves a terminal's cursor.
std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
  return text;
}

const char* Mark(Note::Kind kind) {
  switch (kind) {
    case Note::Kind::kChange: return "";
    case Note::Kind::kUntold: return "untold: ";
    case Note::Kind::kDoubt: return "not known from here on: ";
    case Note::Kind::kContradiction: return "CONTRADICTION: ";
    case Note::Kind::kFailure: return "FAILURE: ";
  }
  return "";
}

template <typename T>
std::string Known(const std::optional<T>& value) {
  return value ? std::to_string(*value) : "?";
}

std::string ValidText(const Block& block) {
  const bool dirty = block.state && (*block.state & vesk::VeskBuffer::DIRTY) != 0;
  return Known(block.valid) + (dirty && block.valid && block.valid != block.length ? "+" : "");
}

std::string JobText(const Block& block) {
  if (!block.job) return "?";
  if (*block.job == 0) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "0x%" PRIx64, *block.job);
  return text;
}

void PrintFile(const std::string& name, const File& file) {
  std::printf("\n%s: blocks told of: %zu\n", Printable(name).c_str(), file.blocks.size());
  std::printf("  %14s %10s %10s  %-12s %-14s %8s %8s\n", "offset", "length", "valid", "state",
              "job", "made at", "told at");
  for (const auto& [off, block] : file.blocks) {
    const std::string state = block.state ? vesk_replay::StateText(*block.state) : "?";
    const std::string made = block.made == 0 ? "-" : std::to_string(block.made);
    std::printf("  %14" PRIu64 " %10s %10s  %-12s %-14s %8s %8zu\n", off,
                Known(block.length).c_str(), ValidText(block).c_str(), state.c_str(),
                JobText(block).c_str(), made.c_str(), block.told);
  }
}

// One command line's view of a log.
class Walkthrough {
 public:
  explicit Walkthrough(const Options::Replay& options)
      : options_(options), replay_(options.whole) {}

  // Takes the next line; false: all that was asked for is there.
  bool Take(const std::string& line) {
    const std::vector<Note>& notes = replay_.Feed(line);
    number_ = replay_.totals().lines;
    for (const Note& note : notes) {
      if (note.kind == Note::Kind::kContradiction) Keep(note, &contradiction_);
      if (note.kind == Note::Kind::kFailure) Keep(note, &failure_);
    }
    if (options_.steps) PrintStep(line, notes);
    if (number_ != options_.at) return true;
    PrintState(line);
    return false;
  }

  // What is left to say.
  //   Ends in  the exit status
  int Finish() const {
    if (options_.at > number_) {
      std::fprintf(stderr, "vesk: the trace has %zu lines, and no line %zu\n", number_,
                   options_.at);
      return kExitUsage;
    }
    if (options_.at == 0 && !options_.steps) PrintSummary();
    const Totals& totals = replay_.totals();
    if (totals.cache_lines == 0) {
      std::fputs("vesk: no line of these is the cache's: was it logged with --log-levels all?\n",
                 stderr);
      return kExitUsage;
    }
    if (!has_shown_ && (options_.at != 0 || options_.steps)) {
      std::fputs("vesk: there is nothing to show of these lines and this file\n", stderr);
      return kExitUsage;
    }
    return totals.contradictions > 0 || totals.failures > 0 ? kExitFailed : kExitOk;
  }

 private:
  void Keep(const Note& note, std::string* first) const {
    if (!first->empty()) return;
    *first = "line " + std::to_string(number_) + ": " + Printable(note.text);
  }

  bool Wanted(const std::string& name) const {
    return options_.file.empty() || name == options_.file;
  }

  void PrintStep(const std::string& line, const std::vector<Note>& notes) {
    if (number_ < options_.from || (options_.to != 0 && number_ > options_.to)) return;
    if (!replay_.is_cache_line() || !Wanted(replay_.file_name())) return;
    has_shown_ = true;
    std::printf("%zu %s\n", number_, Printable(line).c_str());
    for (const Note& note : notes) {
      std::printf("        %s%s\n", Mark(note.kind), Printable(note.text).c_str());
    }
  }

  void PrintState(const std::string& line) {
    std::printf("behind line %zu: %s\n", number_, Printable(line).c_str());
    for (const auto& [name, file] : replay_.files()) {
      if (!Wanted(name)) continue;
      has_shown_ = true;
      PrintFile(name, file);
    }
    std::printf("\nlast lines of the threads\n");
    for (const auto& [thread, activity] : replay_.threads()) {
      if (!Wanted(activity.file)) continue;
      has_shown_ = true;
      std::printf("  %-14s line %zu: %s\n",
                  thread.empty() ? "(not told)" : Printable(thread).c_str(), activity.line,
                  Printable(activity.text).c_str());
    }
  }

  void PrintSummary() const {
    const Totals& t = replay_.totals();
    std::printf("lines           %zu, of the cache %zu; passed over: repeated %zu, damaged %zu\n",
                t.lines, t.cache_lines, t.repeated, t.damaged);
    std::printf("files           %zu; threads %s\n", replay_.files().size(), ThreadsText().c_str());
    std::printf(
        "requests        copies out of blocks %zu, into blocks %zu; holes %zu, ends of file "
        "%zu, waits %zu\n",
        t.copies_out, t.copies_in, t.holes, t.ends, t.waits);
    std::printf("blocks          made %zu, discarded %zu, dropped %zu, moved %zu\n", t.new_blocks,
                t.discarded, t.dropped, t.moved);
    std::printf("jobs            reads %zu, writes %zu; ended well %zu, failed %zu\n", t.read_jobs,
                t.write_jobs, t.jobs_done, t.jobs_failed);
    PrintFirst("failed checks ", t.failures, failure_);
    PrintFirst("contradictions", t.contradictions, contradiction_);
    std::printf("without a line  %zu changes that lines tell of afterwards\n", t.untold);
    PrintDoubts();
  }

  static void PrintFirst(const char* what, std::size_t count, const std::string& first) {
    if (count == 0) {
      std::printf("%s  none\n", what);
    } else {
      std::printf("%s  %zu, the first in %s\n", what, count, first.c_str());
    }
  }

  std::string ThreadsText() const {
    const auto& threads = replay_.threads();
    if (threads.size() == 1 && threads.begin()->first.empty()) return "not told";
    return std::to_string(threads.size());
  }

  void PrintDoubts() const {
    const Totals& t = replay_.totals();
    for (const auto& [reason, doubt] : replay_.doubts()) {
      std::printf("not known       %s: %zu times, first in line %zu\n", reason.c_str(), doubt.count,
                  doubt.first_line);
    }
    if (t.assumed > 0) {
      std::printf("assumed         %zu times that neighbouring lines are of one thread\n",
                  t.assumed);
    }
    if (t.cache_lines > 0 && t.trace_lines == 0) {
      std::printf("not known       jobs: there is no line of level trace (--log-levels all)\n");
    }
  }

  const Options::Replay& options_;
  Replay replay_;
  std::size_t number_ = 0;
  bool has_shown_ = false;     // anything of the lines and the file that were asked for
  std::string contradiction_;  // the first of each
  std::string failure_;
};

int Unreadable(const std::string& name, int error) {
  std::fprintf(stderr, "vesk: cannot read '%s': %s\n", Printable(name).c_str(),
               std::generic_category().message(error).c_str());
  return kExitUsage;
}

}  // namespace

int ReplayTrace(const Options& options) {
  const std::string& name = options.source;
  const auto close = [](std::FILE* file) { std::fclose(file); };
  std::unique_ptr<std::FILE, decltype(close)> opened(nullptr, close);
  if (name != "-") {
    opened.reset(std::fopen(name.c_str(), "rbe"));
    if (opened == nullptr) return Unreadable(name, errno);
  }
  LineReader reader(opened == nullptr ? stdin : opened.get());
  Walkthrough walkthrough(options.replay);
  std::string line;
  while (reader.Next(&line) && walkthrough.Take(line)) {
  }
  if (reader.Failed()) return Unreadable(name, errno);
  const int status = walkthrough.Finish();
  return EndOutput() ? status : kExitUsage;
}

}  // namespace vesk_cli
