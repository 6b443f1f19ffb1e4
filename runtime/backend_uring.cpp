#include "runtime/backend_uring.h"

#include <liburing.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

#include "runtime/transfer.h"
#include "vesk/VeskJob.h"

namespace vesk {

namespace {

constexpr std::size_t kThreads = 4;

// The kernel's own bound for one transfer is a page below 2 GiB; this one suits O_DIRECT too.
constexpr std::size_t kMostPerEntry = 1UL << 30;

void Check(int result, const std::string& what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), "io_uring: " + what);
}

bool IsTransfer(const VeskJob& job) {
  const unsigned int code = job.GetOP().GetOpcode();
  return job.GetType() == JOB_TYPE_IO && (code == OPCODE_READ || code == OPCODE_WRITE);
}

}  // namespace

// The kernel's queues, and a counter that each completion raises. The counter is what the reaping
// thread sleeps on: unlike the ring, it can also be raised from here, and cannot refuse it.
class UringBackend::Ring {
 public:
  explicit Ring(unsigned entries) : counter_(eventfd(0, EFD_CLOEXEC)) {
    Check(counter_.fd() < 0 ? -errno : 0, "no descriptor for its completions");
    Check(io_uring_queue_init(entries, &ring_, 0),
          "no ring of " + std::to_string(entries) + " entries");
    try {
      CheckOperations();
      Check(io_uring_register_eventfd(&ring_, counter_.fd()), "completions cannot be waited for");
    } catch (...) {
      io_uring_queue_exit(&ring_);
      throw;
    }
  }
  ~Ring() { io_uring_queue_exit(&ring_); }
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  io_uring* get() { return &ring_; }
  unsigned entries() const { return ring_.sq.ring_entries; }

  void Wake() { eventfd_write(counter_.fd(), 1); }

  // Returns when there was a completion or a Wake since it last did; at times without one.
  void Sleep() {
    eventfd_t count = 0;
    eventfd_read(counter_.fd(), &count);
  }

 private:
  void CheckOperations() {
    io_uring_probe* const known = io_uring_get_probe_ring(&ring_);
    const bool enough = known != nullptr && io_uring_opcode_supported(known, IORING_OP_READ) != 0 &&
                        io_uring_opcode_supported(known, IORING_OP_WRITE) != 0;
    io_uring_free_probe(known);
    Check(enough ? 0 : -ENOSYS, "reads and writes are not offered");
  }

  const Descriptor counter_;
  io_uring ring_ = {};
};

UringBackend::UringBackend(const Options& options)
    : files_(std::make_shared<PosixFiles>(options.files)),
      ring_(std::make_unique<Ring>(options.entries)),
      slots_(ring_->entries()),
      threads_(kThreads, files_) {
  threads_.ReportEndsTo(*this);
  finished_.reserve(slots_.size());
  short_.reserve(slots_.size());
  free_.reserve(slots_.size());
  for (Slot& slot : slots_) free_.push_back(&slot);
  thread_ = std::thread([this] { Work(); });
}

UringBackend::~UringBackend() {
  {
    const MutexLock guard(mutex_);
    ending_ = true;
  }
  ring_->Wake();
  thread_.join();
}

int UringBackend::Probe() {
  try {
    const Ring ring(1);
    return 0;
  } catch (const std::system_error& error) {
    return error.code().value();
  }
}

void UringBackend::Start(JobQueue& jobs) {
  JobQueue for_threads;
  int cancelled = 0;
  {
    const MutexLock guard(mutex_);
    cancelled = cancelled_;
    if (cancelled == 0) {
      jobs.MoveIf([](const VeskJob& job) { return !IsTransfer(job); }, for_threads);
      waiting_.Take(jobs);
      FillRing(for_threads);
    }
  }
  while (!jobs.Empty()) End(jobs.Pop(), cancelled);
  HandToThreads(for_threads);
}

void UringBackend::Run(VeskJob* job) { End(job, files_->Perform(*job)); }

bool UringBackend::Withdraw(VeskJob* job) {
  {
    const MutexLock guard(mutex_);
    if (waiting_.Holds(job)) {
      waiting_.Remove(job);
      return true;
    }
  }
  return threads_.Withdraw(job);
}

void UringBackend::CancelAll(int error) {
  JobQueue waiting;
  {
    const MutexLock guard(mutex_);
    cancelled_ = error;
    waiting.Take(waiting_);
  }
  while (!waiting.Empty()) End(waiting.Pop(), error);
  threads_.CancelAll(error);
}

// Begins what waits and finds a place, with one system call; again if the kernel refused it, since
// then no end may come that would begin the rest.
void UringBackend::FillRing(JobQueue& for_threads) {
  do {
    while (!waiting_.Empty() && !free_.empty()) {
      VeskJob* const job = waiting_.Pop();
      if (!Enter(job)) for_threads.Push(job);
    }
    Submit(for_threads);
  } while (!waiting_.Empty() && !free_.empty());
}

// False: the transfer's file is not open, or the transfer needs memory of its own.
//   Before   a slot is free
bool UringBackend::Enter(VeskJob* job) {
  auto file = files_->Find(Transfer(job->GetOP()));
  if (file == nullptr) return false;
  Slot& slot = *free_.back();
  free_.pop_back();
  slot.file = std::move(file);
  slot.done = 0;
  Prepare(slot, job);
  return true;
}

// Writes an entry for what is left of the transfer. There is room for it: no more transfers than
// the ring has entries have slots, and Submit leaves no entry behind.
void UringBackend::Prepare(Slot& slot, VeskJob* job) {
  const Transfer transfer(job->GetOP());
  const int fd = slot.file->fd();
  unsigned char* const data = transfer.data + slot.done;
  const auto length = static_cast<unsigned>(std::min(transfer.length - slot.done, kMostPerEntry));
  const std::uint64_t offset = transfer.offset + slot.done;
  io_uring_sqe* const entry = io_uring_get_sqe(ring_->get());
  if (transfer.is_write) {
    io_uring_prep_write(entry, fd, data, length, offset);
  } else {
    io_uring_prep_read(entry, fd, data, length, offset);
  }
  io_uring_sqe_set_data(entry, &slot);
  slot.job.store(job, std::memory_order_release);
}

void UringBackend::Submit(JobQueue& refused) {
  while (io_uring_sq_ready(ring_->get()) > 0) {
    submissions_.fetch_add(1, std::memory_order_relaxed);
    const int taken = io_uring_submit(ring_->get());
    if (taken <= 0 && taken != -EINTR) TakeBack(refused);
  }
}

// Empties the submission queue of what the kernel does not take now, short of memory, say. It looks
// at the queue during Submit's call only.
void UringBackend::TakeBack(JobQueue& refused) {
  io_uring_sq& queue = ring_->get()->sq;
  const unsigned begin = *queue.khead;
  for (unsigned i = begin; i != queue.sqe_tail; ++i) {
    const io_uring_sqe& entry = queue.sqes[i & queue.ring_mask];
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel hands back the number it was given
    auto* const slot = reinterpret_cast<Slot*>(entry.user_data);
    refused.Push(slot->job.load(std::memory_order_acquire));
    slot->file.reset();
    free_.push_back(slot);
  }
  queue.sqe_head = queue.sqe_tail = begin;
  io_uring_smp_store_release(queue.ktail, begin);
}

void UringBackend::HandToThreads(JobQueue& jobs) {
  if (!jobs.Empty()) threads_.Start(jobs);
}

void UringBackend::Work() {
  do {
    ring_->Sleep();
    Reap();
  } while (GoOn());
}

// Ends what is complete; the mutex, which a submission may hold for long, is not needed for that.
void UringBackend::Reap() {
  JobQueue ended;
  JobQueue failed;
  unsigned count = 0;
  unsigned head = 0;
  io_uring_cqe* completion = nullptr;
  io_uring_for_each_cqe(ring_->get(), head, completion) {
    auto* const slot = static_cast<Slot*>(io_uring_cqe_get_data(completion));
    Reap(*slot, completion->res, ended, failed);
    ++count;
  }
  io_uring_cq_advance(ring_->get(), count);
  while (!ended.Empty()) End(ended.Pop(), 0);
  HandToThreads(failed);
}

void UringBackend::Reap(Slot& slot, int result, JobQueue& ended, JobQueue& failed) {
  VeskJob* const job = slot.job.load(std::memory_order_acquire);
  const Transfer transfer(job->GetOP());
  if (result > 0) slot.done += static_cast<std::size_t>(result);
  const bool end_of_file = result == 0 && !transfer.is_write;
  if (result >= 0 && (slot.done == transfer.length || end_of_file)) {
    if (!transfer.is_write) transfer.StoreCount(slot.done);
    ended.Push(job);
  } else if (result > 0) {
    short_.push_back(&slot);
    return;
  } else {
    failed.Push(job);  // a write that moved nothing, too
  }
  slot.file.reset();
  finished_.push_back(&slot);
}

// Gives slots back and begins what now finds one. False: nothing is left, and nothing will come.
bool UringBackend::GoOn() {
  JobQueue for_threads;
  bool more = false;
  {
    const MutexLock guard(mutex_);
    for (Slot* const slot : finished_) free_.push_back(slot);
    for (Slot* const slot : short_) Prepare(*slot, slot->job.load(std::memory_order_acquire));
    FillRing(for_threads);
    more = !ending_ || free_.size() < slots_.size() || !waiting_.Empty();
  }
  finished_.clear();
  short_.clear();
  HandToThreads(for_threads);
  return more;
}

}  // namespace vesk
