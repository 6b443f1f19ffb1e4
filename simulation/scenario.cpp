#include "simulation/scenario.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>
#include <stdexcept>

#include "runtime/random.h"

namespace vesk_simulation {

namespace {

struct Field {
  const char* name;
  std::uint32_t Shape::*field;
  std::vector<std::uint32_t> values;  // drawn alike; none: any number
};

const std::vector<Field>& Fields() {
  static const std::vector<Field> fields = {
      {"clients", &Shape::clients, {1, 2, 3, 5}},
      {"files", &Shape::files, {1, 1, 1, 2}},
      {"size", &Shape::size, {0, 1, 7, 64, 200, 700}},
      {"block_size", &Shape::block_size, {1, 2, 3, 7, 16, 64, 4096}},
      {"memory", &Shape::memory, {1, 2, 8, 14, 32, 128, 1000, 100000}},
      {"read_ahead", &Shape::read_ahead, {0, 1, 4, 99}},
      {"dirty_soft", &Shape::dirty_soft, {0, 1, 16, 100000}},
      {"dirty_hard", &Shape::dirty_hard, {1, 2, 20, 100000}},
      {"dirty_age_ms", &Shape::dirty_age_ms, {0, 10, 1000, 100000}},
      {"refresh", &Shape::refresh, {0, 1, 60}},
      {"fail_unknown", &Shape::fail_unknown, {0, 0, 1}},
      {"retry", &Shape::retry, {0, 1}},
      {"reaper", &Shape::reaper, {0, 1, 1}},
      {"background", &Shape::background, {0, 1}},
      {"withdraws", &Shape::withdraws, {0, 1}},
      {"chance", &Shape::chance, {}},
      {"eager", &Shape::eager, {0}},
      {"lies", &Shape::lies, {0}},
  };
  return fields;
}

constexpr std::array<const char*, static_cast<std::size_t>(Do::kCount)> kNames = {
    "read",    "write",   "append", "truncate", "flush",  "sync", "reopen",
    "discard", "advise",  "stats",  "syncall",  "rename", "tend", "run",
    "end",     "advance", "wall",   "cancel",   "nomem",  "crash"};

// How often each is drawn. Allocations, cancels and crashes come with troubles alone.
constexpr std::array<std::uint32_t, kNames.size()> kWeights = {30, 30, 6, 3,  4,  6, 2, 1, 3, 2,
                                                               1,  2,  3, 60, 70, 8, 1, 2, 1, 1};

// A source of numbers: chance, or bytes that somebody gives.
class Numbers {
 public:
  virtual std::uint32_t Next() = 0;
  virtual bool End() const = 0;

 protected:
  ~Numbers() = default;
};

class Chance final : public Numbers {
 public:
  explicit Chance(std::uint64_t seed) : random_(seed) {}
  std::uint32_t Next() override { return static_cast<std::uint32_t>(random_.Next() >> 32); }
  bool End() const override { return false; }

 private:
  vesk::Random random_;
};

class Given final : public Numbers {
 public:
  Given(const std::uint8_t* data, std::size_t size) : data_(data), end_(data + size) {}
  std::uint32_t Next() override { return End() ? 0 : *data_++; }
  bool End() const override { return data_ == end_; }

 private:
  const std::uint8_t* data_;
  const std::uint8_t* const end_;
};

Shape DrawShape(Numbers& numbers) {
  Shape shape;
  for (const Field& field : Fields()) {
    const std::uint32_t number = numbers.Next();
    shape.*field.field = field.values.empty() ? number : field.values[number % field.values.size()];
  }
  shape.dirty_soft = std::min(shape.dirty_soft, shape.dirty_hard);
  return shape;
}

Do DrawKind(std::uint32_t number) {
  std::uint32_t sum = 0;
  for (const std::uint32_t weight : kWeights) sum += weight;
  std::uint32_t rest = number % sum;
  std::size_t kind = 0;
  while (rest >= kWeights[kind]) rest -= kWeights[kind++];
  return static_cast<Do>(kind);
}

Step DrawStep(Numbers& numbers) {
  Step step;
  step.what = DrawKind(numbers.Next());
  step.who = numbers.Next() % 16;
  step.a = numbers.Next() % 1024;
  step.b = numbers.Next() % 256;
  step.c = numbers.Next() % 256;
  return step;
}

}  // namespace

Scenario FromSeed(std::uint64_t seed) {
  Chance chance(seed);
  Scenario scenario;
  scenario.shape = DrawShape(chance);
  const std::uint32_t steps = 20 + chance.Next() % 600;
  // Troubles, each in some runs only: what goes wrong without any of them is worth more.
  const bool faults = chance.Next() % 3 != 0;
  const bool limits = chance.Next() % 3 == 0;
  const bool no_memory = chance.Next() % 6 == 0;
  const bool crashes = chance.Next() % 3 == 0;
  const bool renames = chance.Next() % 4 == 0;
  for (std::uint32_t i = 0; i < steps; ++i) {
    Step step = DrawStep(chance);
    if (step.what == Do::kEnd && (!faults || chance.Next() % 4 != 0)) step.b = 0;
    if (step.what < Do::kRun && !limits) step.c &= 15;
    if (step.what == Do::kCancel && !limits) continue;
    if (step.what == Do::kFailAllocation && !no_memory) continue;
    if (step.what == Do::kCrash && !crashes) continue;
    if (step.what == Do::kRename && !renames) continue;
    scenario.steps.push_back(step);
  }
  return scenario;
}

Scenario FromBytes(const std::uint8_t* data, std::size_t size) {
  Given given(data, size);
  Scenario scenario;
  scenario.shape = DrawShape(given);
  while (!given.End()) scenario.steps.push_back(DrawStep(given));
  return scenario;
}

std::string ToText(const Step& step) {
  std::ostringstream text;
  text << kNames.at(static_cast<std::size_t>(step.what)) << ' ' << step.who << ' ' << step.a << ' '
       << step.b << ' ' << step.c;
  return text.str();
}

std::string ToText(const Scenario& scenario) {
  std::string text;
  for (const Field& field : Fields()) {
    text += std::string(field.name) + "=" + std::to_string(scenario.shape.*field.field) + " ";
  }
  text.pop_back();
  for (const Step& step : scenario.steps) text += "; " + ToText(step);
  return text;
}

namespace {

std::uint32_t ParseNumber(const std::string& text) {
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw std::invalid_argument("'" + text + "' is no number from 0 to 4294967295");
  }
  return number;
}

void ParseField(const std::string& word, Shape* shape) {
  const std::size_t equals = word.find('=');
  for (const Field& field : Fields()) {
    if (equals == std::string::npos || word.substr(0, equals) != field.name) continue;
    shape->*field.field = ParseNumber(word.substr(equals + 1));
    return;
  }
  std::string known;
  for (const Field& field : Fields()) known += std::string(" ") + field.name;
  throw std::invalid_argument("'" + word + "' is no setting=number; settings:" + known);
}

Step ParseStep(const std::string& text) {
  std::istringstream words(text);
  std::string name;
  words >> name;
  const auto known = std::find(kNames.begin(), kNames.end(), name);
  if (known == kNames.end()) throw std::invalid_argument("'" + name + "' is no step");
  Step step;
  step.what = static_cast<Do>(known - kNames.begin());
  std::string word;
  for (std::uint32_t Step::*field : {&Step::who, &Step::a, &Step::b, &Step::c}) {
    if (words >> word) step.*field = ParseNumber(word);
  }
  if (words >> word) throw std::invalid_argument("'" + text + "': more than four numbers");
  return step;
}

}  // namespace

Scenario FromText(std::string_view text) {
  Scenario scenario;
  std::istringstream parts{std::string(text)};
  std::string part;
  std::getline(parts, part, ';');
  std::istringstream words(part);
  std::string word;
  while (words >> word) ParseField(word, &scenario.shape);
  while (std::getline(parts, part, ';')) {
    if (part.find_first_not_of(" \t\n") != std::string::npos) {
      scenario.steps.push_back(ParseStep(part));
    }
  }
  return scenario;
}

}  // namespace vesk_simulation
