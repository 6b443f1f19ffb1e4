#pragma once

namespace vesk {

struct sfsstat {};

struct vesk_custom_time {
  unsigned long halves[2];
};

}  // namespace vesk
