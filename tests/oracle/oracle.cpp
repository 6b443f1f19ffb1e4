#include "tests/oracle/oracle.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <optional>

namespace vesk_oracle {
namespace {

__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, again);
  va_end(again);
  text.pop_back();
  return text;
}

// What a conversion makes of a value of another width or sign: %lld takes an offset as signed, %d
// takes the low 32 bits as signed, %u as unsigned, %ld widens without sign.
long long Lld(std::uint64_t v) { return static_cast<long long>(v); }
long long Lld(std::int64_t v) { return static_cast<long long>(v); }
unsigned long long Llu(std::uint64_t v) { return static_cast<unsigned long long>(v); }
int D(std::uint32_t v) { return static_cast<int>(v); }
int D(std::uint64_t v) { return static_cast<int>(static_cast<std::uint32_t>(v)); }
int D(std::int64_t v) { return D(static_cast<std::uint64_t>(v)); }
std::uint32_t U(std::uint64_t v) { return static_cast<std::uint32_t>(v); }
long Ld(std::uint32_t v) { return static_cast<long>(v); }

// Sums of the covered range: computed without sign, then read as signed.
std::int64_t Signed(std::uint64_t v) { return static_cast<std::int64_t>(v); }
std::uint64_t Unsigned(std::int64_t v) { return static_cast<std::uint64_t>(v); }

const char* TrueFalse(bool flag) { return flag ? "TRUE" : "FALSE"; }

std::string Numbered(const char* kind, unsigned id) { return Format("<%s %u>", kind, id); }

const char* StateName(std::uint32_t state) {
  if (state & INV) return "INV";
  if (state & DIRTY) return "DIRTY";
  if (state & VALID) return "VALID";
  if (state & IOR) return "IOR";
  if (state & IOW) return "IOW";
  if (state & END_OF_FILE) return "EOF";
  return "INV";
}

// For %s, which ends at the first zero byte.
const char* C(const std::string& text) { return text.c_str(); }

}  // namespace

std::string Token(const Block* block) {
  return block == nullptr ? "(nil)" : Numbered("block", block->id);
}
std::string DataToken(const Block* block) { return Numbered("data", block->id); }
std::string Token(const Job* job) { return job == nullptr ? "(nil)" : Numbered("job", job->id); }
std::string Token(const Stream* stream) {
  return stream == nullptr ? "(nil)" : Numbered("stream", stream->id);
}

bool NameOrder::operator()(const std::string& a, const std::string& b) const {
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
    const auto x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (x != y) return x < y;
  }
  return a.size() < b.size();
}

// ---------------------------------------------------------------------------------------------
// World
// ---------------------------------------------------------------------------------------------

void World::Say(Level level, int site, const char* place, const std::string& text) {
  lines_->push_back(Line{level, site, place, text});
  ++lines_said_;
}

void World::SayAssertion(int site, const char* place, const std::string& message) {
  Say(Level::kError, site, place, "ASSERT failure::\n");
  Say(Level::kError, site, place, message);
  Say(Level::kError, site, place, "\n\n");
}

void World::Fail(int site, const char* place, const std::string& message) {
  SayAssertion(site, place, message);
  throw Thrown{kErrAssert};
}

void World::FailInDestructor(const char* place, const std::string& message) {
  SayAssertion(0, place, message);
  throw ProcessEnds{};
}

void World::Called(const std::string& text) { calls.push_back(Call{lines_said_, text}); }

std::int64_t World::Time() {
  ++clock_reads;
  Called("time");
  return now ? now() : 0;
}

Job* World::NewJob(Block* block, bool is_write) {
  Job job;
  job.id = ++last_job_id_;
  job.block = block;
  job.is_write = is_write;
  jobs_.push_back(job);
  return &jobs_.back();
}

void World::Submit(Job* job, Submitted what) {
  Called("SubmitJob " + Token(job));
  what.job = job;
  what.job_id = job->id;
  what.block_id = job->block->id;
  what.owner_stream_id = job->owner_stream == nullptr ? 0 : job->owner_stream->id;
  what.is_write = job->is_write;
  submitted_->push_back(what);
  if (on_submit) on_submit(job);
}

void World::WaitForJob(Job* job, const void* lock, const char* tag) {
  Called("WaitForJob " + Token(job) + " " + tag);
  if (wait_for_job) wait_for_job(job, lock, tag);
}

void World::Notify(const std::string& name) {
  if (!has_thread_pool) return;
  pending_streams[name] = 1;
  Called("mark " + name);
  ++signals;
  Called("signal");
}

void World::EndRead(Job* job, int return_value, std::uint32_t count, const std::string& contents) {
  Block& b = *job->block;
  if (b.destroyed) throw Undefined("a read ends in a block that is gone");
  if (contents.size() > b.bytes.size()) throw Undefined("a read of more than the data area holds");
  std::copy(contents.begin(), contents.end(), b.bytes.begin());
  b.dlen = count;
  job->return_value = return_value;
  job->state = kJobDone;
}

void World::EndWrite(Job* job, int return_value) {
  job->return_value = return_value;
  job->state = kJobDone;
}

// ---------------------------------------------------------------------------------------------
// A block: its record
// ---------------------------------------------------------------------------------------------

Block* World::NewBlock(std::uint64_t off, std::uint32_t size) {
  Block b(this);
  b.off = off;
  b.blen = size;
  b.size = size;
  b.dlen = 0;
  b.dirty_length = 0;
  if (Fails(Allocation::kData)) Fail(0, "VeskBuffer.no_data", "Out of memory");
  b.bytes.assign(size, static_cast<char>(fresh_byte));
  b.state = VALID;
  b.ltime = 0;
  b.skip = 0;
  b.rc = 0;
  b.job = nullptr;
  b.id = ++last_block_id_;
  blocks_.push_back(b);
  return &blocks_.back();
}

void Block::Destroy() {
  if (destroyed) throw Undefined("a block is destroyed twice");
  if (Is(IOR | IOW))
    world->FailInDestructor("~VeskBuffer.io", Format("buffer io in progress %d\n", D(state)));
  if (Is(DIRTY))
    world->FailInDestructor("~VeskBuffer.dirty", Format("buffer dirty %d\n", D(state)));
  std::string().swap(bytes);
  destroyed = true;
}

std::uint32_t Block::GetState(std::uint32_t mask) const {
  if (mask == 255) return state;
  return (state & mask) != 0 ? 1 : 0;
}

void Block::Skip() {
  if (Is(VALID | END_OF_FILE)) ++skip;
}

void Block::Dump() const {
  world->Say(Level::kDump, 0, "VeskBuffer::Dump",
             Format("Dump BUFFER(%s) bptr:%s size:%u state:%d(%s) off:%lld dlen:%d blen:%d skip:%d "
                    "ltime:%d rc:%d job:%s dirty_length=%d\n",
                    C(Token(this)), C(DataToken(this)), size, D(state), StateName(state), Lld(off),
                    D(dlen), D(blen), D(skip), D(ltime), rc, C(Token(job)), D(dirty_length)));
}

void Block::RemoveEOF(const std::string& name) {
  if (!Is(END_OF_FILE)) return;
  world->Say(Level::kDebug, 0, "VeskBuffer::RemoveEOF", Format("%s Remove EOF\n", C(name)));
  state &= ~END_OF_FILE;
}

// ---------------------------------------------------------------------------------------------
// A block: copying
// ---------------------------------------------------------------------------------------------

void Block::CheckArea(std::uint64_t start, std::uint64_t count) const {
  if (destroyed) throw Undefined("a copy into or out of a block that is gone");
  if (start > bytes.size() || count > bytes.size() - start)
    throw Undefined("a copy beyond the data area");
}

void Block::CheckDirtyInsideData(const char* place) const {
  if (dirty_length > dlen)
    world->Fail(0, place, Format("DBL: %ld BL: %ld\n", Ld(dirty_length), Ld(dlen)));
}

void Block::CheckBeforeWrite(std::uint64_t O, std::uint32_t L) const {
  if (L == 0) world->Fail(0, "VeskBuffer::Write.length", "Length is 0\n");
  if (O < off)
    world->Fail(0, "VeskBuffer::Write.below",
                Format("Offset too small O:%lld B_O:%lld\n", Lld(O), Lld(off)));
  if (O >= BlockEnd())  // L and DL are the block's lengths, not the request's
    world->Fail(0, "VeskBuffer::Write.beyond",
                Format("Offset too big O:%lld B_O:%lld L:%d DL:%d\n", Lld(O), Lld(off), D(dlen),
                       D(dirty_length)));
  if (Is(IOR | IOW) || (Is(INV) && rc != 0))
    world->Fail(0, "VeskBuffer::Write.state", Format("Buffer is not valid %d\n", D(state)));
  if (Is(INV)) throw Thrown{rc};
}

std::uint32_t Block::Write(const unsigned char* src, std::uint64_t O, std::uint32_t L) {
  skip = 0;
  CheckBeforeWrite(O, L);
  std::uint32_t n = L;
  if (O + L > BlockEnd()) n = U(BlockEnd() - O);
  CheckArea(O - off, n);
  std::copy(src, src + n, bytes.begin() + static_cast<std::ptrdiff_t>(O - off));
  const std::uint64_t E = O + n;
  dlen = std::max(dlen, U(E - off));
  dirty_length = std::max(dirty_length, U(E - off));
  state = (state & ~VALID) | DIRTY;
  CheckDirtyInsideData("VeskBuffer::Write.dirty");
  return n;
}

void Block::CheckBeforeRead(std::uint64_t O, std::uint32_t L) const {
  if (L == 0) world->Fail(0, "VeskBuffer::Read.length", "Length is 0\n");
  if (O < off)
    world->Fail(0, "VeskBuffer::Read.below",
                Format("Offset too small O:%lld B_O:%lld\n", Lld(O), Lld(off)));
  if (O >= DataEnd())
    world->Fail(0, "VeskBuffer::Read.beyond",
                Format("Offset too big O:%lld B_O:%lld B_DL:%d\n", Lld(O), Lld(off), D(dlen)));
  if (Is(IOR) || (Is(INV) && rc != 0))
    world->Fail(0, "VeskBuffer::Read.state", Format("Buffer is not valid %d\n", D(state)));
}

std::uint32_t Block::Read(unsigned char* dst, std::uint64_t O, std::uint32_t L) {
  skip = 0;
  CheckBeforeRead(O, L);
  world->Say(Level::kDebug, 0, "VeskBuffer::Read",  // B_L is the valid length
             Format("Read buffer O:%lld L:%d B_O:%lld B_L:%d\n", Lld(O), D(L), Lld(off), D(dlen)));
  if (Is(INV)) throw Thrown{rc};
  std::uint32_t n = L;
  if (O + L > DataEnd()) n = U(DataEnd() - O);
  CheckArea(O - off, n);
  if (n > static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max()))
    throw Undefined("a count that does not fit a signed 32-bit value");
  const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(O - off);
  std::transform(from, from + static_cast<std::ptrdiff_t>(n), dst,
                 [](char c) { return static_cast<unsigned char>(c); });
  return n;
}

void Block::ReduceLength(const std::string& name, std::int32_t NL) {
  world->Say(Level::kDebug, 0, "VeskBuffer::ReduceLength",
             Format("%s ReducingLength NL:%d L:%d\n", C(name), NL, D(blen)));
  const auto new_length = static_cast<std::uint32_t>(NL);
  if (NL < 0 || new_length > blen)
    world->Fail(0, "VeskBuffer::ReduceLength.length", Format("buffer dirty %d\n", D(state)));
  dlen = std::min(dlen, new_length);
  dirty_length = std::min(dirty_length, new_length);
  skip = 0;
  blen = new_length;
  CheckDirtyInsideData("VeskBuffer::ReduceLength.dirty");
}

// ---------------------------------------------------------------------------------------------
// A block: jobs
// ---------------------------------------------------------------------------------------------

void Block::CheckEmptyBeforeRead() const {
  if (Is(DIRTY)) world->Fail(0, "VeskBuffer::DoReadIO.dirty", "Buffer is dirty\n");
  if (dlen != 0)
    world->Fail(0, "VeskBuffer::DoReadIO.length", Format("Buffer length not valid %d\n", D(dlen)));
  if (dirty_length != 0)
    world->Fail(0, "VeskBuffer::DoReadIO.dirty_length",
                Format("Buffer dirty length not valid %d\n", D(dirty_length)));
}

void Block::DoReadIO(const void* lock, const std::string& name, bool wait, Stream* stream) {
  skip = 0;
  CheckEmptyBeforeRead();
  if (world->Fails(Allocation::kOperation))
    world->Fail(0, "VeskBuffer::DoReadIO.no_operation", "Out of memory");
  job = world->Fails(Allocation::kJob) ? nullptr : world->NewJob(this, false);
  ++stream->pending_io;
  // Either would do: to set the owner of a job that is not there cannot be done, so it is left out;
  // the count above stays raised.
  if (job != nullptr) job->owner_stream = stream;
  if (job == nullptr) world->Fail(0, "VeskBuffer::DoReadIO.no_job", "Out of memory");
  state = (state & ~(INV | VALID)) | IOR;
  ltime = static_cast<std::uint32_t>(world->Time());
  world->Say(Level::kDebug, 0, "VeskBuffer::DoReadIO.creating",
             Format("%s Creating Read job %s O:%lld L:%d ST:%x\n", C(name), C(Token(job)), Lld(off),
                    D(blen), state));
  Submitted what{};
  what.opcode = 9;
  what.flags = 0;
  what.name = name;
  what.length = blen;
  what.offset = off;
  world->Submit(job, what);
  if (!wait) {
    world->Notify(name);
    return;
  }
  WaitForBuffer(lock, name, true, "Read");
}

void Block::StartWrite(const std::string& name, bool write_mode, bool wait) {
  blen = std::min(blen, dirty_length);
  dlen = std::min(dlen, dirty_length);
  skip = 0;
  CheckDirtyInsideData("VeskBuffer::DoWriteIO.length");
  if (world->Fails(Allocation::kOperation))
    world->Fail(0, "VeskBuffer::DoWriteIO.no_operation", "Out of memory");
  job = world->Fails(Allocation::kJob) ? nullptr : world->NewJob(this, true);
  if (job == nullptr) world->Fail(0, "VeskBuffer::DoWriteIO.no_job", "Out of memory");
  world->Say(Level::kTrace, 0, "VeskBuffer::DoWriteIO.creating",
             Format("%s Creating Write job %s W:%d O:%lld L:%d\n", C(name), C(Token(job)),
                    wait ? 1 : 0, Lld(off), D(dirty_length)));
  state = (state & ~(INV | DIRTY | VALID)) | IOW;
  ltime = static_cast<std::uint32_t>(world->Time());
  Submitted what{};
  what.opcode = 10;
  what.flags = write_mode ? 8 : 0;
  what.name = name;
  what.length = dirty_length;
  what.offset = off;
  what.bytes = bytes.substr(0, dirty_length);
  world->Submit(job, what);
}

void Block::DoWriteIO(const void* lock, const std::string& name, bool write_mode, bool wait,
                      bool ignore_read, const char* tag, bool flush_current_only) {
  world->Say(Level::kTrace, 0, "VeskBuffer::DoWriteIO.entry",
             Format("VeskBuffer::DoWriteIO(%s), flush_current_only(%s) \n", C(name),
                    TrueFalse(flush_current_only)));
  bool created = false;
  if (Is(DIRTY)) {
    world->Say(Level::kDebug, 0, "VeskBuffer::DoWriteIO.dirty",
               Format("VeskBuffer::DoWriteIO(%s), buffer dirty \n", C(name)));
    if (flush_current_only) return;
    StartWrite(name, write_mode, wait);
    created = true;
  }
  if (!Is(IOW) && (ignore_read || !Is(IOR))) return;
  skip = 0;
  if (wait) {
    WaitForBuffer(lock, name, true, tag);
    return;
  }
  if (created) world->Notify(name);
}

void Block::EndOfFileStep(const std::string& name) {
  state |= END_OF_FILE;
  world->Say(Level::kDebug, 0, "VeskBuffer::WaitForBuffer.eof",
             Format("%s End of file DL:%d ST:%d\n", C(name), D(dlen), D(state)));
}

void Block::Reap(const std::string& name) {
  state &= ~(DIRTY | IOR | IOW);
  ltime = static_cast<std::uint32_t>(world->Time());
  world->Called("GetReturnValue " + Token(job));
  rc = job->return_value;
  world->Called("RefCountDec " + Token(job));
  --job->references;
  job = nullptr;
  if (rc == 0) {
    dirty_length = 0;
    state |= VALID;
    world->Say(Level::kTrace, 0, "VeskBuffer::WaitForBuffer.done",
               Format("%s Job done O:%lld L:%d DL:%d\n", C(name), Lld(off), D(blen), D(dlen)));
    if (dlen == 0) EndOfFileStep(name);
    return;
  }
  if (rc == kRcEof) {
    state |= VALID;
    dlen = 0;
    dirty_length = 0;
    EndOfFileStep(name);
    return;
  }
  world->Say(Level::kError, 0, "VeskBuffer::WaitForBuffer.error",
             Format("%s Block error RC:%d\n", C(name), rc));
  state = INV;
  dirty_length = 0;
  dlen = 0;
  throw Thrown{rc};
}

void Block::WaitForBuffer(const void* lock, const std::string& name, bool wait, const char* tag) {
  if (!Is(IOR | IOW)) return;
  if (job == nullptr) world->Fail(0, "VeskBuffer::WaitForBuffer.no_job", "No job exists\n");
  if (job->references <= 0) throw Undefined("a block holds a job that is gone");
  world->Called("GetJobState " + Token(job));
  if (job->state == kJobDone) {
    Reap(name);
    return;
  }
  if (!wait) return;
  Job* const waited = job;
  world->Say(Level::kTrace, 0, "VeskBuffer::WaitForBuffer.wait",
             Format("%s Wait for job %s O:%lld\n", C(name), C(Token(waited)), Lld(off)));
  world->Called("RefCountInc " + Token(waited));
  ++waited->references;
  world->WaitForJob(waited, lock, tag);
  world->Called("RefCountDec " + Token(waited));
  --waited->references;
  throw Thrown{kErrWait};
}

// ---------------------------------------------------------------------------------------------
// A stream: its record and range
// ---------------------------------------------------------------------------------------------

Stream::Stream(World* the_world, const std::string& the_name, std::uint64_t initial_off,
               std::uint64_t initial_len, std::uint64_t cookie)
    : world(the_world),
      id(the_world->NextStreamId()),
      name(the_name),
      io_cookie(cookie),
      stream_tag(3),
      curr_off(initial_off),
      curr_len(Signed(initial_len)),
      curr_pos(initial_off),
      last_buffer(nullptr),
      pending_io(0),
      aux_count(0),
      start_read_time(0, 0) {}

void Stream::Destroy() {
  for (Block* b : buffers) {
    if (b != nullptr) b->Destroy();
  }
  buffers.clear();
}

void Stream::UpdateCurrOffLenPos(std::uint32_t pos, std::uint64_t O, std::uint32_t L,
                                 std::uint32_t DL) {
  if (pos == 2) {
    curr_len = Signed(O + L - curr_off);
    world->Say(Level::kDebug, 0, "UpdateCurrOffLenPos.last",
               Format("%s CurrentValidLength1 O:%lld L:%d DL:%d\n", C(name), Lld(curr_off),
                      D(curr_len), D(DL)));
    if (curr_len < 0)
      world->Fail(
          0, "UpdateCurrOffLenPos.negative1",
          Format("Negative CurrentValidLength1 CO:%lld L:%u O:%lld\n", Lld(curr_off), L, Lld(O)));
  } else if (pos == 1) {
    curr_len = Signed(Unsigned(curr_len) + (curr_off - O));
    if (curr_len < 0)
      world->Fail(0, "UpdateCurrOffLenPos.negative2",
                  Format("Negative CurrentValidLength2 CO:%lld CL:%lld O:%lld\n", Lld(curr_off),
                         Lld(curr_len), Lld(O)));
    curr_off = O;
    world->Say(Level::kDebug, 0, "UpdateCurrOffLenPos.first",
               Format("%s CurrentValidLength2 O:%lld L:%d DL:%d\n", C(name), Lld(curr_off),
                      D(curr_len), D(DL)));
  }
  curr_pos = O;
}

std::uint64_t Stream::GetMaxLen() const {
  std::uint64_t largest = 0;
  for (const Block* b : buffers) {
    if (b == nullptr || b->Is(INV | IOR)) continue;
    largest = std::max(largest, b->DataEnd());
  }
  world->Say(Level::kDebug, 0, "GetMaxLen",
             Format("VeskStream::GetMaxLen len=%llu\n", Llu(largest)));
  return largest;
}

void Stream::RemoveEOF() {
  for (Block* b : buffers) b->RemoveEOF(name);
}

void Stream::Dump() const {
  world->Say(Level::kDump, 0, "VeskStream::Dump",
             Format("Dump STREAM(%s) -> off:%llu len:%u pos:%llu \n", C(Token(this)), Llu(curr_off),
                    U(Unsigned(curr_len)), Llu(curr_pos)));
  for (const Block* b : buffers) {
    if (b != nullptr) b->Dump();
  }
}

// ---------------------------------------------------------------------------------------------
// A stream: a new block
// ---------------------------------------------------------------------------------------------

void Stream::DumpBeforeAssert(std::uint64_t off, std::uint64_t maxoff, std::uint64_t nexoff,
                              std::uint32_t size, std::uint32_t pos) const {
  world->Say(Level::kDump, 0, "AllocateBuffer.dump_begin",
             Format("AllocBuf DUMP BEGIN off:%lld maxoff:%lld nexoff:%lld size:%u pos:%d\n",
                    Lld(off), Lld(maxoff), Lld(nexoff), size, D(pos)));
  Dump();
  world->Say(Level::kDump, 0, "AllocateBuffer.dump_end", "AllocBuf DUMP END\n");
}

Block* Stream::AllocateBuffer(BlockList::iterator where, std::uint64_t nexoff, std::uint64_t off,
                              std::uint64_t maxoff, std::uint32_t size) {
  std::uint32_t pos = where == buffers.begin() ? 1 : 3;
  if (where == buffers.end()) pos = 2;

  if (off >= maxoff) {
    DumpBeforeAssert(off, maxoff, nexoff, size, pos);
    world->Fail(0, "AllocateBuffer.range",
                Format("Endoff too big O:%lld ML:%lld", Lld(off), Lld(maxoff)));
  }

  std::uint32_t len = size;
  if (where != buffers.end()) {
    const std::uint64_t gap = nexoff - off;
    if (size > gap) len = U(gap);
  }
  if (off + len > maxoff) len = U(maxoff - off);
  if (len >= 104857600)
    world->Fail(0, "AllocateBuffer.too_big", Format("Allocation too big %ld", Ld(len)));

  world->Say(Level::kDebug, 0, "AllocateBuffer.new",
             Format("%s New buffer O:%lld L:%d AS:%ld ML:%llu\n", C(name), Lld(off), D(len),
                    Ld(size), Llu(maxoff)));
  if (world->Fails(Allocation::kBlock)) world->Fail(0, "AllocateBuffer.no_block", "Out of memory");
  Block* const b = world->NewBlock(off, len);
  buffers.insert(where, b);
  if (b->Is(IOR)) world->Fail(0, "AllocateBuffer.reading", "Read io going on1");
  if (b->dlen != 0) world->Fail(0, "AllocateBuffer.data", "Data len!=0");

  UpdateCurrOffLenPos(pos, b->off, b->blen, 0);
  if (pos == 2) {
    for (Block* each : buffers) each->RemoveEOF(name);
  }
  return b;
}

// ---------------------------------------------------------------------------------------------
// A stream: the walk of one request
// ---------------------------------------------------------------------------------------------

bool Stream::KnownEnd(const Request& rq) {
  if (rq.eof_seen) return true;
  if (rq.eof == nullptr) throw Undefined("a read without an end-of-file flag");
  return *rq.eof;
}

void Stream::TraceFinding(const Request& rq) const {
  const Block& b = **rq.it;
  world->Say(Level::kDebug, 520, "ReadWrite.finding",
             Format("%s Finding buffer B_O:%lld B_L:%d B_DL:%d O:%lld L:%d S:%d ST:%d\n", C(name),
                    Lld(b.off), D(b.blen), D(b.dlen), Lld(rq.off), D(rq.len), D(b.skip),
                    D(b.GetState(255))));
}

bool Stream::TooOld(const Block& b) const {
  if (!b.Is(VALID) || world->refresh_interval == 0 || b.ltime == 0) return false;
  return world->Time() - static_cast<std::int64_t>(b.ltime) >
         static_cast<std::int64_t>(world->refresh_interval);
}

Stream::Action Stream::DecideBusyWriting(const Request& rq, const Block& b) {
  if (b.DataEnd() <= rq.off) return ACT_SKIP;
  return rq.is_write ? ACT_WAIT : ACT_COPY;
}

Stream::Action Stream::DecideRead(Request& rq, const Block& b) {
  if (b.DataEnd() > rq.off) return ACT_COPY;
  if (b.Is(END_OF_FILE)) {
    rq.eof_seen = true;
    return ACT_SKIP;
  }
  return b.Is(DIRTY) ? ACT_TRIM : ACT_SKIP;
}

Stream::Action Stream::DecideWrite(const Request& rq, const Block& b) {
  if (b.Is(VALID) && b.off < rq.off) return ACT_DISCARD;
  if (b.DataEnd() >= rq.off) return ACT_COPY;
  return b.Is(DIRTY) ? ACT_SHIP : ACT_SKIP;
}

Stream::Action Stream::Decide(Request& rq) const {
  const Block& b = **rq.it;
  if (!rq.is_write && KnownEnd(rq)) return b.dlen == 0 ? ACT_SKIP : ACT_HOLE;
  if (b.off > rq.off) return ACT_INSERT;
  if (b.BlockEnd() <= rq.off) return rq.is_write && b.Is(DIRTY) ? ACT_SHIP : ACT_SKIP;
  if (TooOld(b)) return ACT_DISCARD;
  if (b.Is(IOW)) return DecideBusyWriting(rq, b);
  if (b.Is(IOR)) return ACT_WAIT;
  return rq.is_write ? DecideWrite(rq, b) : DecideRead(rq, b);
}

Stream::Then Stream::CarryOut(Action action, Request& rq) {
  Block& b = **rq.it;
  switch (action) {
    case ACT_SKIP: b.Skip(); return Then::kNextBlock;
    case ACT_WAIT: return Wait(rq);
    case ACT_INSERT:
      b.Skip();
      rq.next_off = b.off;
      return Then::kEndOfWalk;
    case ACT_DISCARD: Discard(rq);
    case ACT_SHIP: return Ship(rq);
    case ACT_TRIM: b.ReduceLength(name, D(rq.off - b.off)); return Then::kNextBlock;
    case ACT_COPY: return Copy(rq);
    case ACT_HOLE: return Hole(rq);
  }
  world->Fail(700, "ReadWrite.no_action", Format("No action taken %d\n", static_cast<int>(action)));
}

Stream::Then Stream::Wait(Request& rq) {
  if (rq.ret != 0) return Then::kReturn;
  (*rq.it)->WaitForBuffer(rq.lock, name, true, rq.tag);
  return Then::kSameBlock;
}

Stream::Then Stream::Ship(Request& rq) {
  Block& b = **rq.it;
  b.Skip();
  b.ReduceLength(name, D(b.dlen));
  b.DoWriteIO(rq.lock, name, rq.flush_flag, false, false, "shipbuf", false);
  return Then::kNextBlock;
}

Stream::Then Stream::Copy(Request& rq) {
  Block& b = **rq.it;
  const std::uint32_t n =
      rq.is_write ? b.Write(rq.buf, rq.off, rq.len) : b.Read(rq.buf, rq.off, rq.len);
  return AfterTransfer(rq, n, false);
}

Stream::Then Stream::Hole(Request& rq) {
  const Block& b = **rq.it;
  if (rq.eof == nullptr) throw Undefined("a hole without an end-of-file flag");
  *rq.eof = false;
  const std::uint32_t n = U(std::min<std::uint64_t>(rq.len, b.off - rq.off));
  std::fill(rq.buf, rq.buf + n, static_cast<unsigned char>(0));
  world->Say(Level::kDebug, 707, "ReadWrite.hole",
             Format("%s Reading hole O:%lld L:%d\n", C(name), Lld(rq.off), D(n)));
  return AfterTransfer(rq, n, true);
}

Stream::Then Stream::AfterTransfer(Request& rq, std::uint32_t n, bool was_hole) {
  const std::uint64_t offset_before = rq.off;
  rq.len -= n;
  rq.off += n;
  rq.buf += n;
  rq.ret += n;
  world->Say(Level::kDebug, 722, "ReadWrite.done",
             Format("%s IO done O:%lld L:%d\n", C(name), Lld(offset_before), D(n)));
  // Either order would do where nothing has been transferred: the block is remembered first, and
  // stays remembered when the request then fails, or goes on to a new block or to the end of file.
  if (rq.len == 0) {
    last_buffer = *rq.it;
    if (rq.ret == 0) world->Fail(734, "ReadWrite.length", "Length is 0\n");
    return Then::kReturn;
  }
  if (was_hole) {
    last_buffer = *rq.it;
    return rq.ret != 0 ? Then::kReturn : Then::kEndOfWalkUntested;
  }
  return Then::kNextBlock;
}

void Stream::RangeWithoutLast(const Block& gone) {
  const Block& last = *buffers.back();
  const std::uint64_t OE = gone.off + gone.dlen;
  const std::uint64_t NE = last.Is(IOR) ? last.off + last.blen : last.off + last.dlen;
  world->Say(Level::kDebug, 671, "ReadWrite.trunc",
             Format("%s Trunc B_O:%lld B_L:%d B_DL:%d OE:%lld NE:%lld\n", C(name), Lld(gone.off),
                    D(gone.blen), D(gone.dlen), Lld(OE), Lld(NE)));
  curr_len = Signed(Unsigned(curr_len) - OE + NE);
  if (curr_len < 0)
    world->Fail(675, "ReadWrite.negative3", Format("Negative length3 %d", D(curr_len)));
}

void Stream::RangeWithoutFirst(const Block& gone) {
  const Block& first = *buffers.front();
  world->Say(Level::kDebug, 679, "ReadWrite.shrinking",
             Format("%s Shrinking B_O:%lld B_L:%d B_DL:%d NB_O:%lld NB_L:%d\n", C(name),
                    Lld(gone.off), D(gone.blen), D(gone.dlen), Lld(first.off), D(first.dlen)));
  curr_off = first.off;
  curr_len = Signed(Unsigned(curr_len) - first.off + gone.off);
  if (curr_len < 0)
    world->Fail(687, "ReadWrite.negative4", Format("Negative length4 %d", D(curr_len)));
}

void Stream::Discard(Request& rq) {
  Block& b = **rq.it;
  const bool was_last = std::next(rq.it) == buffers.end();
  const bool was_first = rq.it == buffers.begin();
  world->Say(Level::kDebug, 650, "ReadWrite.delete",
             Format("%s Delete Buf2 B_O:%lld B_L:%d B_DL:%d S:%d\n", C(name), Lld(b.off), D(b.blen),
                    D(b.dlen), D(static_cast<std::uint64_t>(buffers.size()))));
  buffers.erase(rq.it);
  if (buffers.empty()) {
    curr_len = 0;
  } else if (was_last) {
    RangeWithoutLast(b);
  } else if (was_first) {
    RangeWithoutFirst(b);
  }
  curr_pos = rq.off;
  b.Destroy();
  throw Thrown{kErrWait};
}

std::uint32_t Stream::EndOfWalk(Request& rq, bool test_length) {
  if (rq.ret != 0) return rq.ret;
  if (test_length && rq.len == 0) world->Fail(734, "ReadWrite.length", "Length is 0\n");
  if (!rq.is_write && KnownEnd(rq)) {
    world->Say(Level::kDebug, 738, "ReadWrite.eof",
               Format("%s Eof O:%lld\n", C(name), Lld(rq.off)));
    if (rq.eof == nullptr) throw Undefined("a read without an end-of-file flag");
    *rq.eof = true;
    return 0;
  }
  Block* const b = AllocateBuffer(rq.it, rq.next_off, rq.off, rq.max_off, rq.alloc_size);
  if (rq.is_write) {
    const std::uint32_t n = b->Write(rq.buf, rq.off, rq.len);
    world->Say(Level::kDebug, 756, "ReadWrite.returning",
               Format("%s Returning %d\n", C(name), D(n)));
    return n;
  }
  b->DoReadIO(rq.lock, name, true, this);
  world->Fail(753, "ReadWrite.not_here", "We should not come here\n");
}

std::uint32_t Stream::ReadWrite(const void* lock, unsigned char* buf, std::uint64_t off,
                                std::uint32_t len, bool* eof, std::uint64_t max_off,
                                std::uint64_t /*cookie*/, std::uint32_t alloc_size, bool is_write,
                                bool flush_flag) {
  Request rq{};
  rq.lock = lock;
  rq.buf = buf;
  rq.off = off;
  rq.len = len;
  rq.eof = eof;
  rq.max_off = max_off;
  rq.alloc_size = alloc_size;
  rq.is_write = is_write;
  rq.flush_flag = flush_flag;
  rq.tag = is_write ? "Write-io-active" : "Read-io-active";

  last_buffer = nullptr;
  rq.it = buffers.begin();
  while (rq.it != buffers.end()) {
    TraceFinding(rq);
    switch (CarryOut(Decide(rq), rq)) {
      case Then::kNextBlock: ++rq.it; break;
      case Then::kSameBlock: break;
      case Then::kEndOfWalk: return EndOfWalk(rq, true);
      case Then::kEndOfWalkUntested: return EndOfWalk(rq, false);
      case Then::kReturn: return rq.ret;
    }
  }
  return EndOfWalk(rq, true);
}

// ---------------------------------------------------------------------------------------------
// A stream: read and write
// ---------------------------------------------------------------------------------------------

// Strict on both sides: a request that touches either edge of the valid data takes the full path.
bool Stream::ReadTakesShortcut(std::uint64_t off, std::uint32_t len) const {
  return last_buffer != nullptr && last_buffer->Is(VALID) && last_buffer->off < off &&
         off + len < last_buffer->DataEnd();
}

std::uint32_t Stream::Read(const void* lock, unsigned char* buf, std::uint64_t off,
                           std::uint32_t len, bool* eof, std::uint64_t max_off,
                           std::uint64_t cookie, std::uint32_t alloc_size, std::uint32_t maxbufs,
                           std::uint32_t maxpending) {
  io_cookie = cookie;
  const std::int32_t interval = world->refresh_interval;
  std::uint32_t n = 0;
  if (ReadTakesShortcut(off, len)) {
    n = last_buffer->Read(buf, off, len);
  } else {
    ShrinkStream(lock, off, maxbufs);
    n = ReadWrite(lock, buf, off, len, eof, max_off, cookie, alloc_size, false, false);
    if (eof == nullptr) throw Undefined("a read without an end-of-file flag");
    if (!*eof && interval != 0) ReadAhead(lock, off, max_off, alloc_size, maxbufs, maxpending);
  }
  curr_pos = off + n;
  return n;
}

bool Stream::WriteTakesShortcut(std::uint64_t off, std::uint32_t len) const {
  return last_buffer != nullptr && last_buffer->Is(DIRTY) && last_buffer->off < off &&
         last_buffer->DataEnd() == off && off + len < last_buffer->BlockEnd();
}

std::uint32_t Stream::Write(const void* lock, unsigned char* buf, std::uint64_t off,
                            std::uint32_t len, std::uint64_t max_off, std::uint64_t cookie,
                            std::uint32_t alloc_size, std::uint32_t maxbufs, bool flush_flag) {
  io_cookie = cookie;
  std::uint32_t n = 0;
  if (WriteTakesShortcut(off, len)) {
    n = last_buffer->Write(buf, off, len);
  } else {
    ShrinkStream(lock, off, maxbufs);
    n = ReadWrite(lock, buf, off, len, nullptr, max_off, cookie, alloc_size, true, flush_flag);
  }
  const std::uint64_t end = off + n;
  if (end > curr_off + Unsigned(curr_len)) curr_len = Signed(end - curr_off);
  // Either would do: the sign is looked at whether or not the length has just been set.
  if (curr_len < 0) world->Fail(785, "Write.negative6", Format("Negative length6 %d", D(curr_len)));
  curr_pos = end;
  return n;
}

// ---------------------------------------------------------------------------------------------
// A stream: read-ahead, flush, dirty check
// ---------------------------------------------------------------------------------------------

void Stream::ReadAhead(const void* lock, std::uint64_t off, std::uint64_t maxoff,
                       std::uint32_t bufsize, std::uint32_t maxbufs, std::uint32_t maxpending) {
  std::uint32_t pending = 0;
  for (const Block* b : buffers) {
    if (b->off > off) ++pending;
  }
  world->Say(Level::kDebug, 0, "ReadAhead.pending", Format("%s Pending %d\n", C(name), D(pending)));
  if (buffers.empty()) return;
  const Block* const last = buffers.back();
  std::uint64_t next = last->off + last->blen;
  if (buffers.size() >= maxbufs) return;
  std::uint32_t started = 0;
  while (true) {
    if (pending >= maxpending) return;
    if (next >= maxoff) return;
    if (last->Is(END_OF_FILE)) return;
    Block* const b = AllocateBuffer(buffers.end(), ~std::uint64_t{0}, next, maxoff, bufsize);
    b->DoReadIO(lock, name, false, this);
    next = b->off + b->blen;
    if (next > maxoff)
      world->Fail(0, "ReadAhead.too_big",
                  Format("lastbuf_length too big O:%lld L:%ld M_L:%lld", Lld(b->off), Ld(b->blen),
                         Lld(maxoff)));
    ++pending;
    ++started;
    if (started == 100)
      world->Fail(0, "ReadAhead.too_many", Format("Too many readaheads %d", D(started)));
    if (buffers.size() >= maxbufs) return;
  }
}

void Stream::Flush(const void* lock, bool wait, bool write_mode, bool ignore_read,
                   bool flush_current_only) {
  world->Say(Level::kTrace, 0, "Flush.entry",
             Format("VeskStream::Flush, flush_current_only(%s) \n", TrueFalse(flush_current_only)));
  if (buffers.empty()) return;
  for (Block* b : buffers) {
    world->Say(Level::kDebug, 0, "Flush.block", "VeskStream::Flush, calling DoWriteIO on buffer\n");
    b->DoWriteIO(lock, name, write_mode, wait, ignore_read, "Flush", flush_current_only);
  }
}

bool Stream::IsCacheDirty(bool ignore_reads) {
  if (buffers.empty()) return false;
  for (Block* b : buffers) {
    if (b->Is(DIRTY)) return true;
    if (b->Is(IOW)) return true;
    if (!ignore_reads && b->Is(IOR)) return true;
    try {
      b->WaitForBuffer(nullptr, name, false, "Dirty-check");
    } catch (const Thrown& thrown) {
      world->Say(Level::kDump, 0, "IsCacheDirty.caught",
                 Format("Excpetion in IsCacheDirty %d\n", thrown.code));
    }
  }
  return false;
}

// ---------------------------------------------------------------------------------------------
// A stream: truncate, shrink, split
// ---------------------------------------------------------------------------------------------

void Stream::Truncate(std::uint64_t newlen) {
  last_buffer = nullptr;
  for (auto it = buffers.begin(); it != buffers.end();) {
    const auto here = it++;
    Block& b = **here;
    const std::uint64_t end = b.BlockEnd();
    if (newlen > b.off && newlen < end) {
      b.ReduceLength(name, D(newlen - b.off));
      continue;
    }
    // Either would do for a block whose end runs past the largest offset: "beyond its end" is
    // looked at before "at or before its start".
    if (newlen > end) continue;
    buffers.erase(here);
    b.Destroy();
  }
  curr_len = Signed(newlen - curr_off);
  if (curr_len < 0)
    world->Fail(0, "Truncate.negative8", Format("Negative length8 %d", D(curr_len)));
}

bool Stream::FirstBlockMayGo(std::uint64_t off, std::uint32_t maxbufs) const {
  if (buffers.empty() || buffers.front() == nullptr) return false;
  const Block& first = *buffers.front();
  if (first.skip <= 3 && buffers.size() <= maxbufs) return false;
  if (buffers.size() < 2) return false;
  return first.BlockEnd() < curr_pos && first.BlockEnd() < off;
}

void Stream::ShrinkStream(const void* lock, std::uint64_t off, std::uint32_t maxbufs) {
  if (!FirstBlockMayGo(off, maxbufs)) return;
  const std::uint64_t old_off = curr_off;
  last_buffer = nullptr;
  Block& first = *buffers.front();
  first.DoWriteIO(lock, name, false, true, false, "ShrinkStream", false);
  world->Say(Level::kDebug, 0, "ShrinkStream.delete",
             Format("%s Delete buffer BO:%lld BL:%d S_O:%lld S_L:%d\n", C(name), Lld(first.off),
                    D(first.dlen), Lld(curr_off), D(curr_len)));
  buffers.pop_front();
  first.Destroy();
  curr_len = Signed(old_off + Unsigned(curr_len) - buffers.front()->off);
  curr_off = buffers.front()->off;
  if (curr_len < 0)
    world->Fail(0, "ShrinkStream.negative7", Format("Negative length7 %d", D(curr_len)));
}

std::uint64_t Stream::Split(const void* /*lock*/, Stream* other, std::uint64_t splitoff) {
  if (other == this) throw Undefined("a stream split into itself");
  last_buffer = nullptr;
  if (!(curr_off < splitoff && splitoff < curr_off + Unsigned(curr_len)))
    world->Fail(0, "Split.range",
                Format("Offset out of range O:%lld S_O:%lld S_L:%d", Lld(splitoff), Lld(curr_off),
                       D(curr_len)));
  if (buffers.empty()) return 0;

  auto it = buffers.begin();
  while (it != buffers.end() && ((*it)->off < splitoff || (*it)->Is(IOR))) {
    world->Say(
        Level::kDebug, 0, "Split.keep",
        Format("%s KeepBuffer B_O:%lld B_DL:%d\n", C(name), Lld((*it)->off), D((*it)->dlen)));
    ++it;
  }
  if (it == buffers.end()) return 0;

  const std::uint64_t divide = std::max(curr_off, (*it)->off);
  world->Say(Level::kDebug, 0, "Split.transfer1",
             Format("%s TransferBuffer1 B_O:%lld B_DL:%d N_O:%lld\n", C(name), Lld((*it)->off),
                    D((*it)->dlen), Lld(divide)));
  other->buffers.push_back(*it);
  it = buffers.erase(it);
  while (it != buffers.end()) {
    world->Say(
        Level::kDebug, 0, "Split.transfer2",
        Format("%s TransferBuffer2 B_O:%lld B_DL:%d\n", C(name), Lld((*it)->off), D((*it)->dlen)));
    other->buffers.push_back(*it);
    it = buffers.erase(it);
  }

  if (divide == 0) return 0;
  other->curr_off = divide;
  other->curr_len = Signed(Unsigned(curr_len) - divide + curr_off);
  other->curr_pos = divide;
  curr_len = Signed(divide - curr_off);
  if (curr_len < 0) world->Fail(0, "Split.negative9", Format("Negative length9 %d", D(curr_len)));
  if (other->curr_len < 0)
    world->Fail(0, "Split.negative10", Format("Negative length10 %d", D(other->curr_len)));
  return divide;
}

}  // namespace vesk_oracle
