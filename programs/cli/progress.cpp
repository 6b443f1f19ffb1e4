#include "programs/cli/progress.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>

namespace vesk_cli {

namespace {

using Seconds = std::chrono::duration<double>;

// Right-aligned, so that the line stands still while its numbers change.
std::string Padded(const std::string& text, std::size_t width) {
  return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

constexpr std::size_t kWidestAmount = 10;  // "1023.9 KiB"

// What terminals take for: blanks from the cursor to the end of the row. So what a user has typed
// there goes as well.
constexpr char kEraseRest[] = "\x1b[K";

// 100 only when nothing is left.
unsigned Percent(std::uint64_t done, std::uint64_t total) {
  if (done >= total) return 100;
  return std::min(
      99u, static_cast<unsigned>(100.0 * static_cast<double>(done) / static_cast<double>(total)));
}

// "0:03", "1:02:03"; "-:--" for a time that nobody would wait for, or that cannot be told.
std::string TimeLeft(std::uint64_t bytes, double rate) {
  constexpr double kLongest = 100.0 * 3600;
  const double left = rate > 0 ? std::ceil(static_cast<double>(bytes) / rate) : kLongest;
  if (left >= kLongest) return "-:--";
  const auto seconds = static_cast<unsigned>(left);
  char text[32];
  if (seconds < 3600) {
    std::snprintf(text, sizeof text, "%u:%02u", seconds / 60, seconds % 60);
  } else {
    std::snprintf(text, sizeof text, "%u:%02u:%02u", seconds / 3600, seconds / 60 % 60,
                  seconds % 60);
  }
  return text;
}

std::string Joined(std::initializer_list<std::string> parts) {
  std::string line;
  for (const std::string& part : parts) line.append(line.empty() ? "" : "  ").append(part);
  return line;
}

std::string FlushText(std::uint64_t unsaved) {
  return unsaved == 0 ? "flushing" : "flushing " + BytesText(unsaved);
}

}  // namespace

std::string BytesText(double bytes) {
  static const char* const kUnits[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  std::size_t unit = 0;
  // Not 1024: what is to be printed as "1024.0" is one of the next unit.
  for (; bytes >= (unit == 0 ? 1023.5 : 1023.95) && unit + 1 < std::size(kUnits); ++unit) {
    bytes /= 1024;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

std::string BytesText(std::uint64_t bytes) { return BytesText(static_cast<double>(bytes)); }

Progress::Progress(std::uint64_t total, Time begin) : total_(total), samples_{{begin, 0}} {}

// Bytes a second.
double Progress::Rate(std::uint64_t data, Time now) {
  while (samples_.size() > 1 && now - samples_[1].time >= kWindow) samples_.pop_front();
  const Sample& from = samples_.front();
  const double seconds = Seconds(now - from.time).count();
  const double rate = seconds > 0 ? static_cast<double>(data - from.data) / seconds : 0;
  samples_.push_back({now, data});
  return rate;
}

std::string Progress::Line(const Moved& moved, Time now, unsigned columns) {
  const std::uint64_t left = total_ - std::min(moved.done, total_);
  const double rate = Rate(moved.data, now);
  const std::string amount = Padded(BytesText(moved.done), kWidestAmount) + " of " +
                             BytesText(std::max(total_, moved.done));
  const std::string percent = Padded(std::to_string(Percent(moved.done, total_)), 3) + " %";
  const std::string speed = Padded(BytesText(rate), kWidestAmount) + "/s";
  const std::string ending = left == 0 ? FlushText(moved.unsaved) : "ETA " + TimeLeft(left, rate);
  for (const std::string& line :
       {Joined({amount, percent, speed, ending}), Joined({percent, speed, ending}),
        Joined({percent, ending}), percent}) {
    if (line.size() < columns) return line;
  }
  return "";
}

std::string Summary(const std::string& verb, const Moved& moved, vesk::Clock::Duration time) {
  const double seconds = Seconds(time).count();
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s", seconds);
  const double rate = static_cast<double>(moved.data) / std::max(seconds, 1e-6);
  const std::uint64_t holes = moved.done - moved.data;
  return verb + " " + BytesText(moved.data) + " in " + text + " (" + BytesText(rate) + "/s)" +
         (holes == 0 ? "" : ", and passed over " + BytesText(holes) + " of holes");
}

void StatusLine::Show(const std::string& text) {
  const vesk::MutexLock guard(mutex_);
  if (text.empty() && !shown_) return;
  // Written over rather than wiped out first, and in one piece: it does not flicker.
  Put("\r" + text + kEraseRest);
  shown_ = !text.empty();
}

void StatusLine::Print(const std::string& line) {
  const vesk::MutexLock guard(mutex_);
  const std::string erasure = shown_ ? std::string("\r") + kEraseRest : "";
  Put(erasure + line + "\n");
  shown_ = false;
}

void StatusLine::Put(const std::string& text) {
  std::fputs(text.c_str(), stream_);
  std::fflush(stream_);
}

unsigned TerminalColumns(int fd) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
  if (const char* const text = std::getenv("COLUMNS")) {
    unsigned columns = 0;
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, columns);
    if (error == std::errc() && stop == end && columns > 0) return columns;
  }
  struct winsize size = {};
  if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

}  // namespace vesk_cli
