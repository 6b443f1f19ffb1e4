#pragma once

namespace vesk {

struct VeskLock {};

}  // namespace vesk
