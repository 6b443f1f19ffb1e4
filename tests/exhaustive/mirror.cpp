#include "tests/exhaustive/mirror.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <utility>

#include "tests/support/clock.h"

namespace vesk_test {

namespace {

const char* LevelName(vesk_oracle::Level level) {
  switch (level) {
    case vesk_oracle::Level::kDebug: return "Debug";
    case vesk_oracle::Level::kTrace: return "Trace";
    case vesk_oracle::Level::kInfo: return "Info";
    case vesk_oracle::Level::kDump: return "Dump";
    case vesk_oracle::Level::kError: return "Error";
  }
  return "";
}

std::string Bytes(const unsigned char* bytes, std::size_t count) {
  std::ostringstream text;
  for (std::size_t i = 0; i < count; ++i) text << ' ' << int{bytes[i]};
  return text.str();
}

std::string Bytes(const std::string& bytes, std::size_t count) {
  return Bytes(reinterpret_cast<const unsigned char*>(bytes.data()), count);
}

}  // namespace

Mirror::Mirror(const World& real) : real_(real), now_(clock_now) {
  const Settings& settings = real.settings();
  model_.refresh_interval = static_cast<std::int32_t>(settings.refresh);
  model_.has_thread_pool = settings.pool != 0;
  model_.now = [this] { return now_; };
  model_.on_submit = [this](vesk_oracle::Job*) { lines_at_submission_.push_back(lines_.size()); };
  model_.wait_for_job = [this](vesk_oracle::Job* job, const void*, const char* tag) {
    OnWait(job, tag);
  };
  model_.fails = [this](vesk_oracle::Allocation what) { return Fails(what); };
  for (auto& stream : streams_) {
    stream = std::make_unique<vesk_oracle::Stream>(&model_, World::Name(), kBases[settings.base],
                                                   settings.covered, World::kCookie);
  }
}

bool Mirror::Fails(vesk_oracle::Allocation what) {
  if (what == vesk_oracle::Allocation::kOperation) return std::exchange(no_operation_, false);
  if (what == vesk_oracle::Allocation::kJob) return std::exchange(no_job_, false);
  return false;
}

std::string Mirror::Follow() {
  try {
    Play();
  } catch (const vesk_oracle::Undefined& undefined) {
    Compare("something that the model gives no answer to", "", undefined.what());
  } catch (const vesk_oracle::ProcessEnds&) {
    Compare("the end of the process", "", "a block destroyed while it is busy or dirty");
  }
  CompareLines();
  CompareJobs();
  for (std::size_t i = 0; i < World::kStreams; ++i) CompareStream(i);
  return different_;
}

void Mirror::Play() {
  while (next_event_ < real_.events().size() && different_.empty()) {
    const Event& event = real_.events()[next_event_];
    if (event.what == Event::kCall) {
      ++next_event_;
      MakeCall(event.call);
    } else if (event.what == Event::kEnded) {
      ++next_event_;
      EndJob(event);
    } else if (event.what == Event::kClock) {
      ++next_event_;
      now_ = event.now;
    } else if (event.what == Event::kNoMemory) {
      ++next_event_;
      (event.for_job ? no_job_ : no_operation_) = true;
    } else if (event.what == Event::kMemory) {
      ++next_event_;
      no_job_ = no_operation_ = false;
    } else {
      return;  // the end of what happens in a wait
    }
  }
}

const Event& Mirror::Next(Event::What what) {
  static const Event none;
  if (next_event_ == real_.events().size() || real_.events()[next_event_].what != what) {
    const std::string seen = next_event_ == real_.events().size()
                                 ? "the end"
                                 : std::to_string(real_.events()[next_event_].what);
    Compare("what happened next", seen, std::to_string(what));
    return none;
  }
  return real_.events()[next_event_++];
}

void Mirror::MakeCall(const Call& call) {
  const Result made = Make(call);
  CompareResult(Next(Event::kReturned).result, made);
}

Result Mirror::Make(const Call& call) {
  Result result;
  result.eof = call.eof;
  if (call.op == Op::kRead) result.bytes.assign(call.len, World::kUntouched);
  try {
    result.value = Carry(call, result);
  } catch (const vesk_oracle::Thrown& thrown) {
    result.code = thrown.code;
  }
  return result;
}

std::uint64_t Mirror::Carry(const Call& call, Result& result) {
  vesk_oracle::Stream& stream = *streams_[call.stream];
  const int lock = 0;
  std::vector<unsigned char> bytes = call.bytes;
  const bool* const flags = call.flags;
  const auto block = [&] {
    return std::next(stream.buffers.begin(), static_cast<std::ptrdiff_t>(call.block));
  };
  switch (call.op) {
    case Op::kRead:
      return stream.Read(&lock, result.bytes.data(), call.off, call.len, &result.eof, call.max_off,
                         World::kCookie + call.off, call.alloc_size, call.maxbufs, call.maxpending);
    case Op::kWrite:
      return stream.Write(&lock, bytes.data(), call.off, call.len, call.max_off,
                          World::kCookie + call.off, call.alloc_size, call.maxbufs, flags[0]);
    case Op::kReadAhead:
      stream.ReadAhead(&lock, call.off, call.max_off, call.alloc_size, call.maxbufs,
                       call.maxpending);
      return 0;
    case Op::kFlush: stream.Flush(&lock, flags[0], flags[1], flags[2], flags[3]); return 0;
    case Op::kDirty: return stream.IsCacheDirty(flags[0]) ? 1 : 0;
    case Op::kShrink: stream.ShrinkStream(&lock, call.off, call.maxbufs); return 0;
    case Op::kTruncate: stream.Truncate(call.off); return 0;
    case Op::kSplit: return stream.Split(&lock, streams_[call.other].get(), call.off);
    case Op::kAllocate:
      stream.AllocateBuffer(block(), call.off + call.len, call.off, call.max_off, call.alloc_size);
      return 0;
    case Op::kBlockWrite: return (*block())->Write(bytes.data(), call.off, call.len);
    case Op::kBlockRead: (*block())->DoReadIO(&lock, stream.name, false, &stream); return 0;
    case Op::kRemoveEof: stream.RemoveEOF(); return 0;
    case Op::kLength: return stream.GetMaxLen();
    case Op::kDump: stream.Dump(); return 0;
    case Op::kReap: (*block())->WaitForBuffer(&lock, stream.name, false, "Reap"); return 0;
  }
  return 0;
}

void Mirror::EndJob(const Event& event) {
  if (event.flight >= submitted_.size()) {
    Compare("a job that ends", std::to_string(event.flight), "not submitted");
    return;
  }
  vesk_oracle::Job* const job = submitted_[event.flight].job;
  if (job->is_write) {
    vesk_oracle::World::EndWrite(job, event.return_value);
    return;
  }
  --job->owner_stream->pending_io;
  vesk_oracle::World::EndRead(job, event.return_value, event.count,
                              std::string(event.bytes.begin(), event.bytes.end()));
}

void Mirror::OnWait(const vesk_oracle::Job* job, const std::string& tag) {
  if (!different_.empty()) return;
  const Event& wait = Next(Event::kWait);
  Compare("the reason of a wait", wait.tag, tag);
  Compare("the job of a wait", std::to_string(wait.flight), std::to_string(NumberOf(job)));
  Play();
  Next(Event::kWaited);
}

std::size_t Mirror::NumberOf(const vesk_oracle::Job* job) const {
  const auto found = std::find_if(submitted_.begin(), submitted_.end(),
                                  [job](const auto& submitted) { return submitted.job == job; });
  return static_cast<std::size_t>(found - submitted_.begin());
}

// ---- comparing ----------------------------------------------------------------------------------

void Mirror::Compare(const char* what, const std::string& real, const std::string& model) {
  if (real == model || !different_.empty()) return;
  different_ = std::string(what) + "\n  cache: " + real + "\n  model: " + model;
}

void Mirror::CompareResult(const Result& real, const Result& model) {
  const auto text = [](const Result& result) {
    return (result.code != 0 ? "code " + std::to_string(result.code)
                             : "value " + std::to_string(result.value)) +
           (result.eof ? " eof" : "") + Bytes(result.bytes.data(), result.bytes.size());
  };
  Compare("the result of a call", text(real), text(model));
}

// Addresses and the model's tokens in one form: jobs by the order of their submission, others not
// told apart.
std::string Mirror::Normal(const std::string& text) const {
  std::string normal;
  for (std::size_t at = 0; at < text.size();) {
    if (text.compare(at, 2, "0x") == 0) {
      std::size_t digits = 0;
      const auto address = std::stoul(text.substr(at), &digits, 16);
      at += digits;
      const auto& flights = real_.flights();
      const auto flight =
          std::find_if(flights.begin(), flights.end(), [&](const Flight& candidate) {
            return reinterpret_cast<std::uintptr_t>(candidate.job) == address;
          });
      normal += flight == flights.end()
                    ? "<>"
                    : "<job " + std::to_string(flight - flights.begin() + 1) + ">";
    } else if (text[at] == '<' && text.compare(at, 5, "<job ") != 0) {
      at = text.find('>', at) + 1;
      normal += "<>";
    } else {
      normal += text[at++];
    }
  }
  return normal;
}

void Mirror::CompareLines() {
  const std::vector<LogLine>& real = real_.lines();
  for (; lines_compared_ < std::max(real.size(), lines_.size()) && different_.empty();
       ++lines_compared_) {
    const std::size_t at = lines_compared_;
    Compare("a line", at < real.size() ? real[at].level + (' ' + Normal(real[at].text)) : "none",
            at < lines_.size() ? LevelName(lines_[at].level) + (' ' + Normal(lines_[at].text))
                               : "none");
    if (different_.empty()) CompareSites(real[at], lines_[at]);
  }
}

// Where the number is free, one place has one number.
void Mirror::CompareSites(const LogLine& real, const vesk_oracle::Line& model) {
  const int expected =
      model.site != 0 ? model.site : sites_.emplace(model.place, real.site).first->second;
  Compare("the site of a line", std::to_string(real.site) + ' ' + real.text,
          std::to_string(expected) + ' ' + real.text);
}

void Mirror::CompareJobs() {
  const auto& flights = real_.flights();
  Compare("jobs submitted", std::to_string(flights.size()), std::to_string(submitted_.size()));
  for (; jobs_compared_ < flights.size() && different_.empty(); ++jobs_compared_) {
    const Flight& real = flights[jobs_compared_];
    const vesk_oracle::Submitted& model = submitted_[jobs_compared_];
    const auto text = [](bool is_write, unsigned long off, unsigned long length, unsigned int flags,
                         std::size_t lines, const std::string& bytes) {
      std::ostringstream words;
      words << (is_write ? "write" : "read") << " of " << length << " at " << off << " flags "
            << flags << " after " << lines << " lines:" << bytes;
      return words.str();
    };
    Compare("a job",
            text(real.is_write, real.off, real.length, real.flags, real.lines_before,
                 Bytes(real.sent.data(), real.sent.size())),
            text(model.is_write, model.offset, model.length, model.flags,
                 lines_at_submission_[jobs_compared_], Bytes(model.bytes, model.bytes.size())));
    Compare("the name that a job is for", World::Name(), model.name);
  }
  Compare("readings of the clock", std::to_string(clock_reads), std::to_string(model_.clock_reads));
}

void Mirror::CompareStream(std::size_t number) {
  const vesk::VeskStream& real = real_.stream(number);
  const vesk_oracle::Stream& model = *streams_[number];
  const auto range = [](const auto& stream) {
    std::ostringstream text;
    const auto last = std::find(stream.buffers.begin(), stream.buffers.end(), stream.last_buffer);
    text << stream.curr_off << ' ' << stream.curr_len << ' ' << stream.curr_pos << ", last "
         << std::distance(stream.buffers.begin(), last) << ", pending " << stream.pending_io
         << ", cookie " << stream.io_cookie << ", tag " << stream.stream_tag << ' '
         << stream.aux_count << ", blocks " << stream.buffers.size();
    return text.str();
  };
  Compare("a stream", range(real), range(model));
  if (!different_.empty()) return;
  const auto fields = [](const auto& block, const std::string& bytes) {
    std::ostringstream text;
    text << "skip " << block.skip << " ltime " << block.ltime << " size " << block.size << " state "
         << block.state << " off " << block.off << " dlen " << block.dlen << " blen " << block.blen
         << " dirty " << block.dirty_length << " rc " << block.rc
         << (block.job != nullptr ? " job" : "") << bytes;
    return text.str();
  };
  auto other = model.buffers.begin();
  for (const vesk::VeskBuffer* const block : real.buffers) {
    Compare("a block", fields(*block, Bytes(block->bptr, block->dlen)),
            fields(**other, Bytes((*other)->bytes, (*other)->dlen)));
    ++other;
  }
}

// ---- runs ---------------------------------------------------------------------------------------

namespace {

Settings Plain(Settings settings) {
  settings.careful = 0;  // a careful caller changes blocks by itself
  return settings;
}

std::string Settled(World& world, Mirror& mirror) {
  world.Settle();
  const std::string different = mirror.Follow();
  return different.empty() ? world.broken() : different;
}

}  // namespace

std::string RunCompared(const Case& c) {
  World world(Plain(c.settings));
  world.Record();
  Mirror mirror(world);
  for (const Step& step : c.steps) {
    world.Do(step);
    const std::string different = mirror.Follow();
    if (!different.empty()) return different;
  }
  return Settled(world, mirror);
}

std::string RunComparedAtEnd(const Case& c, std::string* fingerprint) {
  World world(Plain(c.settings));
  world.Record();
  Mirror mirror(world);
  for (const Step& step : c.steps) world.Do(step);
  *fingerprint = world.over() ? std::string() : world.Fingerprint();
  const std::string different = mirror.Follow();
  return different.empty() ? Settled(world, mirror) : different;
}

}  // namespace vesk_test
