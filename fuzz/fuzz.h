// What the fuzz targets share. Each target is one function that is given any bytes: it returns when
// every promise about them holds, and ends the process when one does not.

#ifndef FUZZ_FUZZ_H_
#define FUZZ_FUZZ_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace vesk_fuzz {

// A promise is broken: says which, and ends the process, so that the input is kept.
[[noreturn]] inline void Fail(const std::string& what) {
  std::fprintf(stderr, "BROKEN: %s\n", what.c_str());
  std::abort();
}

inline void Require(bool holds, const char* promise) {
  if (!holds) Fail(promise);
}

inline void RequireSame(const std::string& got, const std::string& wanted, const char* promise) {
  if (got != wanted) Fail(std::string(promise) + "\n  got    " + got + "\n  wanted " + wanted);
}

inline std::string Text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

inline bool HasControl(const std::string& text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return true;
  }
  return false;
}

// A refusal fits one line of a terminal or log, whatever it quotes.
inline void RequireMessage(const std::string& message, std::size_t longest = 1000) {
  constexpr std::size_t kShortest = 8;
  if (message.size() < kShortest) Fail("a refusal says why: " + message);
  if (message.size() > longest) Fail("a refusal is short: " + message);
  if (HasControl(message)) Fail("a refusal is one line fit to print: " + message);
}

}  // namespace vesk_fuzz

#endif  // FUZZ_FUZZ_H_
