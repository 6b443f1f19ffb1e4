#include "programs/replay/line.h"

#include <algorithm>
#include <optional>

namespace vesk_replay {

namespace {

constexpr std::size_t kNone = std::string_view::npos;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

int HexDigit(char c) {
  if (IsDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string_view WithoutEnd(std::string_view text) {
  const std::size_t last = text.find_last_not_of(" \t\r\n");
  return last == kNone ? std::string_view() : text.substr(0, last + 1);
}

// The digits that `*rest` begins with, which are taken off.
//   Ends in  false: there are none, or too many
bool TakeNumber(unsigned base, std::string_view* rest, std::uint64_t* number) {
  std::size_t length = 0;
  *number = 0;
  for (; length < rest->size(); ++length) {
    const int digit = HexDigit((*rest)[length]);
    if (digit < 0 || static_cast<unsigned>(digit) >= base) break;
    if (*number > (~std::uint64_t{0} - static_cast<unsigned>(digit)) / base) return false;
    *number = *number * base + static_cast<unsigned>(digit);
  }
  rest->remove_prefix(length);
  return length > 0;
}

bool TakeText(std::string_view expected, std::string_view* rest) {
  if (rest->substr(0, expected.size()) != expected) return false;
  rest->remove_prefix(expected.size());
  return true;
}

// ---- JSON: one flat object ----

void AppendUtf8(unsigned code, std::string* out) {
  if (code < 0x80) {
    *out += static_cast<char>(code);
  } else if (code < 0x800) {
    *out += static_cast<char>(0xc0 | code >> 6);
    *out += static_cast<char>(0x80 | (code & 63));
  } else {
    *out += static_cast<char>(0xe0 | code >> 12);
    *out += static_cast<char>(0x80 | (code >> 6 & 63));
    *out += static_cast<char>(0x80 | (code & 63));
  }
}

bool TakeEscape(std::string_view* rest, std::string* out) {
  if (rest->empty()) return false;
  const char c = rest->front();
  rest->remove_prefix(1);
  static constexpr std::string_view kShort = "\"\\/bfnrt", kMeaning = "\"\\/\b\f\n\r\t";
  if (const std::size_t at = kShort.find(c); at != kNone) {
    *out += kMeaning[at];
    return true;
  }
  if (c != 'u' || rest->size() < 4) return false;
  std::string_view digits = rest->substr(0, 4);
  rest->remove_prefix(4);
  std::uint64_t code = 0;
  if (!TakeNumber(16, &digits, &code) || !digits.empty()) return false;
  AppendUtf8(static_cast<unsigned>(code), out);
  return true;
}

bool TakeString(std::string_view* rest, std::string* out) {
  if (!TakeText("\"", rest)) return false;
  while (!rest->empty()) {
    const char c = rest->front();
    rest->remove_prefix(1);
    if (c == '"') return true;
    if (c != '\\') {
      *out += c;
    } else if (!TakeEscape(rest, out)) {
      return false;
    }
  }
  return false;
}

void SkipBlanks(std::string_view* rest) {
  rest->remove_prefix(std::min(rest->find_first_not_of(" \t"), rest->size()));
}

// A string, or the text of a number or word.
bool TakeValue(std::string_view* rest, std::string* out) {
  if (!rest->empty() && rest->front() == '"') return TakeString(rest, out);
  const std::size_t length = std::min(rest->find_first_of(",} \t"), rest->size());
  *out = rest->substr(0, length);
  rest->remove_prefix(length);
  return length > 0;
}

bool SetMember(const std::string& key, const std::string& value, LogLine* line) {
  if (key == "file") line->file = value;
  if (key == "text") line->text = WithoutEnd(value);
  if (key == "time") line->time = value;
  if (key == "thread") line->thread = value;
  if (key == "history") line->history = value == "true";
  if (key != "site") return true;
  std::string_view digits = value;
  std::uint64_t site = 0;
  if (!TakeNumber(10, &digits, &site) || !digits.empty() || site > 99999) return false;
  line->site = static_cast<int>(site);
  return true;
}

bool ParseJson(std::string_view rest, LogLine* line) {
  if (!TakeText("{", &rest)) return false;
  for (;;) {
    std::string key;
    std::string value;
    SkipBlanks(&rest);
    if (!TakeString(&rest, &key)) return false;
    SkipBlanks(&rest);
    if (!TakeText(":", &rest)) return false;
    SkipBlanks(&rest);
    if (!TakeValue(&rest, &value) || !SetMember(key, value, line)) return false;
    SkipBlanks(&rest);
    if (TakeText("}", &rest)) return rest.empty();
    if (!TakeText(",", &rest)) return false;
  }
}

// ---- text ----

// The word that `*text` ends with, which is taken off.
std::string_view TakeLastWord(std::string_view* text) {
  *text = WithoutEnd(*text);
  const std::size_t blank = text->find_last_of(' ');
  const std::string_view word = blank == kNone ? *text : text->substr(blank + 1);
  text->remove_suffix(word.size());
  return word;
}

bool IsLevel(std::string_view word) {
  for (const std::string_view level : {"debug", "trace", "info", "dump", "error"}) {
    if (word == level) return true;
  }
  return false;
}

// What stands in front of the site: of the system log, or of the logger.
void ParseHead(std::string_view head, LogLine* line) {
  if (!IsLevel(TakeLastWord(&head))) return;
  std::string_view word = TakeLastWord(&head);
  line->history = word == "history";
  if (line->history) word = TakeLastWord(&head);
  line->time = word;
}

// The first "<file>:<site>" that stands as a word.
bool ParseText(std::string_view raw, LogLine* line) {
  for (std::size_t begin = 0; begin < raw.size(); ++begin) {
    if (begin > 0 && raw[begin - 1] != ' ') continue;
    for (const std::string_view file : {"VeskStream", "Logger"}) {
      std::string_view rest = raw.substr(begin);
      std::uint64_t site = 0;
      if (!TakeText(file, &rest) || !TakeText(":", &rest)) continue;
      if (!TakeNumber(10, &rest, &site) || site > 99999) continue;
      if (!rest.empty() && !TakeText(" ", &rest)) continue;
      line->file = file;
      line->site = static_cast<int>(site);
      line->text = rest;
      ParseHead(raw.substr(0, begin), line);
      return true;
    }
  }
  return false;
}

// ---- formats ----

// What a format says at one place.
struct Piece {
  std::string_view text;  // stands there as it is; or
  char conversion = 0;    // s, d, u, x or p
};

std::vector<Piece> Pieces(std::string_view format) {
  std::vector<Piece> pieces;
  while (!format.empty()) {
    const std::size_t text = std::min(format.find('%'), format.size());
    if (text > 0) pieces.push_back({format.substr(0, text), 0});
    format.remove_prefix(text);
    const std::size_t conversion = format.find_first_of("sduxp");
    if (conversion == kNone) break;
    pieces.push_back({{}, format[conversion]});
    format.remove_prefix(conversion + 1);
  }
  return pieces;
}

std::optional<std::uint64_t> TakeConversion(char conversion, std::string_view* rest) {
  std::uint64_t number = 0;
  if (conversion == 'p' && TakeText("(nil)", rest)) return number;
  if (conversion == 'p' && !TakeText("0x", rest)) return std::nullopt;
  const bool negative = conversion == 'd' && TakeText("-", rest);
  if (!TakeNumber(conversion == 'p' || conversion == 'x' ? 16 : 10, rest, &number)) {
    return std::nullopt;
  }
  return negative ? std::uint64_t{0} - number : number;
}

bool MatchFrom(const std::vector<Piece>& pieces, std::size_t at, std::string_view rest,
               Values* values);

// The longest text after which the rest of the format fits.
bool MatchText(const std::vector<Piece>& pieces, std::size_t at, std::string_view rest,
               Values* values) {
  const std::string_view next = at + 1 < pieces.size() ? pieces[at + 1].text : std::string_view();
  for (std::size_t end = rest.rfind(next); end != kNone;
       end = end == 0 ? kNone : rest.rfind(next, end - 1)) {
    Values found = *values;
    found.texts.emplace_back(rest.substr(0, end));
    if (!MatchFrom(pieces, at + 1, rest.substr(end), &found)) continue;
    *values = std::move(found);
    return true;
  }
  return false;
}

bool MatchFrom(const std::vector<Piece>& pieces, std::size_t at, std::string_view rest,
               Values* values) {
  for (; at < pieces.size(); ++at) {
    const Piece& piece = pieces[at];
    if (piece.conversion == 's') return MatchText(pieces, at, rest, values);
    if (piece.conversion == 0) {
      if (!TakeText(piece.text, &rest)) return false;
      continue;
    }
    const std::optional<std::uint64_t> number = TakeConversion(piece.conversion, &rest);
    if (!number) return false;
    values->numbers.push_back(*number);
  }
  return rest.empty();
}

}  // namespace

bool ParseLine(std::string_view raw, LogLine* line) {
  *line = LogLine();
  raw = WithoutEnd(raw);
  SkipBlanks(&raw);
  if (!raw.empty() && raw.front() == '{') {
    return ParseJson(raw, line) && (line->file == "VeskStream" || line->file == "Logger");
  }
  return ParseText(raw, line);
}

bool Match(std::string_view format, std::string_view text, Values* values) {
  *values = Values();
  return MatchFrom(Pieces(WithoutEnd(format)), 0, WithoutEnd(text), values);
}

}  // namespace vesk_replay
