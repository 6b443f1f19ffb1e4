#include "programs/replay/replay.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <iterator>

#include "vesk/VeskStream.h"

namespace vesk_replay {

namespace {

constexpr unsigned kInvalid = vesk::VeskBuffer::INV, kDirty = vesk::VeskBuffer::DIRTY,
                   kValid = vesk::VeskBuffer::VALID, kReading = vesk::VeskBuffer::IOR,
                   kWriting = vesk::VeskBuffer::IOW, kEof = vesk::VeskBuffer::END_OF_FILE,
                   kBusy = kReading | kWriting;

// Sites that a line is compared with.
constexpr int kSiteWriteJob = 299, kSiteDone = 341, kSiteEof = 362, kSiteNew = 493,
              kSiteFinding = 520;

constexpr char kCheckHead[] = "ASSERT failure::";
constexpr char kHistoryHead[] = "history begins";

// A length of a line: printed as a signed number.
std::uint32_t Length(std::uint64_t number) { return static_cast<std::uint32_t>(number); }

std::string Text(std::uint64_t number) { return std::to_string(number); }

std::string JobText(std::uint64_t job) {
  if (job == 0) return "no job";
  char text[32];
  std::snprintf(text, sizeof text, "job 0x%" PRIx64, job);
  return text;
}

bool Has(const Block& block, unsigned bits) {
  return block.state.has_value() && (*block.state & bits) != 0;
}

bool MayBeInFlight(const Block& block) {
  return block.state ? (*block.state & kBusy) != 0 : block.job != std::uint64_t{0};
}

template <typename T>
int Agree(const std::optional<T>& known, const std::optional<T>& told) {
  return known && told ? (*known == *told ? 1 : -1) : 0;
}

}  // namespace

std::string StateText(unsigned state) {
  static constexpr std::pair<unsigned, const char*> kNames[] = {
      {kInvalid, "INV"}, {kDirty, "DIRTY"}, {kValid, "VALID"},
      {kReading, "IOR"}, {kWriting, "IOW"}, {kEof, "EOF"}};
  std::string text = std::to_string(state);
  char before = ' ';
  for (const auto& [bit, name] : kNames) {
    if ((state & bit) == 0) continue;
    text += before;
    text += name;
    before = '|';
  }
  return text;
}

const std::vector<Replay::Site>& Replay::Sites() {
  static const std::vector<Site> sites = {
      {101, "Error", "Out of memory", &Replay::TakeNoBlock},
      {108, "Error", "buffer io in progress %d\n", &Replay::TakeCheck},
      {110, "Error", "buffer dirty %d\n", &Replay::TakeCheck},
      {121, "Dump",
       "Dump BUFFER(%p) bptr:%p size:%u state:%d(%s) off:%lld dlen:%d blen:%d skip:%d ltime:%d "
       "rc:%d job:%p dirty_length=%d\n",
       &Replay::TakeDump},
      {129, "Debug", "%s Remove EOF\n", &Replay::TakeRemoveEof},
      {140, "Error", "Length is 0\n", &Replay::TakeCheck},
      {143, "Error", "Offset too small O:%lld B_O:%lld\n", &Replay::TakeCheck},
      {146, "Error", "Offset too big O:%lld B_O:%lld L:%d DL:%d\n", &Replay::TakeCheck},
      {151, "Error", "Buffer is not valid %d\n", &Replay::TakeCheck},
      {166, "Error", "DBL: %ld BL: %ld\n", &Replay::TakeCheck},
      {178, "Error", "Length is 0\n", &Replay::TakeCheck},
      {181, "Error", "Offset too small O:%lld B_O:%lld\n", &Replay::TakeCheck},
      {184, "Error", "Offset too big O:%lld B_O:%lld B_DL:%d\n", &Replay::TakeCheck},
      {189, "Error", "Buffer is not valid %d\n", &Replay::TakeCheck},
      {192, "Debug", "Read buffer O:%lld L:%d B_O:%lld B_L:%d\n", &Replay::TakeReading},
      {208, "Debug", "%s ReducingLength NL:%d L:%d\n", &Replay::TakeReduce},
      {210, "Error", "buffer dirty %d\n", &Replay::TakeCheck},
      {217, "Error", "DBL: %ld BL: %ld\n", &Replay::TakeCheck},
      {226, "Error", "Buffer is dirty\n", &Replay::TakeCheck},
      {229, "Error", "Buffer length not valid %d\n", &Replay::TakeCheck},
      {231, "Error", "Buffer dirty length not valid %d\n", &Replay::TakeCheck},
      {234, "Error", "Out of memory", &Replay::TakeCheck},
      {249, "Error", "Out of memory", &Replay::TakeCheck},
      {254, "Debug", "%s Creating Read job %p O:%lld L:%d ST:%x\n", &Replay::TakeReadJob},
      {271, "Trace", "VeskBuffer::DoWriteIO(%s), flush_current_only(%s) \n", &Replay::TakeNamed},
      {274, "Debug", "VeskBuffer::DoWriteIO(%s), buffer dirty \n", &Replay::TakeNamed},
      {284, "Error", "DBL: %ld BL: %ld\n", &Replay::TakeCheck},
      {287, "Error", "Out of memory", &Replay::TakeNoWrite},
      {297, "Error", "Out of memory", &Replay::TakeNoWrite},
      {299, "Trace", "%s Creating Write job %p W:%d O:%lld L:%d\n", &Replay::TakeWriteJob},
      {328, "Error", "No job exists\n", &Replay::TakeCheck},
      {341, "Trace", "%s Job done O:%lld L:%d DL:%d\n", &Replay::TakeDone},
      {353, "Error", "%s Block error RC:%d\n", &Replay::TakeJobError},
      {362, "Debug", "%s End of file DL:%d ST:%d\n", &Replay::TakeEndOfFile},
      {370, "Trace", "%s Wait for job %p O:%lld\n", &Replay::TakeWait},
      {384, "Error", "Out of memory", &Replay::TakeCheck},
      {398, "Error", "Out of memory", &Replay::TakeCheck},
      {411, "Debug", "%s CurrentValidLength1 O:%lld L:%d DL:%d\n", &Replay::TakeTail},
      {413, "Error", "Negative CurrentValidLength1 CO:%lld L:%u O:%lld\n", &Replay::TakeCheck},
      {420, "Error", "Negative CurrentValidLength2 CO:%lld CL:%lld O:%lld\n", &Replay::TakeCheck},
      {423, "Debug", "%s CurrentValidLength2 O:%lld L:%d DL:%d\n", &Replay::TakeHead},
      {441, "Debug", "VeskStream::GetMaxLen len=%llu\n", nullptr},
      {462, "Dump", "Dump STREAM(%p) -> off:%llu len:%u pos:%llu \n", nullptr},
      {477, "Dump", "AllocBuf DUMP BEGIN off:%lld maxoff:%lld nexoff:%lld size:%u pos:%d\n",
       nullptr},
      {479, "Dump", "AllocBuf DUMP END\n", nullptr},
      {480, "Error", "Endoff too big O:%lld ML:%lld", &Replay::TakeCheck},
      {491, "Error", "Allocation too big %ld", &Replay::TakeCheck},
      {493, "Debug", "%s New buffer O:%lld L:%d AS:%ld ML:%llu\n", &Replay::TakeNew},
      {496, "Error", "Out of memory", &Replay::TakeNoBlock},
      {500, "Error", "Read io going on1", &Replay::TakeCheck},
      {502, "Error", "Data len!=0", &Replay::TakeCheck},
      {520, "Debug", "%s Finding buffer B_O:%lld B_L:%d B_DL:%d O:%lld L:%d S:%d ST:%d\n",
       &Replay::TakeFinding},
      {650, "Debug", "%s Delete Buf2 B_O:%lld B_L:%d B_DL:%d S:%d\n", &Replay::TakeDiscard},
      {671, "Debug", "%s Trunc B_O:%lld B_L:%d B_DL:%d OE:%lld NE:%lld\n", &Replay::TakeNamed},
      {675, "Error", "Negative length3 %d", &Replay::TakeCheck},
      {679, "Debug", "%s Shrinking B_O:%lld B_L:%d B_DL:%d NB_O:%lld NB_L:%d\n",
       &Replay::TakeShrinking},
      {687, "Error", "Negative length4 %d", &Replay::TakeCheck},
      {700, "Error", "No action taken %d\n", &Replay::TakeCheck},
      {707, "Debug", "%s Reading hole O:%lld L:%d\n", &Replay::TakeHole},
      {722, "Debug", "%s IO done O:%lld L:%d\n", &Replay::TakeIoDone},
      {734, "Error", "Length is 0\n", &Replay::TakeCheck},
      {738, "Debug", "%s Eof O:%lld\n", &Replay::TakeEof},
      {753, "Error", "We should not come here\n", &Replay::TakeCheck},
      {756, "Debug", "%s Returning %d\n", &Replay::TakeReturning},
      {785, "Error", "Negative length6 %d", &Replay::TakeCheck},
      {806, "Debug", "%s Pending %d\n", &Replay::TakeNamed},
      {831, "Error", "lastbuf_length too big O:%lld L:%ld M_L:%lld", &Replay::TakeCheck},
      {836, "Error", "Too many readaheads %d", &Replay::TakeCheck},
      {851, "Trace", "VeskStream::Flush, flush_current_only(%s) \n", nullptr},
      {857, "Debug", "VeskStream::Flush, calling DoWriteIO on buffer\n", nullptr},
      {884, "Dump", "Excpetion in IsCacheDirty %d\n", nullptr},
      {915, "Error", "Negative length8 %d", &Replay::TakeCheck},
      {938, "Debug", "%s Delete buffer BO:%lld BL:%d S_O:%lld S_L:%d\n", &Replay::TakeShrink},
      {947, "Error", "Negative length7 %d", &Replay::TakeCheck},
      {962, "Error", "Offset out of range O:%lld S_O:%lld S_L:%d", &Replay::TakeCheck},
      {971, "Debug", "%s KeepBuffer B_O:%lld B_DL:%d\n", &Replay::TakeStay},
      {979, "Debug", "%s TransferBuffer1 B_O:%lld B_DL:%d N_O:%lld\n", &Replay::TakeMove},
      {985, "Debug", "%s TransferBuffer2 B_O:%lld B_DL:%d\n", &Replay::TakeMove},
      {998, "Error", "Negative length9 %d", &Replay::TakeCheck},
      {1003, "Error", "Negative length10 %d", &Replay::TakeCheck},
  };
  return sites;
}

Replay::Replay(bool whole) : whole_(whole) {}

const std::vector<Note>& Replay::Feed(std::string_view raw) {
  ++totals_.lines;
  notes_.clear();
  file_name_.clear();
  file_ = nullptr;
  seat_ = nullptr;
  is_cache_line_ = false;
  LogLine line;
  if (ParseLine(raw, &line)) TakeLine(line);
  return notes_;
}

void Replay::TakeLine(const LogLine& line) {
  if (line.file == "Logger") {
    // What a ring could not keep is missing between two histories.
    const bool begins = line.text.compare(0, sizeof kHistoryHead - 1, kHistoryHead) == 0;
    if (begins && !direct_ && !files_.empty()) Forget("a history does not begin where one ended");
    return;
  }
  is_cache_line_ = true;
  ++totals_.cache_lines;
  if (IsRepeated(line)) return;
  thread_ = line.thread;
  text_ = line.text;
  if (line.text.empty() || line.text == kCheckHead) {  // around the message of a failed check
    TakeNoName();
    return;
  }
  const std::vector<Site>& sites = Sites();
  const auto site = std::find_if(sites.begin(), sites.end(), [&line](const Site& candidate) {
    return candidate.number == line.site;
  });
  if (site == sites.end()) {
    Damaged();
    return;
  }
  TakeSite(*site, line);
}

// Lines that were written when they came are written once more in the history of a failed check.
bool Replay::IsRepeated(const LogLine& line) {
  if (line.history) {
    if (direct_) ++totals_.repeated;
    return direct_;
  }
  direct_ = direct_ || line.site == kSiteNew || line.site == kSiteFinding;
  return false;
}

void Replay::TakeSite(const Site& site, const LogLine& line) {
  if (site.operation == std::string_view("Trace")) ++totals_.trace_lines;
  Values values;
  if (!Match(site.format, line.text, &values)) {
    Damaged();
    return;
  }
  if (site.take == nullptr) {
    TakeNoName();
  } else {
    (this->*site.take)(values);
  }
  if (seat_ != nullptr) seat_->site = line.site;
}

// What the line told is lost, and what is known may be wrong by that.
void Replay::Damaged() {
  ++totals_.damaged;
  Forget("a line is cut or garbled");
}

void Replay::Enter(const std::string& name) {
  file_name_ = name;
  File& file = files_[name];
  if (file.first_line == 0) file.first_line = totals_.lines;
  file.last_line = totals_.lines;
  file_ = &file;
  seat_ = &seats_[{thread_, name}];
  sure_ = !thread_.empty() || seat_->number + 1 == totals_.cache_lines;
  seat_->number = totals_.cache_lines;
  threads_[thread_] = {totals_.lines, text_, name};
}

// A line without a name belongs to what its thread did before.
void Replay::TakeNoName() {
  Activity& activity = threads_[thread_];
  const std::string name = activity.file;
  if (!name.empty()) {
    Enter(name);
  } else {
    activity = {totals_.lines, text_, {}};
  }
}

void Replay::Forget(const char* reason) {
  Doubtful(reason);
  files_.clear();
  seats_.clear();
  whole_ = false;
}

// ---- notes ----

void Replay::Add(Note::Kind kind, const std::string& text) { notes_.push_back({kind, text}); }

std::string Replay::Name(const Block& block) const {
  return "block " + std::to_string(block.off) + " of " + file_name_;
}

void Replay::Change(const Block& block, const std::string& text) {
  Add(Note::Kind::kChange, Name(block) + ": " + text);
}

void Replay::Untold(const Block& block, const std::string& text) {
  ++totals_.untold;
  Add(Note::Kind::kUntold, Name(block) + " " + text + " without a line");
}

void Replay::Doubtful(const char* reason) {
  Doubt& doubt = doubts_[reason];
  if (doubt.count == 0) doubt.first_line = totals_.lines;
  ++doubt.count;
  Add(Note::Kind::kDoubt, reason);
}

void Replay::Contradict(const std::string& text) {
  ++totals_.contradictions;
  Add(Note::Kind::kContradiction, text);
}

// ---- blocks ----

Block* Replay::Get(const Ref& ref) {
  if (ref.id == 0) return nullptr;
  const auto [begin, end] = file_->blocks.equal_range(ref.off);
  const auto found =
      std::find_if(begin, end, [&ref](const auto& entry) { return entry.second.id == ref.id; });
  return found == end ? nullptr : &found->second;
}

// How well what is known of the block agrees with what is told of it.
int Replay::Agrees(const Block& block, const Told& told) {
  int agrees = Agree(block.length, told.length) + Agree(block.valid, told.valid) +
               2 * Agree(block.state, told.state) + 4 * Agree(block.job, told.job);
  if (told.busy && block.state) agrees += Has(block, kBusy) == *told.busy ? 2 : -2;
  return agrees;
}

// Of the blocks that begin at `off` the one that agrees best with what is told: there may be
// several, since a block whose job has failed stays. Of equals the one that the line before was
// about, else the last. Null: there is none.
Block* Replay::Best(std::uint64_t off, const Told& told) {
  Block* best = nullptr;
  int most = 0;
  const auto [begin, end] = file_->blocks.equal_range(off);
  for (auto entry = begin; entry != end; ++entry) {
    Block& block = entry->second;
    const int agrees = 2 * Agrees(block, told) + (block.id == seat_->block.id ? 1 : 0);
    if (best != nullptr && agrees < most) continue;
    best = &block;
    most = agrees;
  }
  return best;
}

// The same for a block that a request has come to: it meets them in their order, and one twice only
// behind the end of its job.
Block* Replay::NextOnWalk(std::uint64_t off, const Told& told) {
  const auto [begin, end] = file_->blocks.equal_range(off);
  auto entry = begin;
  if (const Block* const at = Get(seat_->walk.block); at != nullptr && at->off == off) {
    entry = std::find_if(begin, end,
                         [at](const auto& candidate) { return candidate.second.id == at->id; });
    if (seat_->site != kSiteDone && seat_->site != kSiteEof) ++entry;
  }
  for (; entry != end; ++entry) {
    const Block& block = entry->second;
    const bool fits = Agree(block.length, told.length) >= 0 && Agree(block.state, told.state) >= 0;
    if (fits) return &entry->second;
  }
  return Best(off, told);
}

Block& Replay::Insert(Blocks::iterator before, std::uint64_t off) {
  Block block;
  block.id = ++last_id_;
  block.off = off;
  block.told = totals_.lines;
  return file_->blocks.emplace_hint(before, off, block)->second;
}

// The block at `off` with what the line tells of it.
Block& Replay::Known(std::uint64_t off, const Told& told) {
  return Known(Best(off, told), off, told);
}

Block& Replay::Known(Block* block, std::uint64_t off, const Told& told) {
  if (block == nullptr) {
    block = &Insert(file_->blocks.upper_bound(off), off);
    if (whole_) Contradict(Name(*block) + " was made by no line");
  }
  Learn(*block, told);
  About(*block);
  return *block;
}

void Replay::About(Block& block) {
  block.told = totals_.lines;
  seat_->block = {block.off, block.id};
  Settle(block, true);
}

// The block is no longer new: either its request has `returned`, or it is one that reads. Nothing
// else is told of a block before.
void Replay::Settle(const Block& block, bool returned) {
  std::vector<Ref>& fresh = seat_->fresh;
  const auto found = std::find_if(fresh.begin(), fresh.end(),
                                  [&block](const Ref& ref) { return ref.id == block.id; });
  if (found == fresh.end()) return;
  fresh.erase(found);
  if (returned && seat_->returned > 0) --seat_->returned;
  ForgetReturned();
}

// When all that may be new have returned, none is.
void Replay::ForgetReturned() {
  if (seat_->returned < seat_->fresh.size()) return;
  seat_->fresh.clear();
  seat_->returned = 0;
}

void Replay::Erase(const Block& block) {
  const auto [begin, end] = file_->blocks.equal_range(block.off);
  file_->blocks.erase(std::find_if(
      begin, end, [&block](const auto& entry) { return entry.second.id == block.id; }));
}

// Compares what the line tells with what is known, which it takes the place of.
void Replay::Learn(Block& block, const Told& told) {
  if (told.length && block.length && *told.length != *block.length) {
    Contradict(Name(block) + ": length " + Text(*block.length) + " was expected, " +
               Text(*told.length) + " is told");
  }
  if (told.length) block.length = told.length;
  if (told.job && block.job && *told.job != *block.job) {
    Contradict(Name(block) + ": " + JobText(*block.job) + " was expected, " + JobText(*told.job) +
               " is told");
  }
  if (told.job) block.job = told.job;
  if (told.state) LearnState(block, *told.state);
  if (told.valid) LearnValid(block, *told.valid);
}

void Replay::LearnState(Block& block, unsigned told) {
  if (block.state == told) return;
  if (block.state) {
    const unsigned known = *block.state;
    const bool was_busy = (known & kBusy) != 0, is_busy = (told & kBusy) != 0;
    const bool same_end = (known & kEof) == (told & kEof) || (known & kInvalid) != 0;
    if (!was_busy && !is_busy && (known & kDirty) == 0 && (told & kDirty) != 0 && same_end) {
      Untold(block, "was written to");
    } else if (was_busy != is_busy && totals_.trace_lines == 0) {
      Untold(block, "began or ended a job");  // whose lines are of operation Trace
    } else {
      Contradict(Name(block) + ": state " + StateText(known) + " was expected, " + StateText(told) +
                 " is told");
    }
  }
  SetState(block, told);
}

// Behind LearnState. A read in flight stores what it likes; whoever owns the blocks may fill up
// with zeros what a read left empty.
void Replay::LearnValid(Block& block, std::uint32_t told) {
  if (Has(block, kReading)) return;
  if (block.valid && told != *block.valid && block.state) {
    if (told > *block.valid && Has(block, kDirty | kValid | kInvalid)) {
      Untold(block, "got more data");
      if (Has(block, kInvalid)) block.state.reset();  // whoever owns it keeps what was not stored
    } else {
      Contradict(Name(block) + ": " + Text(*block.valid) + " valid bytes were expected, " +
                 Text(told) + " are told");
    }
  }
  block.valid = told;
}

// Behind LearnState.
void Replay::LearnPasses(Block& block, std::uint32_t told) {
  if (block.passes && told > *block.passes) {
    Contradict(Name(block) + ": passed over " + Text(*block.passes) +
               " times at most was expected, " + Text(told) + " is told");
  }
  block.passes = Has(block, kValid | kEof) ? told + 1 : told;  // it may be passed over now
}

void Replay::SetState(Block& block, unsigned state) {
  if (block.state != state) {
    Change(block,
           (block.state ? StateText(*block.state) : std::string("?")) + " -> " + StateText(state));
  }
  block.state = state;
  if ((state & kBusy) == 0) block.job = 0;
  if ((state & kReading) != 0) block.valid.reset();
}

// Bytes up to `end` were written into the block.
void Replay::Wrote(Block& block, std::uint64_t end) {
  const auto count = static_cast<std::uint32_t>(end - block.off);
  if (Has(block, kBusy | kInvalid) || (block.length && count > *block.length)) {
    Contradict(Name(block) + ": nothing can be written up to " + Text(end));
  }
  if (block.state) SetState(block, (*block.state & ~kValid) | kDirty);
  block.valid = std::max(block.valid.value_or(0), count);
  block.passes = 0;
}

void Replay::Cut(Block& block, std::uint32_t length) {
  Change(block, "cut to " + Text(length));
  block.length = length;
  if (block.valid) block.valid = std::min(*block.valid, length);
  block.passes = 0;
}

// What became of the block cannot be told.
void Replay::Blur(Block& block) {
  block.state.reset();
  block.valid.reset();
  block.job.reset();
}

// ---- which block a line is about ----

// The block that the line before says is waited for: by a write-back, or by a request that it keeps
// from going on and that has nothing to hand back yet. Null: none.
Block* Replay::WaitedFor() {
  const Walk& walk = seat_->walk;
  Block* const block = Get(seat_->block);
  if (block == nullptr || !MayBeInFlight(*block)) return nullptr;
  if (seat_->site == kSiteWriteJob) return seat_->waits ? block : nullptr;
  if (seat_->site != kSiteFinding || walk.served || walk.off < block->off) return nullptr;
  const std::uint64_t distance = walk.off - block->off;
  const bool covers = block->length && distance < *block->length;
  return covers && (Has(*block, kReading) || block->valid > distance) ? block : nullptr;
}

// The one whose job has ended; null: it cannot be told.
Block* Replay::PickInFlight() {
  std::vector<Block*> candidates;
  for (auto& [off, block] : file_->blocks) {
    if (MayBeInFlight(block)) candidates.push_back(&block);
  }
  Block* const waited_for = thread_.empty() ? nullptr : WaitedFor();
  if (waited_for != nullptr) return waited_for;
  if (candidates.size() == 1 && whole_) return candidates.front();
  if (candidates.empty() && whole_) Contradict(file_name_ + ": no block has a job in flight");
  for (Block* const candidate : candidates) Blur(*candidate);
  Doubtful("which block's job had ended (353 and 362 tell no offset)");
  return nullptr;
}

// The one that was cut; null: it cannot be told.
Block* Replay::PickCut(std::uint32_t old_length, std::uint32_t new_length) {
  Block* const block = Get(seat_->block);
  if (block != nullptr && block->length == old_length) {
    const bool shipped = seat_->site == kSiteFinding && Has(*block, kDirty) &&
                         (block->valid == new_length || block->off + new_length == seat_->walk.off);
    const bool came_short =
        (seat_->site == kSiteDone || seat_->site == kSiteEof) && block->valid == new_length;
    if (shipped || came_short) {
      if (!sure_) ++totals_.assumed;
      return block;
    }
  }
  std::vector<Block*> candidates;
  for (auto& [off, candidate] : file_->blocks) {
    if (candidate.length.value_or(old_length) == old_length) candidates.push_back(&candidate);
  }
  if (candidates.size() == 1 && whole_) return candidates.front();
  if (candidates.empty() && whole_) {
    Contradict(file_name_ + ": no block has a length of " + Text(old_length));
  }
  for (Block* const candidate : candidates) {
    candidate->length.reset();
    candidate->valid.reset();
  }
  Doubtful("which block was cut (208 tells no offset)");
  return nullptr;
}

// The blocks between the one where the request was and this one are gone.
void Replay::PassTo(const Block& block) {
  const Walk& walk = seat_->walk;
  const auto [begin, end] = file_->blocks.equal_range(walk.block.off);
  auto entry = std::find_if(
      begin, end, [&walk](const auto& candidate) { return candidate.second.id == walk.block.id; });
  if (entry == end || entry->second.id == block.id) return;
  const auto first = ++entry;
  while (entry != file_->blocks.end() && entry->second.id != block.id) ++entry;
  if (entry == file_->blocks.end()) return;  // it lies before: a request that has begun again
  for (auto gone = first; gone != entry; gone = file_->blocks.erase(gone)) {
    Settle(gone->second, true);
    Untold(gone->second, "was dropped");
  }
}

// A new block takes the place of those that its request has not passed over and that could not
// stand beside it.
void Replay::DropOverlapped(std::uint64_t off, std::uint64_t end) {
  const Walk& walk = seat_->walk;
  const auto stays = [&](const Block& block) {
    if (std::find(walk.visited.begin(), walk.visited.end(), block.id) != walk.visited.end()) {
      return true;
    }
    if (block.off >= off) return false;
    if (Has(block, kReading)) return !block.length || block.off + *block.length <= off;
    return !block.valid || block.off + *block.valid <= off;
  };
  auto entry = file_->blocks.lower_bound(off);
  while (entry != file_->blocks.begin()) {
    const Block& before = std::prev(entry)->second;
    if (before.length && before.off + *before.length <= off) break;
    --entry;
  }
  while (entry != file_->blocks.end() && entry->first < end) {
    if (stays(entry->second)) {
      ++entry;
      continue;
    }
    Settle(entry->second, true);
    Untold(entry->second, "was dropped");
    entry = file_->blocks.erase(entry);
  }
}

// ---- lines: new blocks ----

void Replay::TakeNew(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.new_blocks;
  const std::uint64_t off = v.numbers[0];
  const std::uint32_t length = Length(v.numbers[1]);
  Walk& walk = seat_->walk;
  if (walk.block.id != 0 && walk.off != off) walk = Walk();
  auto before = file_->blocks.end();
  if (walk.hole) {  // it stands before the block that ends the hole, whatever its offset
    const auto [begin, end] = file_->blocks.equal_range(walk.block.off);
    before = std::find_if(begin, end,
                          [&walk](const auto& entry) { return entry.second.id == walk.block.id; });
  } else {
    DropOverlapped(off, off + length);
    before = file_->blocks.upper_bound(off);
  }
  Block& block = Insert(before, off);
  block.length = length;
  block.valid = 0;
  block.job = 0;
  block.passes = 0;
  block.made = totals_.lines;
  Change(block, "made, length " + Text(length));
  SetState(block, kValid);
  About(block);
  if (!thread_.empty()) seat_->fresh.clear();
  seat_->fresh.push_back(seat_->block);
  walk = Walk();
}

// The thread's new block, of which nothing but its range was told since. Null: there is none, or
// threads are not told and it may be another one's.
Block* Replay::Fresh() {
  return seat_->fresh.size() == 1 && seat_->returned == 0 ? Get(seat_->fresh.front()) : nullptr;
}

// The range as the cache prints it: its length cut to 32 bits.
void Replay::TakeTail(const Values& v) {
  Enter(v.texts[0]);
  const Block* const block = Fresh();
  if (block == nullptr || thread_.empty() || !block->length) return;
  const std::uint64_t end = block->off + *block->length;
  if (Length(v.numbers[0] + v.numbers[1]) == Length(end)) return;
  Contradict(file_name_ + ": a range up to " + Text(end) + " was expected, " + Text(v.numbers[0]) +
             " + " + Text(Length(v.numbers[1])) + " is told");
}

void Replay::TakeHead(const Values& v) {
  Enter(v.texts[0]);
  const Block* const block = Fresh();
  if (block == nullptr || thread_.empty() || block->off == v.numbers[0]) return;
  Contradict(file_name_ + ": a range from " + Text(block->off) + " on was expected, from " +
             Text(v.numbers[0]) + " is told");
}

// ---- lines: jobs ----

void Replay::TakeReadJob(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.read_jobs;
  const auto state = static_cast<unsigned>(v.numbers[3]);
  Told told;
  told.length = Length(v.numbers[2]);
  told.valid = 0;
  Block* const found = Best(v.numbers[1], told);
  if (found != nullptr) Settle(*found, false);
  Block& block = Known(found, v.numbers[1], told);
  if (block.state &&
      (Has(block, kBusy | kDirty) || state != ((*block.state & ~(kInvalid | kValid)) | kReading))) {
    Contradict(Name(block) + ": no read was expected in state " + StateText(*block.state) +
               ", one in state " + StateText(state) + " is told");
  }
  SetState(block, state);
  block.job = v.numbers[0];
  block.passes = 0;
}

void Replay::TakeWriteJob(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.write_jobs;
  const std::uint32_t length = Length(v.numbers[3]);
  Told told;
  told.state = kDirty;
  Block* const found = Best(v.numbers[2], told);
  Block& block = found != nullptr ? *found : Known(v.numbers[2], {});
  if (block.state) LearnState(block, kDirty | (*block.state & kEof));
  About(block);
  seat_->waits = v.numbers[1] != 0;
  if (block.length && length > *block.length) {
    Contradict(Name(block) + ": no write of " + Text(length) + " bytes was expected");
  }
  if (block.state) SetState(block, (*block.state & ~(kInvalid | kDirty | kValid)) | kWriting);
  block.length = length;  // it was cut to what it writes
  block.valid = length;
  block.job = v.numbers[0];
  block.passes = 0;
}

void Replay::TakeWait(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.waits;
  Told told;
  told.job = v.numbers[0];
  told.busy = true;
  const Block& block = Known(v.numbers[1], told);
  if (block.state && !Has(block, kBusy)) {
    Contradict(Name(block) + ": a job in flight is told, none was expected in state " +
               StateText(*block.state));
  }
  seat_->walk = Walk();
}

void Replay::TakeDone(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.jobs_done;
  Told told;
  told.length = Length(v.numbers[1]);
  told.valid = Length(v.numbers[2]);
  told.busy = true;
  Block& block = Known(v.numbers[0], told);
  if (block.state && !Has(block, kBusy)) {
    Contradict(Name(block) + ": the end of a job is told, none was expected in state " +
               StateText(*block.state));
  }
  if (block.state) SetState(block, (*block.state & kEof) | kValid);
  block.valid = told.valid;
  block.job = 0;
  if (!thread_.empty()) seat_->ending.clear();
  if (*told.valid == 0) seat_->ending.push_back(seat_->block);
}

void Replay::TakeJobError(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.jobs_failed;
  Block* const block = PickInFlight();
  if (block == nullptr) return;
  SetState(*block, kInvalid);
  block->valid = 0;
  About(*block);
}

// Behind the line of a job that ended well, or alone. Without threads lines of others may stand
// between the two.
void Replay::TakeEndOfFile(const Values& v) {
  Enter(v.texts[0]);
  std::vector<Ref>& ending = seat_->ending;
  Block* block = nullptr;
  if (ending.empty()) {
    ++totals_.jobs_done;
    block = PickInFlight();
  } else {
    block = Get(ending.front());
    ending.erase(ending.begin());
  }
  if (block == nullptr) return;
  SetState(*block, static_cast<unsigned>(v.numbers[1]));
  block->valid = Length(v.numbers[0]);
  About(*block);
}

// A stream clears its blocks from the first one on; an owner the one whose job has just ended.
void Replay::TakeRemoveEof(const Values& v) {
  Enter(v.texts[0]);
  std::vector<Block*> candidates;
  bool known = true;
  for (auto& [off, block] : file_->blocks) {
    known = known && block.state.has_value();
    if (Has(block, kEof)) candidates.push_back(&block);
  }
  if (candidates.empty()) {
    if (known && whole_) Contradict(file_name_ + ": no block was at the end of the file");
    return;
  }
  if (thread_.empty() && candidates.size() > 1) {
    for (Block* const block : candidates) block->state.reset();
    Doubtful("which block no longer ends the file (129 tells no offset)");
    return;
  }
  const bool ended = seat_->site == kSiteDone || seat_->site == kSiteEof;
  Block* const last = ended ? Get(seat_->block) : nullptr;
  Block& block = last != nullptr && Has(*last, kEof) ? *last : *candidates.front();
  SetState(block, *block.state & ~kEof);
}

// ---- lines: requests ----

void Replay::TakeFinding(const Values& v) {
  Enter(v.texts[0]);
  const std::uint64_t at = v.numbers[3], end = at + v.numbers[4];
  const auto state = static_cast<unsigned>(v.numbers[6]);
  Told told;
  told.length = Length(v.numbers[1]);
  told.valid = Length(v.numbers[2]);
  told.state = state;
  Walk& walk = seat_->walk;
  const bool goes_on = walk.block.id != 0 && walk.off == at && walk.end == end;
  if (!goes_on) walk = Walk();
  Block& block = Known(NextOnWalk(v.numbers[0], told), v.numbers[0], told);
  LearnPasses(block, Length(v.numbers[5]));
  if (goes_on) PassTo(block);
  walk.block = {block.off, block.id};
  walk.off = at;
  walk.end = end;
  walk.copied = false;
  walk.hole = false;
  walk.visited.push_back(block.id);
}

// Tells no name: of a request on its way the thread's file is taken, of others it does not matter.
void Replay::TakeReading(const Values& v) {
  ++totals_.copies_out;
  TakeNoName();
  if (seat_ == nullptr || !sure_ || seat_->site != kSiteFinding) return;
  Walk& walk = seat_->walk;
  Block* const block = Get(walk.block);
  if (block == nullptr || block->off != v.numbers[2] || walk.off != v.numbers[0]) return;
  walk.copied = true;
  block->passes = 0;
}

void Replay::TakeHole(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.holes;
  seat_->walk.hole = seat_->walk.off == v.numbers[0];
}

void Replay::TakeIoDone(const Values& v) {
  Enter(v.texts[0]);
  Walk& walk = seat_->walk;
  Block* const block = Get(walk.block);
  const std::uint64_t count = Length(v.numbers[1]);
  if (block == nullptr || walk.off != v.numbers[0]) return;
  walk.off += count;
  walk.served = walk.served || count > 0;
  if (walk.copied || walk.hole) return;
  if (sure_ && seat_->site == kSiteFinding) {
    ++totals_.copies_in;
    Wrote(*block, walk.off);
    return;
  }
  if (Has(*block, kDirty)) return;
  block->state.reset();
  Doubtful("whether a block was read or written (lines of several threads, which are not told)");
}

void Replay::TakeReturning(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.copies_in;
  if (Block* const block = Fresh()) {
    Wrote(*block, block->off + Length(v.numbers[0]));
    seat_->fresh.clear();
    return;
  }
  if (seat_->fresh.empty()) return;
  for (const Ref& ref : seat_->fresh) {
    if (Block* const block = Get(ref)) Blur(*block);
  }
  Doubtful("which new block was written (lines of several threads, which are not told)");
  ++seat_->returned;
  ForgetReturned();
}

void Replay::TakeEof(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.ends;
  seat_->walk = Walk();
}

// ---- lines: blocks that go, move or become shorter ----

void Replay::TakeReduce(const Values& v) {
  Enter(v.texts[0]);
  const std::uint32_t length = Length(v.numbers[0]), old_length = Length(v.numbers[1]);
  if (length >= old_length) return;  // nothing to cut, or refused
  if (Block* const block = PickCut(old_length, length)) Cut(*block, length);
}

void Replay::TakeDiscard(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.discarded;
  if (whole_ && v.numbers[3] > file_->blocks.size()) {
    Contradict(file_name_ + ": " + Text(file_->blocks.size()) + " blocks at most were expected, " +
               Text(v.numbers[3]) + " are told");
  }
  Told told;
  told.length = Length(v.numbers[1]);
  told.valid = Length(v.numbers[2]);
  const Block& block = Known(v.numbers[0], told);
  Change(block, "discarded");
  Erase(block);
  seat_->walk = Walk();
}

void Replay::TakeShrinking(const Values& v) {
  Enter(v.texts[0]);
  Told told;
  told.valid = Length(v.numbers[4]);
  Known(v.numbers[3], told);
}

void Replay::TakeShrink(const Values& v) {
  Enter(v.texts[0]);
  ++totals_.dropped;
  Told told;
  told.valid = Length(v.numbers[1]);
  seat_->walk = Walk();
  const Block& block = Known(NextOnWalk(v.numbers[0], told), v.numbers[0], told);  // the first
  if (Has(block, kBusy | kDirty)) {
    Contradict(Name(block) + ": it is dropped in state " + StateText(*block.state));
  }
  Change(block, "dropped");
  Erase(block);
}

void Replay::TakeStay(const Values& v) {
  Enter(v.texts[0]);
  Told told;
  told.valid = Length(v.numbers[1]);
  Known(v.numbers[0], told);
}

void Replay::TakeMove(const Values& v) {
  TakeStay(v);
  ++totals_.moved;
}

// ---- other lines ----

// Tells no name: taken for the file of the lines before, if it has such a block.
void Replay::TakeDump(const Values& v) {
  TakeNoName();
  if (seat_ == nullptr || !sure_) return;
  Told told;
  told.state = static_cast<unsigned>(v.numbers[3]);
  told.valid = Length(v.numbers[5]);
  told.length = Length(v.numbers[6]);
  told.job = v.numbers[10];
  Block* const block = Best(v.numbers[4], told);
  if (block == nullptr) return;
  Learn(*block, told);
  About(*block);
}

void Replay::TakeNamed(const Values& v) { Enter(v.texts[0]); }

void Replay::TakeCheck(const Values& /*v*/) {
  TakeNoName();
  ++totals_.failures;
  Add(Note::Kind::kFailure, "a check failed: " + text_);
}

// There was no memory for the block that the line before has told of.
void Replay::TakeNoBlock(const Values& v) {
  TakeCheck(v);
  if (seat_ == nullptr) return;
  if (const Block* const block = Fresh()) Erase(*block);
}

// There was no memory for a write: the block was cut to its dirty bytes before.
void Replay::TakeNoWrite(const Values& v) {
  TakeCheck(v);
  if (seat_ == nullptr) return;
  for (auto& [off, block] : file_->blocks) {
    if (!Has(block, kDirty)) continue;
    block.length.reset();
    block.valid.reset();
  }
  Doubtful("how far a block was cut for a write that could not be started");
}

}  // namespace vesk_replay
