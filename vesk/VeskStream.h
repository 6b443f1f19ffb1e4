// The cache module: VeskBuffer, one block of a file's bytes, and VeskStream, the blocks of one
// file.
//
// The module has no threads and performs no I/O. It describes each transfer as an operation inside
// a job, hands the job to the dispatcher, and either waits for it or lets it be collected later. A
// wait never completes a request: it ends in VeskException(ERR_WAIT), and the caller issues the
// same request again, which then finds the block in its new state.

#ifndef VESK_VESKSTREAM_H_
#define VESK_VESKSTREAM_H_

#include <pthread.h>

#include <list>
#include <string>

#include "vesk/VeskBundler.h"
#include "vesk/VeskJob.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskTypes.h"

namespace vesk {

class VeskStream;

static_assert(sizeof(unsigned int) == 4 && sizeof(unsigned long) == 8,
              "lengths are 32 bits wide, offsets 64");

// One cache block: a run of a file's bytes in memory and the job, if any, that moves them.
//   Units    bytes; ends are exclusive
//   Owns     its data area, and one reference to `job`. A stream owns the block
//   Ends in  any operation may throw VeskException; a failed check leaves what was done before it
//   Threads  under the caller's VeskLock. While a read is in flight the job writes `dlen` and the
//            data area, nothing else
//
// The block stands for the file bytes [off, off + blen). The first `dlen` of them are valid, the
// first `dirty_length` of them are newer than the file: dirty_length <= dlen <= blen <= size.
//
// Moves of `state`; bits not named stay:                  made by
//   (new)      -> VALID, no data                          constructor
//   VALID      -> DIRTY                                   Write
//   VALID, INV -> IOR                                     DoReadIO
//   DIRTY      -> IOW                                     DoWriteIO
//   IOR, IOW   -> VALID, DIRTY cleared                    WaitForBuffer, job done; END_OF_FILE too
//                                                         when no data is there or on RC_EOF
//   IOR, IOW   -> INV alone, no data                      WaitForBuffer, job failed; `rc` is kept
//   END_OF_FILE cleared                                   RemoveEOF
class VeskBuffer {
 public:
  // Bits of `state`. `END_OF_FILE` is spelt out because EOF is a macro of the C library.
  static constexpr unsigned int INV = 1;           // contents are invalid: the last job failed
  static constexpr unsigned int DIRTY = 2;         // holds bytes that are not in the file yet
  static constexpr unsigned int VALID = 4;         // contents may be served
  static constexpr unsigned int IOR = 8;           // a read job is in flight
  static constexpr unsigned int IOW = 16;          // a write job is in flight
  static constexpr unsigned int END_OF_FILE = 32;  // the last read met the end of the file

  // A block at file offset `offset` with room for `length` bytes: VALID, without data.
  //   Ends in  "Out of memory" (ERR_ASSERT)
  VeskBuffer(unsigned long offset, unsigned int length);

  // A block that is dirty or has a job in flight must not be destroyed: that ends the process.
  ~VeskBuffer();

  VeskBuffer(const VeskBuffer&) = delete;
  VeskBuffer& operator=(const VeskBuffer&) = delete;

  // 1 when any bit of `mask` is set, else 0; for the mask 255 the whole state.
  unsigned int GetState(unsigned int mask) const;

  // Counts a request that passed over the block, while the block is VALID or at end of file.
  void Skip();

  // Writes one Dump line.
  void Dump() const;

  // Clears END_OF_FILE, with a Debug line for the file `name` when it was set.
  void RemoveEOF(std::string& name);

  // Copies up to `length` bytes to file offset `offset` and marks them dirty, with all bytes of the
  // block before them.
  //   Before   offset lies inside the block; no job is in flight; length is not 0
  //   After    returns the bytes copied, fewer than `length` when the block ends first
  //   Ends in  ERR_ASSERT, or the block's `rc` when it is INV with `rc` 0
  unsigned int Write(const unsigned char* source, unsigned long offset, unsigned int length);

  // Copies up to `length` valid bytes from file offset `offset`. A block that is being written back
  // may be read.
  //   Before   offset lies inside the valid data; no read is in flight; length is not 0
  //   After    returns the bytes copied, fewer than `length` when the valid data ends first
  //   Ends in  ERR_ASSERT, or the block's `rc` when it is INV with `rc` 0
  unsigned int Read(unsigned char* destination, unsigned long offset, unsigned int length);

  // Cuts the block to its first `new_length` bytes; the data area keeps its size.
  //   Before   0 <= new_length <= blen
  void ReduceLength(std::string& name, int new_length);

  // Starts a read of the whole block.
  //   Before   the block holds no data and no job
  //   After    wait false: the job is submitted and the stream marked for the thread pool.
  //            wait true: returns only when the job had ended by the time it was looked at
  //   Ends in  wait true: ERR_WAIT, or the job's error. "Out of memory" leaves `pending_io` raised
  //            when it is the job that could not be had
  void DoReadIO(VeskLock* lock, VeskBundler* bundler, std::string& name, bool wait, sfsstat* stat,
                VeskStream* stream);

  // Starts the write-back of a dirty block, then waits for the block's job or marks the stream.
  //   write_mode          the write carries OPFLAG_WRITE_MODE
  //   wait                wait for the job in flight; `tag` names the reason
  //   ignore_read         a read in flight is no reason to wait
  //   flush_current_only  a dirty block is left as it is
  //   After    a block that was written is cut to its dirty length
  //   Ends in  wait true: ERR_WAIT, or the job's error
  void DoWriteIO(VeskLock* lock, VeskBundler* bundler, std::string& name, bool write_mode,
                 bool wait, bool ignore_read, const char* tag, bool flush_current_only);

  // Takes the result of a finished job into the block. A job that has not finished is waited for
  // when `wait` is set.
  //   Ends in  ERR_WAIT after any wait; the job's error, the block being INV and empty then
  void WaitForBuffer(VeskLock* lock, VeskBundler* bundler, std::string& name, bool wait,
                     const char* tag);

  unsigned int skip;   // requests that passed over the block since it was last used
  unsigned int ltime;  // seconds since the epoch (low 32 bits) when its last job began or ended
  unsigned int size;   // bytes allocated
  unsigned int state;
  unsigned char* bptr;  // the data area: byte i is file byte off + i
  unsigned long off;
  unsigned int dlen;          // bytes of valid data from the start
  unsigned int blen;          // bytes that the block stands for
  unsigned int dirty_length;  // bytes from the start that the file does not have yet
  int rc;                     // return value of the last finished job
  VeskJob* job;               // null when there is none
};

// The blocks of one file, ordered by offset, and the range of the file that they cover.
//   Units    bytes; offsets and ends are file offsets
//   Owns     its blocks, which only AllocateBuffer creates. Borrows the dispatcher
//   Ends in  any operation may throw VeskException: ERR_WAIT (repeat the request), ERR_ASSERT (the
//            stream is inconsistent and of no more use), else a job's return value
//   Threads  one call at a time: under the caller's VeskLock, which is only handed to waits. Any
//            ERR_WAIT means that the lock may have been given up
class VeskStream {
 public:
  // A stream without blocks over [initial_offset, initial_offset + initial_length).
  //   Ends in  "Out of memory" (ERR_ASSERT)
  VeskStream(const std::string& file_name, VeskBundler* dispatcher, unsigned long initial_offset,
             unsigned long initial_length, unsigned long initial_cookie);

  //   Before   every block clean, no job in flight, `pending_io` 0: a dirty or busy block ends the
  //            process
  ~VeskStream();

  VeskStream(const VeskStream&) = delete;
  VeskStream& operator=(const VeskStream&) = delete;

  // Moves range and position for a new block at `offset`. `position`: 1 it became the first block,
  // 2 the last (or the only one), 3 it went between two. `data_length` is only printed.
  void UpdateCurrOffLenPos(unsigned int position, unsigned long offset, unsigned int length,
                           unsigned int data_length);

  // End of the valid data: the largest off + dlen over the blocks that are neither INV nor being
  // read; 0 without any.
  unsigned long GetMaxLen() const;

  void setStartReadTime(vesk_custom_time time_value);

  // Clears END_OF_FILE on every block: the file has grown.
  void RemoveEOF();

  // Writes one Dump line for the stream and one for each block.
  void Dump() const;

  // Creates an empty block of at most `size` bytes at `off` and links it before `where`.
  //   nexoff   offset of the block at `where`, which the new one does not reach into; unused at the
  //            list's end
  //   maxoff   the block ends there at the latest
  //   Before   off < maxoff; less than 100 MiB after both limits
  //   After    range and position cover the block; appended: no block carries END_OF_FILE any more
  //   Owns     the stream owns the block
  VeskBuffer* AllocateBuffer(std::list<VeskBuffer*>::iterator where, unsigned long nexoff,
                             unsigned long off, unsigned long maxoff, unsigned int size);

  // Serves one request against the blocks; Read and Write are the ways in.
  unsigned int ReadWrite(VeskLock* lock, unsigned char* buf, unsigned long off, unsigned int len,
                         bool* eof, unsigned long max_off, unsigned long cookie,
                         unsigned int alloc_size, bool is_write, bool flush_flag, sfsstat* st);

  // Reads up to `len` bytes at `off`.
  //   eof         in: the end of the file is known to lie at or before `off`; out: the read ended
  //               at the end of the file
  //   max_off     no block reaches beyond it
  //   alloc_size  bytes of a new block
  //   maxbufs     blocks above which an old one is dropped, one per call
  //   maxpending  blocks kept ahead of the reader, below 100; 0 for no read-ahead
  //   After       returns the bytes read; fewer than `len` is normal
  unsigned int Read(VeskLock* lock, unsigned char* buf, unsigned long off, unsigned int len,
                    bool* eof, unsigned long max_off, unsigned long cookie, unsigned int alloc_size,
                    unsigned int maxbufs, unsigned int maxpending, sfsstat* st);

  // Writes up to `len` bytes at `off` into the cache. `flush_flag` is the write mode of blocks that
  // are shipped on the way; the rest is as for Read.
  unsigned int Write(VeskLock* lock, unsigned char* buf, unsigned long off, unsigned int len,
                     unsigned long max_off, unsigned long cookie, unsigned int alloc_size,
                     unsigned int maxbufs, bool flush_flag, sfsstat* st);

  // Appends blocks after the last one and starts their reads without waiting, until `maxpending`
  // lie beyond `off`, the stream holds `maxbufs`, or `maxoff` or the end of the file is reached.
  void ReadAhead(VeskLock* lock, unsigned long off, unsigned long maxoff, unsigned int bufsize,
                 unsigned int maxbufs, unsigned int maxpending, sfsstat* stat);

  // Starts the write-back of every dirty block. With `wait` it waits for the first job in flight
  // that it meets and ends in ERR_WAIT: repeated until it returns, everything is in the file.
  void Flush(VeskLock* lock, bool wait, bool write_mode, bool ignore_read, bool flush_current_only);

  // True when a block is dirty or has a job in flight (`ignore_reads`: a write). Never sleeps, and
  // collects the finished jobs of the blocks before the one that decided.
  bool IsCacheDirty(bool ignore_reads);

  // The file is `newlen` bytes long now: drops the blocks from there on, cuts the one across it.
  //   Before   the blocks to drop are clean and idle; newlen not below `curr_off`
  void Truncate(unsigned long newlen);

  // Drops the first block, written back if it must be, once the reader at `off` has passed it and
  // the stream holds more than `maxbufs` blocks or the block was passed over four times.
  void ShrinkStream(VeskLock* lock, unsigned long off, unsigned int maxbufs);

  // Hands the blocks from `splitoff` on to `other`, with that part of the range.
  //   Before   splitoff lies inside the range; `lock` serialises both streams
  //   After    returns the offset that divides the two, or 0 when no block moved. Jobs in flight on
  //            moved blocks keep this stream as their owner: it lives until `pending_io` is 0
  unsigned long Split(VeskLock* lock, VeskStream* other, unsigned long splitoff);

  std::string name;  // of the file; given to every job
  VeskBundler* bundler;
  unsigned long io_cookie;  // the caller's value, stored by each Read and Write
  unsigned int stream_tag;  // 3
  unsigned long curr_off;   // start of the covered range
  long curr_len;            // its length; negative only after a failed check
  unsigned long curr_pos;   // end of the last transfer, or start of the last new block
  VeskBuffer* last_buffer;  // the block that took the last bytes, or null
  std::list<VeskBuffer*> buffers;
  unsigned int pending_io;  // read jobs started and not yet ended; guarded by stream_mutex
  unsigned int aux_count;   // 0
  vesk_custom_time start_read_time;
  pthread_mutex_t stream_mutex;
};

}  // namespace vesk

#endif  // VESK_VESKSTREAM_H_
