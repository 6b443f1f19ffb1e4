// Any text as the description of a store: what is taken can be written down and taken again, within
// the bounds; what is refused changes nothing and says why.

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>

#include "fuzz/fuzz.h"
#include "runtime/store_spec.h"

namespace {

using vesk::FaultRule;
using vesk::LatencyDecorator;
using vesk::StoreSpec;
using vesk_fuzz::Require;
using vesk_fuzz::RequireSame;

std::string Microseconds(vesk::Clock::Duration time) {
  using std::chrono::duration_cast, std::chrono::microseconds, std::chrono::hours;
  Require(time >= time.zero() && time <= hours(30 * 24), "a time is between nothing and 30 days");
  return std::to_string(duration_cast<microseconds>(time).count()) + "us";
}

std::string Chance(double chance) {
  Require(chance >= 0 && chance <= 1, "a chance is from 0 to 1");
  char text[64];
  return {text, std::to_chars(text, text + sizeof text, chance).ptr};
}

std::string Operations(vesk::FaultOperations operations) {
  const char* const names[] = {"read",     "write",    "stat", "open",   "create",
                               "truncate", "nextdata", "sync", "rename", "remove"};
  if (operations == vesk::kFaultAll) return "all";
  std::string text;
  for (std::size_t bit = 0; bit < std::size(names); ++bit) {
    if ((operations >> bit & 1) == 0) continue;
    text += (text.empty() ? "" : "+") + std::string(names[bit]);
  }
  Require(!text.empty() && operations >> std::size(names) == 0, "operations are known ones");
  return text;
}

std::string Effect(const FaultRule& rule) {
  switch (rule.effect) {
    case FaultRule::Effect::kShort:
      Require(rule.operations == vesk::kFaultRead, "reads alone can be short");
      return "short";
    case FaultRule::Effect::kNever: return "never";
    case FaultRule::Effect::kError: break;
  }
  const char* const name = strerrorname_np(rule.error);
  Require(rule.error > 0 && name != nullptr, "an error has a name");
  return name;
}

std::string When(const FaultRule& rule) {
  Require(rule.number > 0, "operations are counted from 1");
  switch (rule.when) {
    case FaultRule::When::kAlways: return "";
    case FaultRule::When::kNth: return ":nth=" + std::to_string(rule.number);
    case FaultRule::When::kEvery: return ":every=" + std::to_string(rule.number);
    case FaultRule::When::kChance: return ":chance=" + Chance(rule.chance);
  }
  return "";
}

std::string Decorator(const LatencyDecorator::Options& latency) {
  std::string text = "latency=" + Microseconds(latency.fixed) +
                     ":jitter=" + Microseconds(latency.jitter) +
                     ":seed=" + std::to_string(latency.seed);
  if (latency.bandwidth == 0) return text;
  Require(latency.bandwidth >= 1024, "a bandwidth is at least 1K");
  return text + ":bandwidth=" + std::to_string(latency.bandwidth);
}

std::string Decorator(const FaultRule& rule) {
  Require(!rule.name.empty(), "a pattern matches some name");
  std::string text = "fault=" + Operations(rule.operations) + ':' + Effect(rule) + When(rule) +
                     ":name=" + rule.name + ":after=" + std::to_string(rule.after) +
                     ":seed=" + std::to_string(rule.seed);
  if (rule.times != 0) text += ":times=" + std::to_string(rule.times);
  if (rule.lasts != rule.lasts.zero()) text += ":for=" + Microseconds(rule.lasts);
  return text;
}

std::string Decorator(const vesk::RetryOptions& retry) {
  return retry.seed ? "retry:seed=" + std::to_string(*retry.seed) : "retry";
}

// The description with everything said.
std::string Described(const StoreSpec& spec) {
  const char* const backends[] = {"auto", "posix", "uring", "memory"};
  std::string text = backends[static_cast<std::size_t>(spec.backend)];
  for (const StoreSpec::Decorator& decorator : spec.decorators)
    text += ',' + std::visit([](const auto& options) { return Decorator(options); }, decorator);
  return text;
}

constexpr char kBefore[] = "memory,latency=7us:jitter=0us:seed=3";

StoreSpec Before() {
  StoreSpec spec;
  std::string why;
  Require(ParseStoreSpec(kBefore, &spec, &why), "a description like any other");
  return spec;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = vesk_fuzz::Text(data, size);
  StoreSpec spec = Before();
  std::string why;
  if (!ParseStoreSpec(text, &spec, &why)) {
    vesk_fuzz::RequireMessage(why);
    RequireSame(Described(spec), kBefore, "a refusal changes nothing");
    return 0;
  }
  RequireSame(why, "", "nothing is wrong with what is taken");
  const std::string described = Described(spec);
  if (described.size() > 4096) return 0;  // longer than a description can be, once all is said
  StoreSpec again;
  RequireSame(ParseStoreSpec(described, &again, &why) ? "" : why, "", "a store is taken again");
  RequireSame(Described(again), described, "and is the same store");
  return 0;
}
