#include "tests/exhaustive/steps.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace vesk_test {

namespace {

constexpr const char* kWords[kKinds] = {"read",     "read-all", "write",     "write-all",  "ahead",
                                        "flush",    "dirty",    "shrink",    "truncate",   "split",
                                        "allocate", "end",      "clock",     "remove-eof", "length",
                                        "reap",     "dump",     "no-memory", "in-wait"};

struct Field {
  const char* name;
  unsigned int Settings::*value;
  unsigned int least, most;
};

constexpr Field kFields[] = {
    {"base", &Settings::base, 0, static_cast<unsigned int>(kBases.size()) - 1},
    {"span", &Settings::span, 1, 64},
    {"stored", &Settings::stored, 0, 64},
    {"block", &Settings::block, 1, 16},
    {"maxbufs", &Settings::maxbufs, 0, 100},
    {"ahead", &Settings::ahead, 0, 99},
    {"refresh", &Settings::refresh, 0, 1000000},
    {"covered", &Settings::covered, 0, 64},
    {"pool", &Settings::pool, 0, 1},
    {"careful", &Settings::careful, 0, 1},
    {"lies", &Settings::lies, 0, 1},
    {"values", &Settings::values, 1, 250},
};

unsigned int Pick(std::mt19937& random, std::initializer_list<unsigned int> from) {
  return from.begin()[random() % from.size()];
}

// Often one of the kinds that move bytes, rarely one that ends the interesting part of a run.
Kind RandomKind(std::mt19937& random) {
  static constexpr Kind kOften[] = {Kind::kRead,  Kind::kRead,     Kind::kReadAll, Kind::kWrite,
                                    Kind::kWrite, Kind::kWriteAll, Kind::kFlush,   Kind::kEnd,
                                    Kind::kEnd,   Kind::kEnd,      Kind::kInWait};
  if (random() % 4 != 0) return kOften[random() % std::size(kOften)];
  return static_cast<Kind>(random() % kKinds);
}

Settings RandomSettings(std::mt19937& random) {
  Settings s;
  s.base = random() % 8 < kBases.size() ? random() % 4 : 0;
  s.span = Pick(random, {1, 4, 8, 16, 24, 24, 40, 64});
  s.stored = Pick(random, {0, 1, s.span / 2, s.span / 2, s.span});
  s.block = Pick(random, {1, 2, 3, 4, 4, 5, 8, 16});
  s.maxbufs = Pick(random, {0, 1, 2, 3, 5, 100});
  s.ahead = Pick(random, {0, 0, 1, 2, 3, 99});
  s.refresh = Pick(random, {0, 0, 1, 3, 1000000});
  s.covered = Pick(random, {0, 0, s.stored});
  s.pool = random() % 4 == 0 ? 0 : 1;
  s.careful = random() % 2;
  s.lies = random() % 3 == 0 ? 1 : 0;
  return Valid(s);
}

}  // namespace

Settings Valid(Settings settings) {
  for (const Field& field : kFields) {
    unsigned int& value = settings.*field.value;
    if (value < field.least || value > field.most) {
      value = field.least + value % (field.most - field.least + 1);
    }
  }
  settings.stored = std::min(settings.stored, settings.span);
  return settings;
}

std::string ToText(const Step& step) {
  std::ostringstream text;
  text << kWords[static_cast<unsigned int>(step.kind)] << ' ' << int{step.a} << ' ' << int{step.b}
       << ' ' << int{step.c};
  return text.str();
}

std::string ToText(const Case& c) {
  std::ostringstream text;
  const char* separator = "";
  for (const Field& field : kFields) {
    text << separator << field.name << '=' << c.settings.*field.value;
    separator = " ";
  }
  for (const Step& step : c.steps) text << " | " << ToText(step);
  return text.str();
}

Case FromText(const std::string& text) {
  Case result;
  std::istringstream words(text);
  std::string word;
  while (words >> word && word != "|") {
    const std::size_t equals = word.find('=');
    const auto field = std::find_if(std::begin(kFields), std::end(kFields), [&](const Field& f) {
      return word.substr(0, equals) == f.name;
    });
    if (equals == std::string::npos || field == std::end(kFields)) {
      throw std::invalid_argument("no such setting: " + word);
    }
    result.settings.*field->value = static_cast<unsigned int>(std::stoul(word.substr(equals + 1)));
  }
  while (words >> word) {
    if (word == "|") continue;
    const auto* const kind = std::find(std::begin(kWords), std::end(kWords), word);
    int a = 0, b = 0, c = 0;
    if (kind == std::end(kWords) || !(words >> a >> b >> c)) {
      throw std::invalid_argument("no such step: " + word);
    }
    result.steps.push_back({static_cast<Kind>(kind - std::begin(kWords)),
                            static_cast<std::uint8_t>(a), static_cast<std::uint8_t>(b),
                            static_cast<std::uint8_t>(c)});
  }
  result.settings = Valid(result.settings);
  return result;
}

Case RandomCase(std::mt19937& random) {
  Case result{RandomSettings(random), {}};
  const unsigned long count = 5 + random() % 60;
  unsigned int next = 0;  // where the last request that moves bytes ended, or a little behind that
  for (unsigned long i = 0; i < count; ++i) {
    Step step{RandomKind(random), static_cast<std::uint8_t>(random()),
              static_cast<std::uint8_t>(random()), static_cast<std::uint8_t>(random())};
    if (step.kind <= Kind::kWriteAll) {
      if (random() % 2 == 0) step.b %= 3;
      if (random() % 3 == 0) step.a = static_cast<std::uint8_t>(next % result.settings.span);
      next = step.a % result.settings.span + 1 + step.b % (3 * result.settings.block) +
             (random() % 4 == 0 ? 1 : 0);
    }
    result.steps.push_back(step);
  }
  return result;
}

Case FromBytes(const std::uint8_t* bytes, std::size_t count) {
  constexpr std::size_t kMostSteps = 200;
  Case result;
  std::size_t used = 0;
  for (const Field& field : kFields) {
    if (used < count) result.settings.*field.value = bytes[used++];
  }
  result.settings.values = 250;
  result.settings = Valid(result.settings);
  for (; used + 4 <= count && result.steps.size() < kMostSteps; used += 4) {
    result.steps.push_back({static_cast<Kind>(bytes[used] % kKinds), bytes[used + 1],
                            bytes[used + 2], bytes[used + 3]});
  }
  return result;
}

}  // namespace vesk_test
