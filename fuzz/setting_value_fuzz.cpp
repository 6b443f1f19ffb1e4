// Any text as the value of any setting, against a second way to read it: sizes, durations, counts,
// choices, switches, lists of log levels. An input is "NAME TEXT".

#include <algorithm>
#include <iterator>
#include <optional>

#include "fuzz/settings.h"
#include "runtime/logger.h"
#include "runtime/store_spec.h"

namespace {

using vesk::Setting;
using vesk::SettingType;
using vesk_fuzz::Require;
using vesk_fuzz::RequireSame;

__extension__ using Wide = unsigned __int128;

// A number that is beyond every setting's range, and stays there when it is multiplied.
constexpr Wide kBeyond = Wide{1} << 80;

Wide Digits(const std::string& digits) {
  Wide number = 0;
  for (const char c : digits) number = std::min(number * 10 + static_cast<Wide>(c - '0'), kBeyond);
  return number;
}

// What one of the suffix is worth, in bytes, microseconds or 1.
std::optional<Wide> Worth(const Setting& setting, const std::string& suffix) {
  if (setting.type == SettingType::kCount)
    return suffix.empty() ? std::optional<Wide>(1) : std::nullopt;
  if (setting.type == SettingType::kDuration) {
    const std::string unit = suffix.empty() ? setting.unit : suffix;
    if (unit == "us") return 1;
    if (unit == "ms") return 1000;
    if (unit == "s") return 1000000;
    if (unit == "m") return 60000000;
    if (unit == "h") return 3600000000;
    return {};
  }
  if (suffix.empty()) return 1;
  if (suffix.size() != 1 && suffix.substr(1) != "iB") return {};
  const std::size_t power = std::string("KMGT").find(
      static_cast<char>(suffix[0] >= 'a' && suffix[0] <= 'z' ? suffix[0] - 'a' + 'A' : suffix[0]));
  if (power == std::string::npos) return {};
  return Wide{1} << (10 * (power + 1));
}

std::optional<std::uint64_t> Number(const Setting& setting, const std::string& text) {
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  const std::optional<Wide> worth = Worth(setting, text.substr(digits));
  if (digits == 0 || !worth) return {};
  const Wide number = Digits(text.substr(0, digits)) * *worth;
  const Wide unit = setting.type == SettingType::kDuration ? *Worth(setting, setting.unit) : 1;
  if (number % unit != 0 || number / unit > setting.most || number / unit < setting.least)
    return {};
  return static_cast<std::uint64_t>(number / unit);
}

std::optional<std::uint64_t> Levels(std::string text) {
  const std::string words[] = {"debug", "trace", "info", "dump", "error"};
  text.erase(0, text.find_first_not_of(' '));
  text.erase(text.find_last_not_of(' ') + 1);
  if (text == "off") return 0;
  if (text == "all") return 31;
  std::uint64_t levels = 0;
  for (text += ','; !text.empty(); text.erase(0, text.find(',') + 1)) {
    std::string word = text.substr(0, text.find(','));
    word.erase(0, word.find_first_not_of(' '));
    word.erase(word.find_last_not_of(' ') + 1);
    const auto* const found = std::find(std::begin(words), std::end(words), word);
    if (found == std::end(words)) return {};
    levels |= std::uint64_t{1} << (found - std::begin(words));
  }
  return levels;
}

std::optional<std::uint64_t> Choice(const Setting& setting, std::string text) {
  if (setting.type == SettingType::kBool && text == "true") text = "on";
  if (setting.type == SettingType::kBool && text == "false") text = "off";
  for (std::size_t i = 0; i < setting.choices.size(); ++i) {
    if (setting.choices[i] == text) return i;
  }
  return {};
}

// The value that `text` stands for, of a setting that is a number inside.
std::optional<std::uint64_t> Expected(const Setting& setting, const std::string& text) {
  if (setting.type == SettingType::kLevels) return Levels(text);
  if (!setting.choices.empty()) return Choice(setting, text);
  return Number(setting, text);
}

bool IsRight(const Setting& setting, const std::string& text) {
  if (text.size() > 4096 || vesk_fuzz::HasControl(text)) return false;
  if (setting.text == nullptr) return Expected(setting, text).has_value();
  vesk::StoreSpec spec;
  std::string why;
  return setting.name != "store" || vesk::ParseStoreSpec(text, &spec, &why);
}

void RequireValue(const Setting& setting, const std::string& text, const vesk::Settings& settings) {
  const std::string told = vesk::ValueText(setting, settings);
  if (setting.text != nullptr) {
    RequireSame(told, text, "a text is kept as it is");
    return;
  }
  Require(setting.number(settings) == Expected(setting, text), "the value is what the text says");
  Require(told == "off" || (text.back() >= '0' && text.back() <= '9') || told.size() <= text.size(),
          "a value is told in the shortest text that has a unit");
  vesk::Settings again;
  RequireSame(vesk::SetSetting(setting, told, &again), "", "a value's text is a value");
  Require(setting.number(again) == setting.number(settings), "and is the same value");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const vesk_fuzz::NamedText input(vesk_fuzz::Text(data, size));
  if (input.setting == nullptr) return 0;
  static const std::string& defaults = *new std::string(vesk_fuzz::Snapshot(vesk::Settings()));
  vesk::Settings settings;
  const std::string wrong = vesk::SetSetting(*input.setting, input.text, &settings);
  Require(wrong.empty() == IsRight(*input.setting, input.text), "right is taken, wrong is refused");
  if (wrong.empty()) {
    RequireValue(*input.setting, input.text, settings);
  } else {
    vesk_fuzz::RequireMessage(wrong);
    RequireSame(vesk_fuzz::Snapshot(settings), defaults, "a refusal changes nothing");
  }
  return 0;
}
