// Any text in the log, as a file's name can bring it there: it is one line as text and one strict
// JSON object, and both say what the text was.

#include <iconv.h>

#include <algorithm>

#include "fuzz/memory_file.h"
#include "runtime/logger.h"

namespace {

using vesk_fuzz::MemoryFile;
using vesk_fuzz::Require;
using vesk_fuzz::RequireSame;

constexpr std::size_t kTime = 28;  // bytes of a line's time and the blank behind it

// Whether these bytes are characters, as the system sees it.
bool IsUtf8(std::string bytes) {
  static const iconv_t conversion = iconv_open("UTF-32LE", "UTF-8");
  std::string out(4 * bytes.size(), '\0');
  char* from = bytes.data();
  char* to = out.data();
  std::size_t from_left = bytes.size();
  std::size_t to_left = out.size();
  iconv(conversion, nullptr, nullptr, nullptr, nullptr);
  return iconv(conversion, &from, &from_left, &to, &to_left) == 0;
}

std::string Hex(const char* prefix, char byte) {
  char text[8];
  std::snprintf(text, sizeof text, "%s%02x", prefix, static_cast<unsigned char>(byte));
  return text;
}

std::string AsText(const std::string& text) {
  std::string line;
  for (const char c : text)
    line += vesk_fuzz::HasControl(std::string(1, c)) ? Hex("\\x", c) : std::string(1, c);
  return line;
}

std::string AsJson(const std::string& text) {
  std::string line;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t length = 1;  // of the shortest run of bytes from here that is a character
    while (length <= 4 && !IsUtf8(text.substr(at, length))) ++length;
    const char c = text[at];
    if (length > 4) {
      line += Hex("\\\\x", c);
    } else if (vesk_fuzz::HasControl(std::string(1, c))) {
      line += Hex("\\u00", c);
    } else {
      line += (c == '"' || c == '\\' ? "\\" : "") + text.substr(at, length);
    }
    at += length > 4 ? 1 : length;
  }
  return line;
}

// A log of one form, of which the last line is kept.
class Log {
 public:
  explicit Log(bool json) : logger_(OptionsOf(file_, json)) {}

  // The only line that comes of `text`.
  std::string Line(const std::string& text) {
    file_.Write("");
    logger_.Error(vesk::LogSite("File", 1), "%s", text.c_str());
    Require(logger_.Dropped() == 0, "the line is in the file");
    std::string line = file_.Read();
    Require(line.size() > kTime && line.back() == '\n', "a line ends");
    line.pop_back();
    Require(!vesk_fuzz::HasControl(line), "a line is one line");
    return line;
  }

 private:
  static vesk::Logger::Options OptionsOf(const MemoryFile& file, bool json) {
    vesk::Logger::Options options;
    options.ring_levels = vesk::kLogNothing;
    options.to_stderr = false;
    options.file = file.name();
    options.file_size = 0;
    options.json = json;
    return options;
  }

  const MemoryFile file_;
  vesk::Logger logger_;
};

// What a logger takes of a text: as much as fits, without newlines at its end.
std::string Taken(std::string text) {
  text.resize(std::min<std::size_t>(text.size(), 4095));
  text.erase(text.find_last_not_of('\n') + 1);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Log& plain = *new Log(false);
  static Log& json = *new Log(true);
  const std::string text = vesk_fuzz::Text(data, size).c_str();  // up to the first NUL
  const std::string taken = Taken(text);
  RequireSame(plain.Line(text).substr(kTime), "error File:1 " + AsText(taken), "the text");
  const std::string object = json.Line(text);
  Require(IsUtf8(object), "JSON is UTF-8");
  const std::string member = ",\"text\":\"";
  RequireSame(object.substr(std::min(object.find(member), object.size())),
              member + AsJson(taken) + "\"}", "the text in JSON");
  return 0;
}
