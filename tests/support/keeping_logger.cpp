#include "tests/support/keeping_logger.h"

namespace vesk_test {

#define KEEP(operation)                                                               \
  void KeepingLogger::operation(const vesk::LogSite& site, const char* format, ...) { \
    va_list arguments;                                                                \
    va_start(arguments, format);                                                      \
    Keep(#operation, site, format, arguments);                                        \
    va_end(arguments);                                                                \
  }

KEEP(Debug)
KEEP(Trace)
KEEP(Info)
KEEP(Dump)
KEEP(Error)

}  // namespace vesk_test
