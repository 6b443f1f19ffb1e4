#include "simulation/inspector.h"

#include <algorithm>
#include <sstream>

#include "files/file_system_private.h"
#include "files/node.h"
#include "files/range.h"

namespace vesk {

namespace {

std::string StateOf(const VeskBuffer& block) {
  std::string text;
  if (block.GetState(VeskBuffer::INV) != 0) text += " INV";
  if (block.GetState(VeskBuffer::DIRTY) != 0) text += " DIRTY";
  if (block.GetState(VeskBuffer::VALID) != 0) text += " VALID";
  if (block.GetState(VeskBuffer::IOR) != 0) text += " IOR";
  if (block.GetState(VeskBuffer::IOW) != 0) text += " IOW";
  if (block.GetState(VeskBuffer::END_OF_FILE) != 0) text += " EOF";
  return text;
}

std::string DescribeBlock(const VeskBuffer& block) {
  std::ostringstream text;
  text << "[" << block.off << ", " << block.off + block.blen << ") data " << block.dlen << " dirty "
       << block.dirty_length << " size " << block.size << StateOf(block)
       << (block.job == nullptr                         ? ""
           : block.job->GetJobState() == JOB_STATE_DONE ? ", job ended"
                                                        : ", job");
  return text.str();
}

// Nothing, or what one block is not allowed to be. Between two requests a block of this layer is
//  - INV never: a block whose read failed is taken out, one whose write failed is dirty again;
//  - without END_OF_FILE: where the file ends is the file's business;
//  - VALID, perhaps DIRTY, without a job; or IOR, or DIRTY with IOW, with one.
std::string WrongBlock(const VeskBuffer& block) {
  const bool reads = block.GetState(VeskBuffer::IOR) != 0;
  const bool writes = block.GetState(VeskBuffer::IOW) != 0;
  if (block.GetState(VeskBuffer::INV) != 0) return "is invalid";
  if (block.GetState(VeskBuffer::END_OF_FILE) != 0 && !reads && !writes)
    return "has the end of file";
  if ((block.job != nullptr) != (reads || writes)) return "has a job that its state denies";
  if (reads && writes) return "is read and written at once";
  if (block.blen > block.size || block.blen == 0) return "is longer than its memory, or empty";
  // A read in flight may have stored its count already, and nothing is dirty then.
  if (block.dlen > block.blen || block.dirty_length > block.dlen) return "has more bytes than room";
  if (reads && block.dirty_length != 0) return "is dirty and read";
  const bool dirty = block.GetState(VeskBuffer::DIRTY) != 0;
  if (!reads && !writes && dirty != (block.dirty_length != 0)) return "is dirty and is not";
  return "";
}

}  // namespace

std::string Inspector::Describe(const FileSystem& files) VESK_NO_THREAD_SAFETY_ANALYSIS {
  std::ostringstream text;
  text << "  memory used " << files.memory_used() << "\n";
  for (const std::shared_ptr<Node>& node : files.self_->nodes_) {
    text << "  file '" << node->name_ << "': size " << node->core_.size << ", dirty "
         << node->core_.dirty << ", in flight " << node->core_.in_flight << ", handles "
         << node->handles << (node->core_.broken ? ", BROKEN" : "") << "\n";
    for (const auto& [begin, range] : node->ranges_) {
      text << "    from " << begin << (range->lock.locked() ? ", locked" : "") << "\n";
      if (range->stream_ == nullptr) continue;
      for (const VeskBuffer* const block : range->stream_->buffers) {
        text << "      " << DescribeBlock(*block) << "\n";
      }
    }
  }
  return text.str();
}

namespace {

// A file's ranges and blocks, added up and compared.
struct Sum {
  std::uint64_t cached = 0;
  std::uint64_t dirty = 0;
  std::uint64_t in_flight = 0;
  std::uint64_t written = 0;
};

}  // namespace

std::string Inspector::Check(const FileSystem& files, bool idle,
                             std::uint64_t ends) VESK_NO_THREAD_SAFETY_ANALYSIS {
  const FileSystem::Private& all = *files.self_;
  if (all.mutex_.locked()) return "";
  std::uint64_t cached = 0;
  bool whole = idle;
  for (const std::shared_ptr<Node>& node : all.nodes_) {
    if (node->core_.broken) return "";
    if (node->mutex_.locked()) {
      whole = false;
      continue;
    }
    const std::string file = "file '" + node->name_ + "': ";
    Sum sum;
    bool all_seen = true;
    std::uint64_t reads = 0;
    std::uint64_t unfinished = 0;
    std::uint64_t pending = 0;
    std::uint64_t at = 0;
    for (const auto& [begin, range] : node->ranges_) {
      // The boundaries change under the node's mutex alone.
      if (begin != at || range->begin() != begin || range->end() <= begin) {
        return file + "the ranges do not follow each other at " + std::to_string(at);
      }
      at = range->end();
    }
    if (at != std::numeric_limits<std::uint64_t>::max()) return file + "nothing covers the end";
    for (const std::unique_ptr<Range>& range : node->all_) {
      // A range that gets the blocks of another one is locked by that one's lock until it is in
      // use.
      const bool handed_over = range->end() == 0 && range->stream_ != nullptr;
      if (range->lock.locked() || handed_over) {
        all_seen = false;
        continue;
      }
      if (range->stream_ == nullptr) {
        if (!range->uses_.empty()) return file + "a range that is not in use has blocks";
        continue;
      }
      const VeskStream& stream = *range->stream_;
      pending += stream.pending_io;
      if (stream.buffers.size() != range->uses_.size()) return file + "a block is not known";
      std::uint64_t end = range->begin();
      auto use = range->uses_.begin();
      for (const VeskBuffer* const block : stream.buffers) {
        const std::string what = file + "block " + DescribeBlock(*block) + " ";
        if (use->block != block || use->off != block->off) return what + "is another one";
        if (block->off < end) return what + "begins before " + std::to_string(end);
        end = block->off + block->blen;
        if (end > range->end()) return what + "reaches beyond " + std::to_string(range->end());
        const std::string wrong = WrongBlock(*block);
        if (!wrong.empty()) return what + wrong;
        const bool reading = block->GetState(VeskBuffer::IOR) != 0;
        // What is cut is cut under the turn, the size last.
        const bool beyond = !reading && block->off + block->dlen > node->core_.size;
        if (beyond && !node->turn_.IsTakenFrom(nullptr)) return what + "has data behind the end";
        if (reading) ++reads;
        if (reading && block->job->GetJobState() != JOB_STATE_DONE) ++unfinished;
        ++use;
      }
      const Range::Sums now = range->SumUp();
      if (now.cached != range->sums_.cached || now.dirty != range->sums_.dirty ||
          now.written != range->sums_.written || now.in_flight != range->sums_.in_flight) {
        return file + "a range's sums are not those of its blocks";
      }
      sum.cached += now.cached;
      sum.dirty += now.dirty;
      sum.in_flight += now.in_flight;
      sum.written += now.written;
      const bool active = range->entry.empty();
      if (active != now.IsActive()) return file + "a range is active and is not";
    }
    cached += sum.cached;
    whole = whole && all_seen;
    if (!all_seen) continue;
    // A read is counted off before its end can be seen, and its block has it until it is collected.
    if (pending > reads || unfinished > pending + ends) {
      return file + std::to_string(unfinished) + " reads are on their way, the streams count " +
             std::to_string(pending);
    }
    if (sum.cached != node->core_.cached || sum.dirty != node->core_.dirty ||
        sum.in_flight != node->core_.in_flight || sum.written != node->core_.written) {
      return file + "the sums are not those of its ranges";
    }
  }
  if (whole && cached != files.memory_used()) {
    return std::to_string(files.memory_used()) + " bytes are accounted for, blocks have " +
           std::to_string(cached);
  }
  return "";
}

}  // namespace vesk
