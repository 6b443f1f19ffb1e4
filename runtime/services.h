// What the file-access layer needs of the runtime.

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
  Reaper* reaper = nullptr;  // null: finished jobs are only collected by later requests
  // Null: a write-back that fails ends. Its bytes stay dirty in their file all the same, which
  // writes them again.
  RetryDecorator* retry = nullptr;
};

}  // namespace vesk

#endif  // RUNTIME_SERVICES_H_
