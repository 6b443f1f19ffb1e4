// Looks inside the file-access layer, and says what is wrong there.

#ifndef SIMULATION_INSPECTOR_H_
#define SIMULATION_INSPECTOR_H_

#include <string>

#include "files/file_system.h"

namespace vesk {

// Of the layer's own namespace, whose classes let it in.
class Inspector {
 public:
  // Nothing, or an invariant that does not hold. `idle`: no request runs, so nothing is reserved.
  // `ends`: so many jobs are being ended at this moment. What a suspended fiber has locked is in
  // the middle of a change, and is left out.
  static std::string Check(const FileSystem& files, bool idle, std::uint64_t ends);

  static std::string Describe(const FileSystem& files);
};

}  // namespace vesk

namespace vesk_simulation {
using vesk::Inspector;
}

#endif  // SIMULATION_INSPECTOR_H_
