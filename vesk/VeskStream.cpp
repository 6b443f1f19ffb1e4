#include "vesk/VeskStream.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <new>

#include "vesk/VeskEnv.h"
#include "vesk/VeskException.h"
#include "vesk/VeskOP.h"
#include "vesk/VeskThreadPool.h"

namespace vesk {

namespace {

// --- Log lines -----------------------------------------------------------------------------------

// The number of each place that logs. Numbers never change and are never reused: tests, tools and
// readers of old logs know them. The three lines of a failed check share one.
namespace site {
// VeskBuffer
constexpr int kBufOutOfMemory = 101, kBufDestroyBusy = 108, kBufDestroyDirty = 110, kBufDump = 121;
constexpr int kBufRemoveEof = 129;
constexpr int kBwLengthZero = 140, kBwBelow = 143, kBwBeyond = 146, kBwNotValid = 151,
              kBwDirtyBeyondData = 166;
constexpr int kBrLengthZero = 178, kBrBelow = 181, kBrBeyond = 184, kBrNotValid = 189,
              kBrTrace = 192;
constexpr int kReduceTrace = 208, kReduceRange = 210, kReduceDirtyBeyondData = 217;
constexpr int kRioDirty = 226, kRioLength = 229, kRioDirtyLength = 231, kRioNoOperation = 234,
              kRioNoJob = 249, kRioTrace = 254;
constexpr int kWioEnter = 271, kWioDirty = 274, kWioDirtyBeyondData = 284, kWioNoOperation = 287,
              kWioNoJob = 297, kWioTrace = 299;
constexpr int kWaitNoJob = 328, kWaitDone = 341, kWaitError = 353, kWaitEof = 362, kWaitTrace = 370;
constexpr int kMarkOutOfMemory = 384;
// VeskStream
constexpr int kStreamOutOfMemory = 398;
constexpr int kPosTail = 411, kPosTailNegative = 413, kPosHeadNegative = 420, kPosHead = 423;
constexpr int kMaxLen = 441, kStreamDump = 462;
constexpr int kAllocDumpBegin = 477, kAllocDumpEnd = 479, kAllocRange = 480, kAllocTooBig = 491,
              kAllocTrace = 493, kAllocOutOfMemory = 496, kAllocReading = 500, kAllocData = 502;
constexpr int kRwFindBuffer = 520, kRwDeleteBuffer = 650, kRwTrunc = 671, kRwNegativeTail = 675,
              kRwShrinking = 679, kRwNegativeHead = 687, kRwNoAction = 700, kRwHole = 707,
              kRwIoDone = 722, kRwLengthZero = 734, kRwEof = 738, kRwNotHere = 753,
              kRwReturning = 756, kWriteNegative = 785;
constexpr int kAheadPending = 806, kAheadBeyond = 831, kAheadTooMany = 836;
constexpr int kFlushEnter = 851, kFlushBlock = 857;
constexpr int kDirtyException = 884;
constexpr int kTruncNegative = 915;
constexpr int kShrinkDelete = 938, kShrinkNegative = 947;
constexpr int kSplitRange = 962, kSplitKeep = 971, kSplitFirst = 979, kSplitNext = 985,
              kSplitNegativeOwn = 998, kSplitNegativeOther = 1003;
}  // namespace site

LogSite At(int line) { return LogSite("VeskStream", line); }

void AssertHead(int line) { gEnv->logger->Error(At(line), "ASSERT failure::\n"); }

[[noreturn]] void AssertTail(int line) {
  gEnv->logger->Error(At(line), "\n\n");
  throw VeskException(ERR_ASSERT);
}

// Reports a failed check and leaves. A macro, so that the message reaches the logger as a literal
// and the compiler checks its arguments. Messages keep their odd endings, with and without newline.
#define VESK_FAIL(line, ...)                    \
  do {                                          \
    AssertHead(line);                           \
    gEnv->logger->Error(At(line), __VA_ARGS__); \
    AssertTail(line);                           \
  } while (false)

// What a conversion of the texts takes. Many texts print a wide value with %d or a narrow one with
// %ld; the value is cut or widened here so that the argument has exactly the type that is read.
template <typename T>
int Int(T value) {
  return static_cast<int>(value);
}
template <typename T>
long Long(T value) {
  return static_cast<long>(value);
}
template <typename T>
long long LongLong(T value) {
  return static_cast<long long>(value);
}
unsigned long long ULongLong(unsigned long value) { return value; }
void* Ptr(const void* value) { return const_cast<void*>(value); }

const char* TrueFalse(bool value) { return value ? "TRUE" : "FALSE"; }

// --- Small things that several operations share --------------------------------------------------

// Offsets are computed without sign and may wrap; a range's length is their difference with sign.
long Signed(unsigned long value) { return static_cast<long>(value); }
unsigned long Unsigned(long value) { return static_cast<unsigned long>(value); }

// A read in flight stores its count in `dlen` while other requests look at the block, so wherever
// such a block can be met the field is read in one piece. Its end is published by the job's state,
// not by this value, hence no ordering.
unsigned int ValidLength(const VeskBuffer& block) {
  return __atomic_load_n(&block.dlen, __ATOMIC_RELAXED);
}

unsigned long BlockEnd(const VeskBuffer& block) { return block.off + block.blen; }
unsigned long DataEnd(const VeskBuffer& block) { return block.off + ValidLength(block); }

unsigned int Now() { return static_cast<unsigned int>(time(nullptr)); }

// An allocation that throws counts as one that yields nothing: both end in "Out of memory".
template <typename Make>
auto OrNull(Make make) -> decltype(make()) {
  try {
    return make();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// An operation with its arguments, or null.
template <typename Append>
std::unique_ptr<VeskOP> NewOperation(unsigned int opcode, unsigned int flags, Append append) {
  return OrNull([&] {
    std::unique_ptr<VeskOP> operation(new VeskOP(opcode, flags));
    if (operation != nullptr) append(*operation);
    return operation;
  });
}

// A job that owns the operation, or null. Memory for the job is had before the operation is given
// away: when there is none, the operation stays with its owner.
VeskJob* NewJob(std::unique_ptr<VeskOP>& operation) {
  return OrNull([&] { return new VeskJob(JOB_TYPE_IO, operation.release()); });
}

class MutexHolder {
 public:
  explicit MutexHolder(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~MutexHolder() { pthread_mutex_unlock(&mutex_); }
  MutexHolder(const MutexHolder&) = delete;
  MutexHolder& operator=(const MutexHolder&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

bool Mark(VeskThreadPool& pool, const std::string& name) {
  const MutexHolder holder(pool.tp_mutex);
  try {
    pool.pending_streams[name] = 1;
  } catch (const std::bad_alloc&) {
    return false;
  }
  pthread_cond_signal(&pool.tp_cond);
  return true;
}

// Asks the thread pool to collect the finished jobs of the stream `name`.
void MarkForReaping(const std::string& name) {
  VeskThreadPool* const pool = gEnv->thread_pool;
  if (pool == nullptr) return;
  // Failed only after the mutex was given up: the logger is never called under it.
  if (!Mark(*pool, name)) VESK_FAIL(site::kMarkOutOfMemory, "Out of memory");
}

// What makes a block of no use to a copy, apart from a job in flight: its last job failed.
bool HasFailed(const VeskBuffer& block) {
  return block.GetState(VeskBuffer::INV) != 0 && block.rc != 0;
}

}  // namespace

// === VeskBuffer ==================================================================================

VeskBuffer::VeskBuffer(unsigned long offset, unsigned int length)
    : size(length), off(offset), dlen(0), blen(length), dirty_length(0) {
  bptr = new (std::nothrow) unsigned char[length];
  if (bptr == nullptr) VESK_FAIL(site::kBufOutOfMemory, "Out of memory");
  state = VALID;  // without data: emptiness is told by dlen
  ltime = 0;
  skip = 0;
  rc = 0;
  job = nullptr;
}

// A failed check throws out of a destructor and so ends the process, after its three lines: going
// on would lose bytes, or let a job write into freed memory.
VeskBuffer::~VeskBuffer() {
  if (GetState(IOR | IOW) != 0) {
    VESK_FAIL(site::kBufDestroyBusy, "buffer io in progress %d\n", Int(state));
  } else if (GetState(DIRTY) != 0) {
    VESK_FAIL(site::kBufDestroyDirty, "buffer dirty %d\n", Int(state));
  }
  delete[] bptr;
  bptr = nullptr;
}

unsigned int VeskBuffer::GetState(unsigned int mask) const {
  if (mask == 255) return state;
  return (state & mask) != 0 ? 1 : 0;
}

void VeskBuffer::Skip() {
  if (GetState(VALID | END_OF_FILE) != 0) ++skip;
}

void VeskBuffer::Dump() const {
  struct Name {
    unsigned int bit;
    const char* text;
  };
  static constexpr Name kNames[] = {{INV, "INV"}, {DIRTY, "DIRTY"}, {VALID, "VALID"},
                                    {IOR, "IOR"}, {IOW, "IOW"},     {END_OF_FILE, "EOF"}};
  const char* name = "INV";  // of a state without any bit
  for (const Name& candidate : kNames) {
    if ((state & candidate.bit) != 0) {
      name = candidate.text;
      break;
    }
  }
  gEnv->logger->Dump(At(site::kBufDump),
                     "Dump BUFFER(%p) bptr:%p size:%u state:%d(%s) off:%lld dlen:%d blen:%d "
                     "skip:%d ltime:%d rc:%d job:%p dirty_length=%d\n",
                     Ptr(this), Ptr(bptr), size, Int(state), name, LongLong(off),
                     Int(ValidLength(*this)), Int(blen), Int(skip), Int(ltime), rc, Ptr(job),
                     Int(dirty_length));
}

void VeskBuffer::RemoveEOF(std::string& name) {
  if (GetState(END_OF_FILE) == 0) return;
  gEnv->logger->Debug(At(site::kBufRemoveEof), "%s Remove EOF\n", name.c_str());
  state &= ~END_OF_FILE;
}

unsigned int VeskBuffer::Write(const unsigned char* source, unsigned long offset,
                               unsigned int length) {
  skip = 0;
  if (length == 0) VESK_FAIL(site::kBwLengthZero, "Length is 0\n");
  if (offset < off) {
    VESK_FAIL(site::kBwBelow, "Offset too small O:%lld B_O:%lld\n", LongLong(offset),
              LongLong(off));
  }
  if (offset >= BlockEnd(*this)) {  // L and DL are the block's lengths, not the request's
    VESK_FAIL(site::kBwBeyond, "Offset too big O:%lld B_O:%lld L:%d DL:%d\n", LongLong(offset),
              LongLong(off), Int(ValidLength(*this)), Int(dirty_length));
  }
  if (GetState(IOR | IOW) != 0 || HasFailed(*this)) {
    VESK_FAIL(site::kBwNotValid, "Buffer is not valid %d\n", Int(state));
  }
  if (GetState(INV) != 0) throw VeskException(rc);  // rc is 0: refused without a line

  // Clipped by what is left, not by where the request ends: that end may lie beyond 2^64.
  const auto count =
      static_cast<unsigned int>(std::min<unsigned long>(length, BlockEnd(*this) - offset));
  std::memcpy(bptr + (offset - off), source, count);

  // The dirty run starts at the block's first byte: one write-back covers everything written.
  const auto end_in_block = static_cast<unsigned int>(offset + count - off);
  dlen = std::max(dlen, end_in_block);
  dirty_length = std::max(dirty_length, end_in_block);
  state = (state & ~VALID) | DIRTY;
  if (dirty_length > dlen) {
    VESK_FAIL(site::kBwDirtyBeyondData, "DBL: %ld BL: %ld\n", Long(dirty_length), Long(dlen));
  }
  return count;
}

unsigned int VeskBuffer::Read(unsigned char* destination, unsigned long offset,
                              unsigned int length) {
  skip = 0;
  if (length == 0) VESK_FAIL(site::kBrLengthZero, "Length is 0\n");
  if (offset < off) {
    VESK_FAIL(site::kBrBelow, "Offset too small O:%lld B_O:%lld\n", LongLong(offset),
              LongLong(off));
  }
  if (offset >= DataEnd(*this)) {
    VESK_FAIL(site::kBrBeyond, "Offset too big O:%lld B_O:%lld B_DL:%d\n", LongLong(offset),
              LongLong(off), Int(ValidLength(*this)));
  }
  if (GetState(IOR) != 0 || HasFailed(*this)) {
    VESK_FAIL(site::kBrNotValid, "Buffer is not valid %d\n", Int(state));
  }
  gEnv->logger->Debug(At(site::kBrTrace), "Read buffer O:%lld L:%d B_O:%lld B_L:%d\n",
                      LongLong(offset), Int(length), LongLong(off), Int(dlen));
  if (GetState(INV) != 0) throw VeskException(rc);  // rc is 0: refused without a further line

  const auto count =
      static_cast<unsigned int>(std::min<unsigned long>(length, DataEnd(*this) - offset));
  std::memcpy(destination, bptr + (offset - off), count);
  return count;
}

void VeskBuffer::ReduceLength(std::string& name, int new_length) {
  gEnv->logger->Debug(At(site::kReduceTrace), "%s ReducingLength NL:%d L:%d\n", name.c_str(),
                      new_length, Int(blen));
  const auto length = static_cast<unsigned int>(new_length);
  if (new_length < 0 || length > blen) {  // the text is shared with the destructor's check
    VESK_FAIL(site::kReduceRange, "buffer dirty %d\n", Int(state));
  }
  dlen = std::min(dlen, length);
  dirty_length = std::min(dirty_length, length);
  skip = 0;
  blen = length;
  if (dirty_length > dlen) {
    VESK_FAIL(site::kReduceDirtyBeyondData, "DBL: %ld BL: %ld\n", Long(dirty_length), Long(dlen));
  }
}

void VeskBuffer::DoReadIO(VeskLock* lock, VeskBundler* bundler, std::string& name, bool wait,
                          sfsstat* /*stat*/, VeskStream* stream) {
  skip = 0;
  if (GetState(DIRTY) != 0) VESK_FAIL(site::kRioDirty, "Buffer is dirty\n");
  if (dlen != 0) VESK_FAIL(site::kRioLength, "Buffer length not valid %d\n", Int(dlen));
  if (dirty_length != 0) {
    VESK_FAIL(site::kRioDirtyLength, "Buffer dirty length not valid %d\n", Int(dirty_length));
  }

  std::unique_ptr<VeskOP> operation = NewOperation(OPCODE_READ, 0, [&](VeskOP& op) {
    op.AddString(name);
    op.AddPtr(bptr);
    op.AddInt(Int(blen));
    op.AddULong(off);
    op.AddPtr(&dlen);
  });
  if (operation == nullptr) VESK_FAIL(site::kRioNoOperation, "Out of memory");

  job = NewJob(operation);
  {
    // Counted before the job is looked at: a stream whose read could not be had stays counted.
    const MutexHolder holder(stream->stream_mutex);
    ++stream->pending_io;
  }
  if (job == nullptr) VESK_FAIL(site::kRioNoJob, "Out of memory");
  job->owner_stream = stream;

  state = (state & ~(INV | VALID)) | IOR;
  ltime = Now();
  gEnv->logger->Debug(At(site::kRioTrace), "%s Creating Read job %p O:%lld L:%d ST:%x\n",
                      name.c_str(), Ptr(job), LongLong(off), Int(blen), state);
  bundler->SubmitJob(job);
  if (wait) {
    WaitForBuffer(lock, bundler, name, true, "Read");
  } else {
    MarkForReaping(name);
  }
}

void VeskBuffer::DoWriteIO(VeskLock* lock, VeskBundler* bundler, std::string& name, bool write_mode,
                           bool wait, bool ignore_read, const char* tag, bool flush_current_only) {
  gEnv->logger->Trace(At(site::kWioEnter), "VeskBuffer::DoWriteIO(%s), flush_current_only(%s) \n",
                      name.c_str(), TrueFalse(flush_current_only));
  const bool dirty = GetState(DIRTY) != 0;
  if (dirty) {
    gEnv->logger->Debug(At(site::kWioDirty), "VeskBuffer::DoWriteIO(%s), buffer dirty \n",
                        name.c_str());
    if (flush_current_only) return;  // not even a job in flight is waited for
    // The block is cut to what it writes, so that its end in the file is its end in memory.
    blen = std::min(blen, dirty_length);
    dlen = std::min(dlen, dirty_length);
    skip = 0;
    if (dirty_length > dlen) {
      VESK_FAIL(site::kWioDirtyBeyondData, "DBL: %ld BL: %ld\n", Long(dirty_length), Long(dlen));
    }

    const unsigned int flags = write_mode ? static_cast<unsigned int>(OPFLAG_WRITE_MODE) : 0;
    std::unique_ptr<VeskOP> operation = NewOperation(OPCODE_WRITE, flags, [&](VeskOP& op) {
      op.AddString(name);
      op.AddPtr(bptr);
      op.AddULong(dirty_length);
      op.AddULong(off);
      op.AddInt(1);
    });
    if (operation == nullptr) VESK_FAIL(site::kWioNoOperation, "Out of memory");

    job = NewJob(operation);
    if (job == nullptr) VESK_FAIL(site::kWioNoJob, "Out of memory");

    gEnv->logger->Trace(At(site::kWioTrace), "%s Creating Write job %p W:%d O:%lld L:%d\n",
                        name.c_str(), Ptr(job), wait ? 1 : 0, LongLong(off), Int(dirty_length));
    state = (state & ~(INV | DIRTY | VALID)) | IOW;
    ltime = Now();
    bundler->SubmitJob(job);  // dirty_length stays until the job is reaped
  }

  if (GetState(IOW) == 0 && (ignore_read || GetState(IOR) == 0)) return;
  skip = 0;
  if (wait) {
    WaitForBuffer(lock, bundler, name, true, tag);
  } else if (dirty) {  // a job that was in flight before was announced by whoever started it
    MarkForReaping(name);
  }
}

void VeskBuffer::WaitForBuffer(VeskLock* lock, VeskBundler* bundler, std::string& name, bool wait,
                               const char* tag) {
  if (GetState(IOR | IOW) == 0) return;
  if (job == nullptr) VESK_FAIL(site::kWaitNoJob, "No job exists\n");

  if (job->GetJobState() != JOB_STATE_DONE) {
    if (!wait) return;
    VeskJob* const waited_for = job;
    gEnv->logger->Trace(At(site::kWaitTrace), "%s Wait for job %p O:%lld\n", name.c_str(),
                        Ptr(waited_for), LongLong(off));
    waited_for->RefCountInc();
    bundler->WaitForJob(waited_for, lock, tag);
    // The lock was given up: another thread may have deleted this block. Only the job that is held
    // is touched from here on, and the request starts again from the top.
    VeskJob::RefCountDec(waited_for);
    throw VeskException(ERR_WAIT);
  }

  state &= ~(DIRTY | IOR | IOW);
  ltime = Now();
  rc = job->GetReturnValue();
  VeskJob::RefCountDec(job);
  job = nullptr;
  if (rc == 0) {
    dirty_length = 0;
    state |= VALID;
    gEnv->logger->Trace(At(site::kWaitDone), "%s Job done O:%lld L:%d DL:%d\n", name.c_str(),
                        LongLong(off), Int(blen), Int(dlen));
    if (dlen != 0) return;
  } else if (rc == RC_EOF) {
    state |= VALID;
    dlen = 0;
    dirty_length = 0;
  } else {
    gEnv->logger->Error(At(site::kWaitError), "%s Block error RC:%d\n", name.c_str(), rc);
    state = INV;
    dirty_length = 0;
    dlen = 0;
    throw VeskException(rc);
  }
  state |= END_OF_FILE;
  gEnv->logger->Debug(At(site::kWaitEof), "%s End of file DL:%d ST:%d\n", name.c_str(), Int(dlen),
                      Int(state));
}

// === VeskStream: record and positions ============================================================

VeskStream::VeskStream(const std::string& file_name, VeskBundler* dispatcher,
                       unsigned long initial_offset, unsigned long initial_length,
                       unsigned long initial_cookie) try
    : name(file_name),
      bundler(dispatcher),
      io_cookie(initial_cookie),
      stream_tag(3),
      curr_off(initial_offset),
      curr_len(Signed(initial_length)),
      curr_pos(initial_offset),
      last_buffer(nullptr),
      pending_io(0),
      aux_count(0) {
  // Whatever a server's own type does by itself: both halves start at zero.
  std::memset(static_cast<void*>(&start_read_time), 0, sizeof start_read_time);
  pthread_mutex_init(&stream_mutex, nullptr);
} catch (const std::bad_alloc&) {  // of the name
  VESK_FAIL(site::kStreamOutOfMemory, "Out of memory");
}

VeskStream::~VeskStream() {
  for (VeskBuffer* block : buffers) delete block;
  buffers.clear();
  pthread_mutex_destroy(&stream_mutex);
}

void VeskStream::UpdateCurrOffLenPos(unsigned int position, unsigned long offset,
                                     unsigned int length, unsigned int data_length) {
  if (position == 2) {
    curr_len = Signed(offset + length - curr_off);
    gEnv->logger->Debug(At(site::kPosTail), "%s CurrentValidLength1 O:%lld L:%d DL:%d\n",
                        name.c_str(), LongLong(curr_off), Int(curr_len), Int(data_length));
    if (curr_len < 0) {
      VESK_FAIL(site::kPosTailNegative, "Negative CurrentValidLength1 CO:%lld L:%u O:%lld\n",
                LongLong(curr_off), length, LongLong(offset));
    }
  } else if (position == 1) {
    curr_len = Signed(Unsigned(curr_len) + (curr_off - offset));
    if (curr_len < 0) {
      VESK_FAIL(site::kPosHeadNegative, "Negative CurrentValidLength2 CO:%lld CL:%lld O:%lld\n",
                LongLong(curr_off), LongLong(curr_len), LongLong(offset));
    }
    curr_off = offset;
    gEnv->logger->Debug(At(site::kPosHead), "%s CurrentValidLength2 O:%lld L:%d DL:%d\n",
                        name.c_str(), LongLong(curr_off), Int(curr_len), Int(data_length));
  }
  curr_pos = offset;
}

unsigned long VeskStream::GetMaxLen() const {
  unsigned long longest = 0;
  for (const VeskBuffer* block : buffers) {
    if (block == nullptr || block->GetState(VeskBuffer::INV | VeskBuffer::IOR) != 0) continue;
    longest = std::max(longest, DataEnd(*block));
  }
  gEnv->logger->Debug(At(site::kMaxLen), "VeskStream::GetMaxLen len=%llu\n", ULongLong(longest));
  return longest;
}

void VeskStream::setStartReadTime(vesk_custom_time time_value) { start_read_time = time_value; }

void VeskStream::RemoveEOF() {
  for (VeskBuffer* block : buffers) block->RemoveEOF(name);
}

void VeskStream::Dump() const {
  gEnv->logger->Dump(At(site::kStreamDump), "Dump STREAM(%p) -> off:%llu len:%u pos:%llu \n",
                     Ptr(this), ULongLong(curr_off), static_cast<unsigned int>(curr_len),
                     ULongLong(curr_pos));
  for (const VeskBuffer* block : buffers) {
    if (block != nullptr) block->Dump();
  }
}

// === VeskStream: allocation ======================================================================

namespace {
constexpr unsigned int kMaxBlockBytes = 100u << 20;  // a block is smaller than this
constexpr unsigned int kMaxReadAheads = 100;         // blocks started by one call; fewer than this
constexpr unsigned int kMaxPasses = 3;  // a first block passed over more often than this is dropped
}  // namespace

VeskBuffer* VeskStream::AllocateBuffer(std::list<VeskBuffer*>::iterator where, unsigned long nexoff,
                                       unsigned long off, unsigned long maxoff, unsigned int size) {
  const bool append = where == buffers.end();
  unsigned int position = where == buffers.begin() ? 1 : 3;
  if (append) position = 2;  // an empty list too

  if (off >= maxoff) {
    gEnv->logger->Dump(At(site::kAllocDumpBegin),
                       "AllocBuf DUMP BEGIN off:%lld maxoff:%lld nexoff:%lld size:%u pos:%d\n",
                       LongLong(off), LongLong(maxoff), LongLong(nexoff), size, Int(position));
    Dump();
    gEnv->logger->Dump(At(site::kAllocDumpEnd), "AllocBuf DUMP END\n");
    VESK_FAIL(site::kAllocRange, "Endoff too big O:%lld ML:%lld", LongLong(off), LongLong(maxoff));
  }

  unsigned int length = size;
  const unsigned long gap = nexoff - off;  // a next block that lies behind `off` does not clamp
  if (!append && size > gap) length = static_cast<unsigned int>(gap);
  if (off + length > maxoff) length = static_cast<unsigned int>(maxoff - off);
  if (length >= kMaxBlockBytes) {
    VESK_FAIL(site::kAllocTooBig, "Allocation too big %ld", Long(length));
  }
  gEnv->logger->Debug(At(site::kAllocTrace), "%s New buffer O:%lld L:%d AS:%ld ML:%llu\n",
                      name.c_str(), LongLong(off), Int(length), Long(size), ULongLong(maxoff));

  std::unique_ptr<VeskBuffer> made(new (std::nothrow) VeskBuffer(off, length));
  const bool linked =
      made != nullptr && OrNull([&] { return &*buffers.insert(where, made.get()); }) != nullptr;
  if (!linked) VESK_FAIL(site::kAllocOutOfMemory, "Out of memory");
  VeskBuffer* const block = made.release();
  if (block->GetState(VeskBuffer::IOR) != 0) VESK_FAIL(site::kAllocReading, "Read io going on1");
  if (block->dlen != 0) VESK_FAIL(site::kAllocData, "Data len!=0");

  UpdateCurrOffLenPos(position, block->off, block->blen, 0);
  if (append) RemoveEOF();  // what was the last block no longer ends the file
  return block;
}

// === VeskStream: read/write engine ===============================================================

namespace {

// First rule that holds wins. at = request offset, block_end = off + blen, data_end = off + dlen.
//      the block ...                               read                   write
//  1   (end of file already known)                 dlen 0 ? SKIP : HOLE   -
//  2   starts after at                             INSERT                 INSERT
//  3   ends at or before at                        SKIP                   dirty ? SHIP : SKIP
//  4   is valid, older than refresh_interval       DISCARD                DISCARD
//  5   is being written, data_end <= at            SKIP                   SKIP
//      is being written, data_end >  at            COPY                   WAIT
//  6   is being read                               WAIT                   WAIT
//  7   data_end > at                               COPY                   -
//      EOF                                         SKIP, eof_seen         -
//      otherwise                                   dirty ? TRIM : SKIP    -
//  8   is valid and starts before at               -                      DISCARD
//      data_end >= at                              -                      COPY
//      otherwise                                   -                      dirty ? SHIP : SKIP
enum RwAction : int {  // printed: numbers never change
  ACT_SKIP = 4,
  ACT_WAIT = 5,
  ACT_INSERT = 6,
  ACT_DISCARD = 7,
  ACT_SHIP = 8,
  ACT_COPY = 9,
  ACT_HOLE = 10,
  ACT_TRIM = 11
};

// What the walk does after an action.
enum class Next { kAdvance, kSameBlock, kNewBlock, kReturn };

// One request as far as it has come.
struct RwRequest {
  VeskLock* lock;
  unsigned char* buf;
  unsigned long off;
  unsigned int len;
  bool* eof;  // null for a write
  unsigned long max_off;
  unsigned int alloc_size;
  bool is_write;
  bool flush_flag;
  sfsstat* st;
  unsigned int ret = 0;        // bytes transferred so far
  bool eof_seen = false;       // passed a block that ends the file at or before `off`
  unsigned long next_off = 0;  // of the block that a new one is put before
};

// A request on its way through the blocks of a stream.
struct RwWalk {
  VeskStream& stream;
  RwRequest& rq;
  std::list<VeskBuffer*>::iterator it;

  VeskBuffer& block() const { return **it; }
};

bool EofKnown(const RwRequest& rq) { return rq.eof_seen || *rq.eof; }

// A block that never had a job (ltime 0) holds nothing that could be stale.
bool IsStale(const VeskBuffer& block) {
  if (block.GetState(VeskBuffer::VALID) == 0) return false;
  const int interval = gEnv->settings->refresh_interval;
  if (interval == 0 || block.ltime == 0) return false;
  return static_cast<long>(time(nullptr)) - static_cast<long>(block.ltime) > interval;
}

RwAction DecideCoveredRead(const VeskBuffer& block, RwRequest& rq, unsigned long data_end,
                           bool dirty) {
  if (data_end > rq.off) return ACT_COPY;
  if (block.GetState(VeskBuffer::END_OF_FILE) != 0) {
    rq.eof_seen = true;
    return ACT_SKIP;
  }
  return dirty ? ACT_TRIM : ACT_SKIP;
}

RwAction DecideCoveredWrite(const VeskBuffer& block, unsigned long at, unsigned long data_end,
                            bool dirty) {
  // The dirty run starts at the block's first byte: clean bytes before `at` would be written too,
  // over what others have put there since they were read.
  if (block.GetState(VeskBuffer::VALID) != 0 && block.off < at) return ACT_DISCARD;
  if (data_end >= at) return ACT_COPY;
  return dirty ? ACT_SHIP : ACT_SKIP;
}

// Writes rq.eof_seen only; reads settings and clock in rule 4 only.
RwAction Decide(const VeskBuffer& block, RwRequest& rq) {
  const unsigned long at = rq.off;
  const unsigned long data_end = DataEnd(block);
  const bool dirty = block.GetState(VeskBuffer::DIRTY) != 0;
  const bool write = rq.is_write;
  if (!write && EofKnown(rq)) return ValidLength(block) == 0 ? ACT_SKIP : ACT_HOLE;  // 1
  if (block.off > at) return ACT_INSERT;                                             // 2
  if (BlockEnd(block) <= at) return write && dirty ? ACT_SHIP : ACT_SKIP;            // 3
  if (IsStale(block)) return ACT_DISCARD;                                            // 4
  if (block.GetState(VeskBuffer::IOW) != 0) {                                        // 5
    if (data_end <= at) return ACT_SKIP;
    return write ? ACT_WAIT : ACT_COPY;
  }
  if (block.GetState(VeskBuffer::IOR) != 0) return ACT_WAIT;     // 6
  return write ? DecideCoveredWrite(block, at, data_end, dirty)  // 8
               : DecideCoveredRead(block, rq, data_end, dirty);  // 7
}

void TraceFinding(const RwWalk& w) {
  const VeskBuffer& block = w.block();
  gEnv->logger->Debug(
      At(site::kRwFindBuffer), "%s Finding buffer B_O:%lld B_L:%d B_DL:%d O:%lld L:%d S:%d ST:%d\n",
      w.stream.name.c_str(), LongLong(block.off), Int(block.blen), Int(ValidLength(block)),
      LongLong(w.rq.off), Int(w.rq.len), Int(block.skip), Int(block.GetState(0xff)));
}

Next Skip(const RwWalk& w) {
  w.block().Skip();
  return Next::kAdvance;
}

// Hands back what is already served rather than hold it up for a busy block.
Next Wait(const RwWalk& w) {
  if (w.rq.ret != 0) return Next::kReturn;
  w.block().WaitForBuffer(w.rq.lock, w.stream.bundler, w.stream.name, true,
                          w.rq.is_write ? "Write-io-active" : "Read-io-active");
  return Next::kSameBlock;
}

Next Insert(const RwWalk& w) {
  w.block().Skip();
  w.rq.next_off = w.block().off;
  return Next::kNewBlock;
}

// The last block is gone: the range ends with the one before it.
void PullEndBack(VeskStream& stream, const VeskBuffer& removed) {
  const VeskBuffer& last = *stream.buffers.back();
  const unsigned long old_end = removed.off + removed.dlen;
  const unsigned long new_end =
      last.GetState(VeskBuffer::IOR) != 0 ? BlockEnd(last) : DataEnd(last);
  gEnv->logger->Debug(At(site::kRwTrunc), "%s Trunc B_O:%lld B_L:%d B_DL:%d OE:%lld NE:%lld\n",
                      stream.name.c_str(), LongLong(removed.off), Int(removed.blen),
                      Int(removed.dlen), LongLong(old_end), LongLong(new_end));
  stream.curr_len = Signed(Unsigned(stream.curr_len) - old_end + new_end);
  if (stream.curr_len < 0) {
    VESK_FAIL(site::kRwNegativeTail, "Negative length3 %d", Int(stream.curr_len));
  }
}

// The first block is gone: the range starts with the one after it and keeps its end.
void PullStartUp(VeskStream& stream, const VeskBuffer& removed) {
  const VeskBuffer& first = *stream.buffers.front();
  gEnv->logger->Debug(At(site::kRwShrinking),
                      "%s Shrinking B_O:%lld B_L:%d B_DL:%d NB_O:%lld NB_L:%d\n",
                      stream.name.c_str(), LongLong(removed.off), Int(removed.blen),
                      Int(removed.dlen), LongLong(first.off), Int(ValidLength(first)));
  stream.curr_off = first.off;
  stream.curr_len = Signed(Unsigned(stream.curr_len) - first.off + removed.off);
  if (stream.curr_len < 0) {
    VESK_FAIL(site::kRwNegativeHead, "Negative length4 %d", Int(stream.curr_len));
  }
}

[[noreturn]] void Discard(const RwWalk& w) {
  VeskStream& stream = w.stream;
  const bool was_last = std::next(w.it) == stream.buffers.end();
  const bool was_first = w.it == stream.buffers.begin();
  const std::unique_ptr<VeskBuffer> block(*w.it);  // destroyed on every way out
  gEnv->logger->Debug(At(site::kRwDeleteBuffer), "%s Delete Buf2 B_O:%lld B_L:%d B_DL:%d S:%d\n",
                      stream.name.c_str(), LongLong(block->off), Int(block->blen), Int(block->dlen),
                      Int(stream.buffers.size()));
  stream.buffers.erase(w.it);
  if (stream.buffers.empty()) {
    stream.curr_len = 0;
  } else if (was_last) {
    PullEndBack(stream, *block);
  } else if (was_first) {
    PullStartUp(stream, *block);
  }
  stream.curr_pos = w.rq.off;
  throw VeskException(ERR_WAIT);
}

// The block ends with its valid data from now on, so that a new block can stand behind it.
Next Ship(const RwWalk& w) {
  VeskBuffer& block = w.block();
  block.Skip();
  block.ReduceLength(w.stream.name, Int(block.dlen));
  block.DoWriteIO(w.rq.lock, w.stream.bundler, w.stream.name, w.rq.flush_flag, false, false,
                  "shipbuf", false);
  return Next::kAdvance;
}

Next Trim(const RwWalk& w) {
  w.block().ReduceLength(w.stream.name, Int(w.rq.off - w.block().off));
  return Next::kAdvance;
}

// `count` bytes of the request have been transferred from or to the block.
Next Transferred(const RwWalk& w, unsigned int count) {
  RwRequest& rq = w.rq;
  gEnv->logger->Debug(At(site::kRwIoDone), "%s IO done O:%lld L:%d\n", w.stream.name.c_str(),
                      LongLong(rq.off), Int(count));
  rq.len -= count;
  rq.off += count;
  rq.buf += count;
  rq.ret += count;
  if (rq.len != 0) return Next::kAdvance;
  w.stream.last_buffer = &w.block();
  if (rq.ret == 0) VESK_FAIL(site::kRwLengthZero, "Length is 0\n");
  return Next::kReturn;
}

Next Copy(const RwWalk& w) {
  const RwRequest& rq = w.rq;
  return Transferred(w, rq.is_write ? w.block().Write(rq.buf, rq.off, rq.len)
                                    : w.block().Read(rq.buf, rq.off, rq.len));
}

// Data behind a known end of file: the file has grown, and up to that data it is a hole. A block
// that lies behind the request makes the distance wrap, and the whole rest a hole.
Next Hole(const RwWalk& w) {
  RwRequest& rq = w.rq;
  *rq.eof = false;
  const auto count =
      static_cast<unsigned int>(std::min<unsigned long>(rq.len, w.block().off - rq.off));
  std::fill_n(rq.buf, count, static_cast<unsigned char>(0));
  gEnv->logger->Debug(At(site::kRwHole), "%s Reading hole O:%lld L:%d\n", w.stream.name.c_str(),
                      LongLong(rq.off), Int(count));
  if (Transferred(w, count) == Next::kReturn) return Next::kReturn;
  w.stream.last_buffer = &w.block();
  return rq.ret != 0 ? Next::kReturn : Next::kNewBlock;
}

Next CarryOut(RwAction action, const RwWalk& w) {
  switch (action) {  // no default: the compiler names a forgotten action
    case ACT_SKIP: return Skip(w);
    case ACT_WAIT: return Wait(w);
    case ACT_INSERT: return Insert(w);
    case ACT_DISCARD: Discard(w);
    case ACT_SHIP: return Ship(w);
    case ACT_COPY: return Copy(w);
    case ACT_HOLE: return Hole(w);
    case ACT_TRIM: return Trim(w);
  }
  VESK_FAIL(site::kRwNoAction, "No action taken %d\n", Int(action));
}

// No block served the request, or none any further: hands back what is served, the end of the
// file, or a new block.
unsigned int EndOfWalk(const RwWalk& w) {
  RwRequest& rq = w.rq;
  VeskStream& stream = w.stream;
  if (rq.ret != 0) return rq.ret;
  if (rq.len == 0) VESK_FAIL(site::kRwLengthZero, "Length is 0\n");
  if (!rq.is_write && EofKnown(rq)) {
    gEnv->logger->Debug(At(site::kRwEof), "%s Eof O:%lld\n", stream.name.c_str(), LongLong(rq.off));
    *rq.eof = true;
    return 0;
  }
  VeskBuffer* const block =
      stream.AllocateBuffer(w.it, rq.next_off, rq.off, rq.max_off, rq.alloc_size);
  if (rq.is_write) {
    const unsigned int count = block->Write(rq.buf, rq.off, rq.len);
    gEnv->logger->Debug(At(site::kRwReturning), "%s Returning %d\n", stream.name.c_str(),
                        Int(count));
    return count;
  }
  block->DoReadIO(rq.lock, stream.bundler, stream.name, true, rq.st, &stream);
  // Only a job that ended before the wait looked at it gets here: the dispatcher must not let it.
  VESK_FAIL(site::kRwNotHere, "We should not come here\n");
}

}  // namespace

unsigned int VeskStream::ReadWrite(VeskLock* lock, unsigned char* buf, unsigned long off,
                                   unsigned int len, bool* eof, unsigned long max_off,
                                   unsigned long /*cookie*/, unsigned int alloc_size, bool is_write,
                                   bool flush_flag, sfsstat* st) {
  last_buffer = nullptr;
  RwRequest rq{lock, buf, off, len, eof, max_off, alloc_size, is_write, flush_flag, st};
  RwWalk w{*this, rq, buffers.begin()};
  while (w.it != buffers.end()) {
    TraceFinding(w);
    const Next next = CarryOut(Decide(w.block(), rq), w);
    if (next == Next::kReturn) return rq.ret;
    if (next == Next::kNewBlock) break;
    if (next == Next::kAdvance) ++w.it;
  }
  return EndOfWalk(w);
}

unsigned int VeskStream::Read(VeskLock* lock, unsigned char* buf, unsigned long off,
                              unsigned int len, bool* eof, unsigned long max_off,
                              unsigned long cookie, unsigned int alloc_size, unsigned int maxbufs,
                              unsigned int maxpending, sfsstat* st) {
  io_cookie = cookie;
  const int interval = gEnv->settings->refresh_interval;
  unsigned int count = 0;
  // Strict on purpose: a request that starts at the block's first byte or ends at its last valid
  // one takes the full path, which drops old blocks and reads ahead.
  if (last_buffer != nullptr && last_buffer->GetState(VeskBuffer::VALID) != 0 &&
      last_buffer->off < off && off + len < last_buffer->off + last_buffer->dlen) {
    count = last_buffer->Read(buf, off, len);
  } else {
    ShrinkStream(lock, off, maxbufs);
    count = ReadWrite(lock, buf, off, len, eof, max_off, cookie, alloc_size, false, false, st);
    if (!*eof && interval != 0) ReadAhead(lock, off, max_off, alloc_size, maxbufs, maxpending, st);
  }
  curr_pos = off + count;
  return count;
}

unsigned int VeskStream::Write(VeskLock* lock, unsigned char* buf, unsigned long off,
                               unsigned int len, unsigned long max_off, unsigned long cookie,
                               unsigned int alloc_size, unsigned int maxbufs, bool flush_flag,
                               sfsstat* st) {
  io_cookie = cookie;
  unsigned int count = 0;
  // Strict on purpose, as in Read: only a write that appends to the dirty data and leaves room.
  if (last_buffer != nullptr && last_buffer->GetState(VeskBuffer::DIRTY) != 0 &&
      last_buffer->off < off && last_buffer->off + last_buffer->dlen == off &&
      off + len < BlockEnd(*last_buffer)) {
    count = last_buffer->Write(buf, off, len);
  } else {
    ShrinkStream(lock, off, maxbufs);
    count =
        ReadWrite(lock, buf, off, len, nullptr, max_off, cookie, alloc_size, true, flush_flag, st);
  }
  const unsigned long end = off + count;
  if (end > curr_off + Unsigned(curr_len)) curr_len = Signed(end - curr_off);
  if (curr_len < 0) VESK_FAIL(site::kWriteNegative, "Negative length6 %d", Int(curr_len));
  curr_pos = end;
  return count;
}

// === VeskStream: read-ahead ======================================================================

void VeskStream::ReadAhead(VeskLock* lock, unsigned long off, unsigned long maxoff,
                           unsigned int bufsize, unsigned int maxbufs, unsigned int maxpending,
                           sfsstat* stat) {
  auto pending = static_cast<unsigned int>(std::count_if(
      buffers.begin(), buffers.end(), [off](const VeskBuffer* block) { return block->off > off; }));
  gEnv->logger->Debug(At(site::kAheadPending), "%s Pending %d\n", name.c_str(), Int(pending));
  if (buffers.empty()) return;

  const VeskBuffer& last = *buffers.back();
  unsigned long next = BlockEnd(last);
  unsigned int started = 0;
  while (buffers.size() < maxbufs) {
    if (pending >= maxpending || next >= maxoff) return;
    // Of the block that was last on entry: the ones appended here are new.
    if (last.GetState(VeskBuffer::END_OF_FILE) != 0) return;
    VeskBuffer* const block = AllocateBuffer(buffers.end(), ~0UL, next, maxoff, bufsize);
    block->DoReadIO(lock, bundler, name, false, stat, this);
    next = BlockEnd(*block);
    if (next > maxoff) {
      VESK_FAIL(site::kAheadBeyond, "lastbuf_length too big O:%lld L:%ld M_L:%lld",
                LongLong(block->off), Long(block->blen), LongLong(maxoff));
    }
    ++pending;
    ++started;
    if (started == kMaxReadAheads) {
      VESK_FAIL(site::kAheadTooMany, "Too many readaheads %d", Int(started));
    }
  }
}

// === VeskStream: flush and dirty check ===========================================================

void VeskStream::Flush(VeskLock* lock, bool wait, bool write_mode, bool ignore_read,
                       bool flush_current_only) {
  gEnv->logger->Trace(At(site::kFlushEnter), "VeskStream::Flush, flush_current_only(%s) \n",
                      TrueFalse(flush_current_only));
  for (VeskBuffer* block : buffers) {
    gEnv->logger->Debug(At(site::kFlushBlock), "VeskStream::Flush, calling DoWriteIO on buffer\n");
    block->DoWriteIO(lock, bundler, name, write_mode, wait, ignore_read, "Flush",
                     flush_current_only);
  }
}

bool VeskStream::IsCacheDirty(bool ignore_reads) {
  const unsigned int busy =
      VeskBuffer::DIRTY | VeskBuffer::IOW | (ignore_reads ? 0 : VeskBuffer::IOR);
  for (VeskBuffer* block : buffers) {
    if (block->GetState(busy) != 0) return true;
    try {
      block->WaitForBuffer(nullptr, bundler, name, false, "Dirty-check");  // never sleeps: no lock
    } catch (const VeskException& failure) {
      gEnv->logger->Dump(At(site::kDirtyException), "Excpetion in IsCacheDirty %d\n", failure.code);
    }
  }
  return false;
}

// === VeskStream: truncate and shrink =============================================================

void VeskStream::Truncate(unsigned long newlen) {
  last_buffer = nullptr;
  for (auto it = buffers.begin(); it != buffers.end();) {
    VeskBuffer* const block = *it;
    const unsigned long end = BlockEnd(*block);
    // A block that ends exactly at the new length goes as well.
    if (newlen <= block->off || newlen == end) {
      it = buffers.erase(it);
      delete block;
      continue;
    }
    if (newlen < end) block->ReduceLength(name, Int(newlen - block->off));
    ++it;
  }
  curr_len = Signed(newlen - curr_off);
  if (curr_len < 0) VESK_FAIL(site::kTruncNegative, "Negative length8 %d", Int(curr_len));
}

void VeskStream::ShrinkStream(VeskLock* lock, unsigned long off, unsigned int maxbufs) {
  if (buffers.empty() || buffers.front() == nullptr) return;
  VeskBuffer* const first = buffers.front();
  if (first->skip <= kMaxPasses && buffers.size() <= maxbufs) return;
  if (buffers.size() < 2) return;
  const unsigned long end = BlockEnd(*first);
  if (end >= curr_pos || end >= off) return;  // the reader has not passed the whole block

  const unsigned long old_off = curr_off;
  last_buffer = nullptr;
  first->DoWriteIO(lock, bundler, name, false, true, false, "ShrinkStream", false);
  gEnv->logger->Debug(At(site::kShrinkDelete), "%s Delete buffer BO:%lld BL:%d S_O:%lld S_L:%d\n",
                      name.c_str(), LongLong(first->off), Int(first->dlen), LongLong(curr_off),
                      Int(curr_len));
  buffers.pop_front();
  delete first;
  const unsigned long new_off = buffers.front()->off;
  curr_len = Signed(old_off + Unsigned(curr_len) - new_off);
  curr_off = new_off;
  if (curr_len < 0) VESK_FAIL(site::kShrinkNegative, "Negative length7 %d", Int(curr_len));
}

// === VeskStream: split ===========================================================================

unsigned long VeskStream::Split(VeskLock* /*lock*/, VeskStream* other, unsigned long splitoff) {
  last_buffer = nullptr;
  if (splitoff <= curr_off || splitoff >= curr_off + Unsigned(curr_len)) {
    VESK_FAIL(site::kSplitRange, "Offset out of range O:%lld S_O:%lld S_L:%d", LongLong(splitoff),
              LongLong(curr_off), Int(curr_len));
  }

  auto it = buffers.begin();
  for (; it != buffers.end(); ++it) {
    const VeskBuffer& block = **it;
    // A read in flight counts for the stream that started it, so its block stays there.
    if (block.off >= splitoff && block.GetState(VeskBuffer::IOR) == 0) break;
    gEnv->logger->Debug(At(site::kSplitKeep), "%s KeepBuffer B_O:%lld B_DL:%d\n", name.c_str(),
                        LongLong(block.off), Int(ValidLength(block)));
  }
  if (it == buffers.end()) return 0;

  // Above 0, since it lies above curr_off: the result tells a split from none.
  const unsigned long divide = std::max(curr_off, (*it)->off);
  gEnv->logger->Debug(At(site::kSplitFirst), "%s TransferBuffer1 B_O:%lld B_DL:%d N_O:%lld\n",
                      name.c_str(), LongLong((*it)->off), Int((*it)->dlen), LongLong(divide));
  for (auto next = std::next(it); next != buffers.end(); ++next) {
    gEnv->logger->Debug(At(site::kSplitNext), "%s TransferBuffer2 B_O:%lld B_DL:%d\n", name.c_str(),
                        LongLong((*next)->off), Int(ValidLength(**next)));
  }
  other->buffers.splice(other->buffers.end(), buffers, it, buffers.end());

  const unsigned long old_end = curr_off + Unsigned(curr_len);
  other->curr_off = divide;
  other->curr_len = Signed(old_end - divide);
  other->curr_pos = divide;
  curr_len = Signed(divide - curr_off);
  if (curr_len < 0) VESK_FAIL(site::kSplitNegativeOwn, "Negative length9 %d", Int(curr_len));
  if (other->curr_len < 0) {
    VESK_FAIL(site::kSplitNegativeOther, "Negative length10 %d", Int(other->curr_len));
  }
  return divide;
}

}  // namespace vesk
