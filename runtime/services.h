// What an open file needs of the runtime.

#ifndef RUNTIME_SERVICES_H_
#define RUNTIME_SERVICES_H_

namespace vesk {

class Clock;
class Reaper;
class RetryDecorator;
class VeskBundler;

// All borrowed; they outlive the files.
struct Services {
  VeskBundler& bundler;
  Clock& clock;
  Reaper* reaper = nullptr;         // null: finished jobs are only collected by later requests
  RetryDecorator* retry = nullptr;  // null: a failed write-back loses its bytes
};

}  // namespace vesk

#endif  // RUNTIME_SERVICES_H_
