#include "runtime/store_spec.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "runtime/backend_memory.h"
#include "runtime/backend_threads.h"
#include "runtime/nearest_name.h"
#include "runtime/posix_files.h"
#include "runtime/settings.h"
#ifdef VESK_HAVE_URING
#include "runtime/backend_uring.h"
#endif

namespace vesk {

namespace {

constexpr std::size_t kLongestText = 4096;
constexpr std::size_t kMostDecorators = 16;  // each has a thread
constexpr std::uint64_t kMostMicroseconds = std::uint64_t{30} * 24 * 3600 * 1000000;

// What is wrong with a description, thrown from where it is found to ParseStoreSpec.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// ---- words ----

template <typename Value>
struct Word {
  const char* text;
  Value value;
};

using Words = std::vector<std::string>;

// clang-format off
constexpr Word<StoreSpec::Backend> kBackends[] = {
    {"auto",   StoreSpec::Backend::kAuto},
    {"memory", StoreSpec::Backend::kMemory},
    {"posix",  StoreSpec::Backend::kPosix},
    {"uring",  StoreSpec::Backend::kUring},
};

constexpr Word<FaultOperations> kOperations[] = {
    {"all",            kFaultAll},
    {"create",         kFaultCreate},
    {"nextdata",       kFaultNextData},
    {"open",           kFaultOpen},
    {"read",           kFaultRead},
    {"remove",         kFaultRemove},
    {"rename",         kFaultRename},
    {"setpermissions", kFaultSetPermissions},
    {"stat",           kFaultStat},
    {"sync",           kFaultSync},
    {"transfers",      kFaultTransfers},
    {"truncate",       kFaultTruncate},
    {"write",          kFaultWrite},
};
// clang-format on

constexpr Word<FaultRule::Effect> kEffects[] = {
    {"never", FaultRule::Effect::kNever},
    {"short", FaultRule::Effect::kShort},
};

// What stores have been seen to end operations in.
#define VESK_ERROR(name) \
  { #name, name }
constexpr Word<int> kErrors[] = {
    VESK_ERROR(EACCES),       VESK_ERROR(EAGAIN),     VESK_ERROR(EBADF),
    VESK_ERROR(EBUSY),        VESK_ERROR(ECANCELED),  VESK_ERROR(ECONNABORTED),
    VESK_ERROR(ECONNREFUSED), VESK_ERROR(ECONNRESET), VESK_ERROR(EDQUOT),
    VESK_ERROR(EEXIST),       VESK_ERROR(EFBIG),      VESK_ERROR(EHOSTDOWN),
    VESK_ERROR(EHOSTUNREACH), VESK_ERROR(EINTR),      VESK_ERROR(EINVAL),
    VESK_ERROR(EIO),          VESK_ERROR(EISDIR),     VESK_ERROR(ELOOP),
    VESK_ERROR(EMFILE),       VESK_ERROR(EMLINK),     VESK_ERROR(ENAMETOOLONG),
    VESK_ERROR(ENETDOWN),     VESK_ERROR(ENETRESET),  VESK_ERROR(ENETUNREACH),
    VESK_ERROR(ENFILE),       VESK_ERROR(ENOBUFS),    VESK_ERROR(ENODEV),
    VESK_ERROR(ENOENT),       VESK_ERROR(ENOLCK),     VESK_ERROR(ENOMEM),
    VESK_ERROR(ENOSPC),       VESK_ERROR(ENOSYS),     VESK_ERROR(ENOTCONN),
    VESK_ERROR(ENOTDIR),      VESK_ERROR(ENOTSUP),    VESK_ERROR(ENXIO),
    VESK_ERROR(EPERM),        VESK_ERROR(EPIPE),      VESK_ERROR(EREMOTEIO),
    VESK_ERROR(EROFS),        VESK_ERROR(ESHUTDOWN),  VESK_ERROR(ESTALE),
    VESK_ERROR(ETIMEDOUT),    VESK_ERROR(ETXTBSY),    VESK_ERROR(EXDEV),
};
#undef VESK_ERROR

template <typename Value, std::size_t N>
const Value* Find(const Word<Value> (&words)[N], const std::string& text) {
  for (const Word<Value>& word : words) {
    if (text == word.text) return &word.value;
  }
  return nullptr;
}

template <typename Value, std::size_t N>
Words TextsOf(const Word<Value> (&words)[N]) {
  Words texts;
  for (const Word<Value>& word : words) texts.emplace_back(word.text);
  return texts;
}

std::string Joined(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

std::string NeedsValue(const std::string& key) {
  std::string text = key;
  return text.append(" needs a value: ").append(key).append("=...");
}

// " did you mean 'latency'?", or nothing.
std::string Suggestion(const std::string& text, const Words& known) {
  const std::string nearest = NearestName(text, known);
  return nearest.empty() ? "" : " did you mean '" + nearest + "'?";
}

// "unknown decorator 'latancy'; did you mean 'latency'? known: fault, latency, retry"
[[noreturn]] void RefuseUnknown(const std::string& what, const std::string& text,
                                const Words& known) {
  throw Refusal("unknown " + what + ' ' + QuotedText(text) + ';' + Suggestion(text, known) +
                " known: " + Joined(known));
}

// The parts between the separators; one more than there are separators.
Words Split(const std::string& text, char separator) {
  Words parts;
  for (std::size_t begin = 0;;) {
    const std::size_t end = text.find(separator, begin);
    parts.push_back(text.substr(begin, end - begin));
    if (end == std::string::npos) return parts;
    begin = end + 1;
  }
}

// ---- values ----

// As the settings read numbers.
std::uint64_t ParseNumber(SettingType type, const std::string& text, std::uint64_t least,
                          std::uint64_t most) {
  std::uint64_t value = 0;
  Setting setting;
  setting.type = type;
  setting.unit = type == SettingType::kDuration ? "us" : "";
  setting.least = least;
  setting.most = most;
  setting.set_number = [&value](Settings* /*settings*/, std::uint64_t number) { value = number; };
  Settings unused;
  const std::string wrong = SetSetting(setting, text, &unused);
  if (!wrong.empty()) throw Refusal(wrong);
  return value;
}

auto CountFrom(std::uint64_t least) {
  return [least](const std::string& text) {
    return ParseNumber(SettingType::kCount, text, least, std::numeric_limits<std::uint64_t>::max());
  };
}

Clock::Duration ParseTime(const std::string& text, std::uint64_t least_us) {
  const bool bare = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  if (bare && text != "0") {
    throw Refusal(QuotedText(text) +
                  " has no unit: us, ms, s, m or h belongs behind it, as in 2ms");
  }
  return std::chrono::microseconds(
      ParseNumber(SettingType::kDuration, text, least_us, kMostMicroseconds));
}

std::uint64_t ParseBandwidth(const std::string& text) {
  return ParseNumber(SettingType::kSize, text, 1024, std::uint64_t{1} << 40);
}

double ParseChance(const std::string& text) {
  double chance = -1;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, chance);
  const bool whole = parsed.ec == std::errc() && parsed.ptr == end;
  if (!whole || !(chance >= 0 && chance <= 1)) {  // NaN is neither
    throw Refusal(QuotedText(text) + " is not a chance: a number from 0 to 1, as in 0.25");
  }
  return chance;
}

// ---- items ----

// The "KEY=VALUE" parts of an item, each key once.
class Values {
 public:
  Values(const Words& parts, std::size_t begin, const Words& known) {
    for (std::size_t i = begin; i < parts.size(); ++i) {
      const std::size_t equals = parts[i].find('=');
      const std::string key = parts[i].substr(0, equals);
      if (std::find(known.begin(), known.end(), key) == known.end()) {
        RefuseUnknown("key", key, known);
      }
      if (equals == std::string::npos) throw Refusal(NeedsValue(key));
      if (!values_.emplace(key, parts[i].substr(equals + 1)).second) {
        throw Refusal(key + " is there twice");
      }
    }
  }

  bool Has(const std::string& key) const { return values_.count(key) != 0; }

  // Stores the value of `key`, where there is one, as `parse` reads it; a refusal names the key.
  template <typename Target, typename Parse>
  void Read(const std::string& key, Target* target, Parse parse) const {
    const auto place = values_.find(key);
    if (place == values_.end()) return;
    try {
      *target = parse(place->second);
    } catch (const Refusal& refusal) {
      throw Refusal(key + ": " + refusal.what());
    }
  }

 private:
  std::map<std::string, std::string> values_;
};

// "NAME", "NAME=VALUE", and what follows behind ':'.
struct Item {
  explicit Item(const std::string& text) : parts(Split(text, ':')) {
    const std::size_t equals = parts[0].find('=');
    name = parts[0].substr(0, equals);
    if (equals != std::string::npos) value = parts[0].substr(equals + 1);
  }

  std::string name;
  std::optional<std::string> value;
  Words parts;
};

StoreSpec::Decorator ParseLatency(const Item& item) {
  if (!item.value) throw Refusal("needs a time, as in latency=2ms");
  LatencyDecorator::Options latency;
  latency.fixed = ParseTime(*item.value, 0);
  const Values values(item.parts, 1, {"bandwidth", "jitter", "seed"});
  values.Read("bandwidth", &latency.bandwidth, ParseBandwidth);
  values.Read("jitter", &latency.jitter,
              [](const std::string& text) { return ParseTime(text, 0); });
  values.Read("seed", &latency.seed, CountFrom(0));
  return latency;
}

FaultOperations ParseOperations(const std::string& text) {
  FaultOperations operations = 0;
  for (const std::string& word : Split(text, '+')) {
    const FaultOperations* const operation = Find(kOperations, word);
    if (operation == nullptr) RefuseUnknown("operation", word, TextsOf(kOperations));
    operations |= *operation;
  }
  return operations;
}

void ParseEffect(const std::string& text, FaultRule* rule) {
  if (const int* const error = Find(kErrors, text)) {
    rule->effect = FaultRule::Effect::kError;
    rule->error = *error;
    return;
  }
  const FaultRule::Effect* const effect = Find(kEffects, text);
  if (effect == nullptr) {
    Words known = TextsOf(kEffects);
    const Words errors = TextsOf(kErrors);
    known.insert(known.end(), errors.begin(), errors.end());
    RefuseUnknown("effect", text, known);
  }
  if (*effect == FaultRule::Effect::kShort && rule->operations != kFaultRead) {
    throw Refusal("'short' is for read alone: all else is done whole or fails");
  }
  rule->effect = *effect;
}

void ParseWhen(const Values& values, FaultRule* rule) {
  if (values.Has("nth") + values.Has("every") + values.Has("chance") > 1) {
    throw Refusal("only one of nth, every and chance can choose the operations");
  }
  if (values.Has("nth")) rule->when = FaultRule::When::kNth;
  if (values.Has("every")) rule->when = FaultRule::When::kEvery;
  if (values.Has("chance")) rule->when = FaultRule::When::kChance;
  values.Read("nth", &rule->number, CountFrom(1));
  values.Read("every", &rule->number, CountFrom(1));
  values.Read("chance", &rule->chance, ParseChance);
}

StoreSpec::Decorator ParseFault(const Item& item) {
  if (!item.value) throw Refusal("needs operations and an effect, as in fault=read:EIO");
  FaultRule rule;
  rule.operations = ParseOperations(*item.value);
  if (item.parts.size() < 2) {
    throw Refusal("needs an effect behind the operations, as in fault=read:EIO");
  }
  ParseEffect(item.parts[1], &rule);
  const Values values(item.parts, 2,
                      {"after", "chance", "every", "for", "name", "nth", "seed", "times"});
  ParseWhen(values, &rule);
  values.Read("name", &rule.name, [](const std::string& text) {
    if (text.empty()) throw Refusal("'' matches no name; * matches all");
    return text;
  });
  values.Read("after", &rule.after, CountFrom(0));
  values.Read("seed", &rule.seed, CountFrom(0));
  values.Read("times", &rule.times, CountFrom(1));
  values.Read("for", &rule.lasts, [](const std::string& text) { return ParseTime(text, 1); });
  return rule;
}

StoreSpec::Decorator ParseRetry(const Item& item) {
  if (item.value) throw Refusal("takes no value; settings say how often and when");
  RetryOptions retry;
  Values(item.parts, 1, {"seed"}).Read("seed", &retry.seed, CountFrom(0));
  return retry;
}

constexpr Word<StoreSpec::Decorator (*)(const Item&)> kDecorators[] = {
    {"fault", ParseFault},
    {"latency", ParseLatency},
    {"retry", ParseRetry},
};

StoreSpec::Decorator ParseDecorator(const Item& item) {
  if (Find(kBackends, item.name) != nullptr) {
    throw Refusal('\'' + item.name + "' is a backend, which only the first item can be");
  }
  const auto* const parse = Find(kDecorators, item.name);
  if (parse == nullptr) RefuseUnknown("decorator", item.name, TextsOf(kDecorators));
  try {
    return (*parse)(item);
  } catch (const Refusal& refusal) {
    throw Refusal(item.name + ": " + refusal.what());
  }
}

StoreSpec::Backend ParseBackend(const Item& item) {
  if (Find(kDecorators, item.name) != nullptr) {
    throw Refusal('\'' + item.name + "' stands in front of a backend, which comes first: " +
                  Joined(TextsOf(kBackends)));
  }
  const StoreSpec::Backend* const backend = Find(kBackends, item.name);
  if (backend == nullptr) RefuseUnknown("backend", item.name, TextsOf(kBackends));
  if (item.value || item.parts.size() > 1) {
    throw Refusal('\'' + item.name + "' takes no value; settings say how it works");
  }
  return *backend;
}

StoreSpec Parsed(const std::string& text) {
  if (text.empty()) {
    throw Refusal("the description is empty; a backend comes first: " + Joined(TextsOf(kBackends)));
  }
  if (text.size() > kLongestText) {
    throw Refusal("the description is too long: at most " + std::to_string(kLongestText) +
                  " bytes");
  }
  const Words items = Split(text, ',');
  if (items.size() > 1 + kMostDecorators) {
    throw Refusal("too many decorators: at most " + std::to_string(kMostDecorators));
  }
  const auto empty = std::find(items.begin(), items.end(), "");
  if (empty != items.end()) {
    throw Refusal("item " + std::to_string(empty - items.begin() + 1) +
                  " is empty: one ',' between two items, none at the ends");
  }
  StoreSpec spec;
  spec.backend = ParseBackend(Item(items[0]));
  for (std::size_t i = 1; i < items.size(); ++i) {
    spec.decorators.push_back(ParseDecorator(Item(items[i])));
  }
  return spec;
}

LogSite At(int line) { return {"StoreStack", line}; }

PosixFiles::Options FilesOptions(const Settings& settings) {
  return {settings.descriptors, settings.direct};
}

std::uint64_t RandomSeed() { return std::random_device{}(); }

}  // namespace

bool ParseStoreSpec(const std::string& text, StoreSpec* spec, std::string* why) {
  try {
    *spec = Parsed(text);
    return true;
  } catch (const Refusal& refusal) {
    *why = refusal.what();
    return false;
  }
}

// ---- the stack ----

StoreStack::Backends::~Backends() {
  while (!all.empty()) all.pop_back();
}

StoreStack::StoreStack(const StoreSpec& spec, const Settings& settings, Clock& clock,
                       VeskLogger& logger) {
  switch (spec.backend) {
    case StoreSpec::Backend::kAuto: AddAuto(settings, logger); break;
    case StoreSpec::Backend::kPosix: AddThreads(settings); break;
    case StoreSpec::Backend::kUring: AddUring(settings); break;
    case StoreSpec::Backend::kMemory: AddMemory(settings); break;
  }
  for (const StoreSpec::Decorator& decorator : spec.decorators) {
    AddDecorator(decorator, settings, clock);
  }
}

void StoreStack::AddAuto(const Settings& settings, VeskLogger& logger) {
  const std::string why_not = TryUring(settings);
  if (why_not.empty()) {
    logger.Info(At(100), "store auto is io_uring\n");
    return;
  }
  AddThreads(settings);
  logger.Info(At(101), "store auto is threads: %s\n", why_not.c_str());
}

void StoreStack::AddUring(const Settings& settings) {
  const std::string why_not = TryUring(settings);
  if (why_not.empty()) return;
  throw std::invalid_argument("store: uring is not to be had here (" + why_not +
                              "); auto and posix are");
}

// Nothing, or why there is no ring.
std::string StoreStack::TryUring(const Settings& settings) {
#ifdef VESK_HAVE_URING
  try {
    UringBackend::Options options;
    options.files = FilesOptions(settings);
    backends_.all.push_back(std::make_unique<UringBackend>(options));
    backend_name_ = "io_uring";
    return "";
  } catch (const std::system_error& error) {
    return error.what();
  }
#else
  (void)settings;
  return "io_uring: not built in";
#endif
}

void StoreStack::AddThreads(const Settings& settings) {
  backends_.all.push_back(std::make_unique<ThreadsBackend>(
      ThreadsBackend::Options{settings.threads, FilesOptions(settings)}));
  backend_name_ = "threads";
}

void StoreStack::AddMemory(const Settings& settings) {
  AddThreads(settings);
  backends_.all.push_back(std::make_unique<MemoryBackend>(&top()));
  backend_name_ = "memory";
}

void StoreStack::AddDecorator(const StoreSpec::Decorator& decorator, const Settings& settings,
                              Clock& clock) {
  if (const auto* latency = std::get_if<LatencyDecorator::Options>(&decorator)) {
    backends_.all.push_back(std::make_unique<LatencyDecorator>(top(), *latency, clock));
  } else if (const auto* rule = std::get_if<FaultRule>(&decorator)) {
    backends_.all.push_back(
        std::make_unique<FaultsDecorator>(top(), std::vector<FaultRule>{*rule}, clock));
  } else {
    const std::optional<std::uint64_t> seed = std::get<RetryOptions>(decorator).seed;
    auto retry =
        std::make_unique<RetryDecorator>(top(), settings, clock, seed ? *seed : RandomSeed());
    retry_ = retry.get();
    backends_.all.push_back(std::move(retry));
  }
}

}  // namespace vesk
