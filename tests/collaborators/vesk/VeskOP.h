#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vesk {

enum : unsigned int { OPCODE_READ = 9, OPCODE_WRITE = 10, OPFLAG_WRITE_MODE = 8 };

// Allocated by an operator new of its own that reports failure by null rather than by throwing.
struct VeskOP {
  struct Argument {
    char kind;  // s, p, i, u
    std::string text;
    void* pointer;
    int integer;
    unsigned long number;
  };

  VeskOP(unsigned int c, unsigned int f) : code(c), flags(f) { ++live; }
  ~VeskOP() { --live; }
  VeskOP(const VeskOP&) = delete;
  VeskOP& operator=(const VeskOP&) = delete;

  void AddString(std::string& value) { arguments.push_back({'s', value, nullptr, 0, 0}); }
  void AddPtr(void* value) { arguments.push_back({'p', "", value, 0, 0}); }
  void AddInt(int value) { arguments.push_back({'i', "", nullptr, value, 0}); }
  void AddULong(unsigned long value) { arguments.push_back({'u', "", nullptr, 0, value}); }

  static void* operator new(std::size_t bytes) noexcept;
  static void operator delete(void* memory);

  unsigned int code;
  unsigned int flags;
  std::vector<Argument> arguments;

  static int live;            // objects alive
  static bool allocate_null;  // the next allocation yields null, once
};

}  // namespace vesk
