#include "runtime/signals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace vesk {

namespace {

int Checked(int fd, const char* what) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
  return fd;
}

sigset_t SetOf(const std::vector<int>& signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal_number : signals) sigaddset(&set, signal_number);
  return set;
}

}  // namespace

SignalWatcher::SignalWatcher(const std::vector<int>& signals, std::function<void(int)> handle)
    : watched_(SetOf(signals)),
      handle_(std::move(handle)),
      signals_(Checked(signalfd(-1, &watched_, SFD_CLOEXEC), "signalfd")),
      end_(Checked(eventfd(0, EFD_CLOEXEC), "eventfd")) {
  pthread_sigmask(SIG_BLOCK, &watched_, &before_);
  thread_ = std::thread([this] { Work(); });
}

SignalWatcher::~SignalWatcher() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(end_.fd(), &one, sizeof one);  // cannot fail
  thread_.join();
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void SignalWatcher::Work() {
  pollfd sources[] = {{signals_.fd(), POLLIN, 0}, {end_.fd(), POLLIN, 0}};
  while (sources[1].revents == 0) {
    if (poll(sources, 2, -1) < 0) continue;  // interrupted
    signalfd_siginfo info;
    if ((sources[0].revents & POLLIN) != 0 && read(signals_.fd(), &info, sizeof info) > 0) {
      handle_(static_cast<int>(info.ssi_signo));
    }
  }
}

}  // namespace vesk
