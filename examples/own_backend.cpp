// The cache over a store of your own: here one that keeps its files in memory, enciphered.

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <map>
#include <vector>

#include "files/file_system.h"
#include "runtime/backend.h"
#include "runtime/dispatcher.h"
#include "runtime/logger.h"
#include "runtime/name_operation.h"
#include "runtime/reaper.h"
#include "runtime/settings.h"
#include "runtime/store.h"
#include "runtime/transfer.h"
#include "vesk/VeskBundler.h"

namespace {

class SecretStore final : public vesk::VeskBackend {
 public:
  // Called by many threads. A slower store would return at once and call End from one of its own.
  void Start(vesk::JobQueue& jobs) override {
    while (!jobs.Empty()) {
      vesk::VeskJob* const job = jobs.Pop();
      End(job, Perform(*job));  // without the mutex: whoever is told may start another job
    }
  }

  void CancelAll(int error) override { cancelled_ = error; }  // no job waits in here

 private:
  static unsigned char Cipher(unsigned char byte) { return byte ^ ('a' ^ 'A'); }

  // Returns 0 or a positive errno value.
  int Perform(const vesk::VeskJob& job) {
    const vesk::MutexLock guard(mutex_);
    if (cancelled_ != 0) return cancelled_;
    try {
      if (job.GetType() == vesk::JOB_TYPE_IO) return Move(vesk::Transfer(job.GetOP()));
      return OnName(vesk::NameOperation(job.GetOP()));
    } catch (const std::exception&) {  // no memory, or too large for a vector
      return ENOMEM;
    }
  }

  int Move(const vesk::Transfer& transfer) VESK_REQUIRES(mutex_) {
    const auto found = files_.find(transfer.name);
    if (found == files_.end()) return ENOENT;
    std::vector<unsigned char>& file = found->second;
    const std::size_t end = transfer.offset + transfer.length;
    if (transfer.is_write && file.size() < end) file.resize(end, Cipher(0));  // a gap is zeros
    const std::size_t begin = std::min(transfer.offset, file.size());
    const std::size_t count = std::min(end, file.size()) - begin;
    unsigned char* const kept = file.data() + begin;
    if (transfer.is_write) {
      std::transform(transfer.data, transfer.data + count, kept, Cipher);
    } else {
      std::transform(kept, kept + count, transfer.data, Cipher);
      transfer.StoreCount(count);  // fewer than asked for: the file ends there
    }
    return 0;
  }

  int OnName(const vesk::NameOperation& operation) VESK_REQUIRES(mutex_) {
    const auto file = files_.find(operation.name);
    if (file == files_.end()) return ENOENT;
    if (operation.code == vesk::OPCODE_SYNC) return 0;  // as safe as it gets here
    if (operation.code != vesk::OPCODE_STAT) return ENOTSUP;
    auto& info = operation.ResultAs<vesk::FileInfo>();
    info.size = file->second.size();
    info.mode = S_IFREG | 0600;
    return 0;
  }

  std::atomic<int> cancelled_{0};
  vesk::Mutex mutex_;
  std::map<std::string, std::vector<unsigned char>> files_ VESK_GUARDED_BY(mutex_) = {
      {"note", {'h', 'E', 'L', 'L', 'O'}}};
};

}  // namespace

int main() {
  // What VeskRuntime does for the stores that it knows; each line needs some of those above.
  vesk::Settings settings;
  vesk::Logger logger({});
  vesk::VeskThreadPool pool;
  vesk::VeskEnv environment{&pool, &logger, &settings};
  vesk::gEnv = &environment;
  vesk::Reaper reaper(pool, 1);
  SecretStore backend;
  vesk::VeskBundler bundler(backend, vesk::Clock::System());
  bundler.dispatcher().OnEnd([&reaper](const std::string& name) { reaper.JobEnded(name); });
  vesk::Store store(bundler);
  vesk::FileSystem files({bundler, vesk::Clock::System(), &reaper, nullptr}, store);

  vesk::OpenOptions options;
  options.write = true;
  std::unique_ptr<vesk::FileHandle> file;
  vesk::Status status = files.Open("note", options, &file);
  char text[13] = "";
  std::size_t count = 0;
  if (status.ok()) status = file->Append(", World", 7);
  if (status.ok()) status = file->Sync();
  if (status.ok()) file->Advise(vesk::Advice::kDontNeed, 0, 12);  // or memory would answer
  if (status.ok()) status = file->ReadAt(text, 12, 0, &count);
  if (status.ok()) status = file->Close();
  std::printf("%s\n", status.ok() ? text : status.Message().c_str());
  return status.ok() ? 0 : 1;
}
