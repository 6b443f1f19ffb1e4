#include "vesk/VeskEnv.h"

namespace vesk {

VeskEnv* gEnv = nullptr;

}  // namespace vesk
