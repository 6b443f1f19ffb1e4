// What is inside a handle.

#ifndef FILES_FILE_HANDLE_PRIVATE_H_
#define FILES_FILE_HANDLE_PRIVATE_H_

#include <atomic>
#include <memory>
#include <string>

#include "files/file_handle.h"
#include "files/file_system.h"
#include "files/node.h"
#include "files/read_ahead.h"

namespace vesk {

struct FileHandle::Private {
  Private(FileSystem::Private& owner, std::shared_ptr<Node> file, std::string opened_as,
          bool for_writing, unsigned block_size, unsigned max_ahead)
      : files(owner),
        node(std::move(file)),
        name(std::move(opened_as)),
        writable(for_writing),
        ahead(block_size, max_ahead),
        seen(node->failures().count()) {}

  Outcome Close();
  bool CanWrite() const { return writable && !closed; }
  Status Report(const char* what, const Outcome& outcome) {
    return outcome.error == 0 ? Status() : Failure(what, outcome);
  }
  Status Failure(const char* what, const Outcome& outcome);

  FileSystem::Private& files;
  const std::shared_ptr<Node> node;
  const std::string name;
  const bool writable;
  ReadAhead ahead;
  WriteFailures::Seen seen;
  std::atomic<bool> closed{false};
  std::atomic<bool> discarded{false};  // and nothing written through it since
};

}  // namespace vesk

#endif  // FILES_FILE_HANDLE_PRIVATE_H_
