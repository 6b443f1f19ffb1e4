// What is rebuilt from a log: compared with the blocks of the stream that wrote it, after each of
// many thousands of requests; and logs as they come from the field, cut, mixed and garbled.

#include "programs/replay/replay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "programs/replay/line.h"
#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskException;
using vesk::VeskStream;
using KnownBlock = vesk_replay::Block;
using vesk_replay::LogLine;
using vesk_replay::Match;
using vesk_replay::Note;
using vesk_replay::ParseLine;
using vesk_replay::Replay;
using vesk_replay::Values;

std::vector<std::string> Contradictions(const std::vector<Note>& notes) {
  std::vector<std::string> texts;
  for (const Note& note : notes) {
    if (note.kind == Note::Kind::kContradiction) texts.push_back(note.text);
  }
  return texts;
}

// "Debug 520 f Finding ...\n" as a logger writes it.
std::string AsText(const std::string& recorded) {
  std::string text = recorded.substr(recorded.find(' ') + 1);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return "2026-11-21T16:19:07.817932Z debug VeskStream:" + text;
}

// The same as JSON, of one thread.
std::string AsJson(const std::string& recorded) {
  const std::string text = AsText(recorded);
  const std::size_t site = text.find(':', text.find("VeskStream")) + 1;
  const std::size_t blank = text.find(' ', site);
  return R"({"time":"2026-11-21T16:19:07.817932Z","level":"debug","file":"VeskStream","site":)" +
         text.substr(site, blank - site) + R"(,"thread":7,"text":")" + text.substr(blank + 1) +
         "\"}";
}

// ---- against the cache itself ----

// What a run may do beside reading and writing.
struct Means {
  const char* name;
  bool failures = false;   // jobs fail
  bool truncates = false;  // drops blocks without a line
  bool ages = false;       // blocks become stale, and there is read-ahead
};

class ReplayModuleTest : public ModuleTest, public testing::WithParamInterface<Means> {
 protected:
  static constexpr unsigned long kFileSize = 40000;

  ReplayModuleTest() {
    dispatcher.on_wait = [this](vesk::VeskJob* job) { End(job); };
  }

  unsigned Random(unsigned below) {
    return std::uniform_int_distribution<unsigned>(0, below - 1)(random_);
  }

  // Ends a job as the store would, if it is not over yet.
  void End(vesk::VeskJob* job) {
    if (job->GetJobState() == vesk::JOB_STATE_DONE) return;
    const Operation operation = DescribeOperation(job);
    const bool fails = GetParam().failures && Random(6) == 0;
    if (operation.code == vesk::OPCODE_WRITE) {
      dispatcher.FinishWrite(job, fails ? 5 : 0);
      return;
    }
    const unsigned long length = std::stoul(operation.arguments[2].substr(4));
    const unsigned long off = std::stoul(operation.arguments[3].substr(6));
    const unsigned long left = off < kFileSize ? kFileSize - off : 0;
    const auto count = static_cast<unsigned int>(std::min(length, left));
    const int result = fails ? 5 : count == 0 && Random(2) == 0 ? vesk::RC_EOF : 0;
    dispatcher.FinishRead(job, result == 0 ? count : 0, result);
  }

  void EndSome() {
    for (vesk::VeskJob* const job : dispatcher.submitted) {
      if (Random(3) == 0) End(job);
    }
  }

  // Feeds what was logged since.
  void FeedLines() {
    for (; fed_ < logger.lines.size(); ++fed_) {
      const std::string& line = logger.lines[fed_];
      const std::string written = threads_told_ ? AsJson(line) : AsText(line);
      for (const std::string& text : Contradictions(replay_.Feed(written))) {
        ADD_FAILURE() << "line " << replay_.totals().lines << ": " << logger.lines[fed_] << text;
      }
    }
  }

  static bool Fits(const KnownBlock& told, const VeskBuffer& block) {
    if (told.off != block.off || (told.length && *told.length != block.blen)) return false;
    if (told.state && *told.state != block.state) return false;
    if (told.job && *told.job != reinterpret_cast<std::uintptr_t>(block.job)) return false;
    if (told.passes && *told.passes < block.skip) return false;
    if (!told.valid) return true;
    const bool grows = !told.state || (*told.state & DIRTY) != 0;
    return *told.valid == block.dlen || (grows && *told.valid < block.dlen);
  }

  static std::string Shown(const KnownBlock& block) {
    const auto text = [](const auto& value) {
      return value ? std::to_string(*value) : std::string("?");
    };
    return Text("%lu length %s valid %s state %s job %s passes %s line %zu\n",
                static_cast<unsigned long>(block.off), text(block.length).c_str(),
                text(block.valid).c_str(), text(block.state).c_str(), text(block.job).c_str(),
                text(block.passes).c_str(), block.told);
  }

  // Every block is known, in order, and nothing that is known of it is wrong. Beside them only
  // those are listed that the stream has dropped without a line.
  void Compare(const VeskStream& stream) {
    const auto file = replay_.files().find(stream.name);
    static const std::multimap<std::uint64_t, KnownBlock> kNone;
    const auto& told = file == replay_.files().end() ? kNone : file->second.blocks;
    auto entry = told.begin();
    bool same = true;
    for (const VeskBuffer* const block : stream.buffers) {
      while (entry != told.end() && !Fits(entry->second, *block) &&
             dropped_.count(entry->first) > 0) {
        ++entry;
      }
      same = same && entry != told.end() && Fits(entry->second, *block);
      if (!same) break;
      Count(entry->second);
      ++entry;
    }
    for (; same && entry != told.end(); ++entry) same = dropped_.count(entry->first) > 0;
    if (same) return;
    std::string text = "rebuilt:\n";
    for (const auto& [off, block] : told) text += Shown(block);
    text += "there:\n";
    for (const VeskBuffer* const block : stream.buffers) {
      text +=
          Text("%lu length %u valid %u state %u job %lu passes %u\n", block->off, block->blen,
               block->dlen, block->state, reinterpret_cast<unsigned long>(block->job), block->skip);
    }
    ADD_FAILURE() << "behind line " << replay_.totals().lines << ": " << logger.lines.back()
                  << text;
  }

  void Count(const KnownBlock& block) {
    ++blocks_;
    if (!block.length || !block.state || !block.job) ++blurred_;
  }

  // One request, or one other operation, repeated while the stream says so.
  //   Ends in  false: the stream is of no more use
  bool Step(VeskStream& stream) {
    const std::function<void()> operation = Chosen(stream);
    for (int repeats = 0; repeats < 30; ++repeats) {
      int code = 0;
      try {
        operation();
      } catch (const VeskException& failure) {
        code = failure.code;
      }
      FeedLines();
      Compare(stream);
      if (HasFailure() || code == vesk::ERR_ASSERT) return false;
      if (code != vesk::ERR_WAIT) return true;
    }
    return true;
  }

  std::function<void()> Chosen(VeskStream& stream) {
    const unsigned long off = Random(4) == 0 ? Random(kFileSize + 5000) : Random(40) * 1024ul;
    const unsigned int len = 1 + Random(Random(2) == 0 ? 6000 : 300);
    const unsigned int size = Random(3) == 0 ? 1 + Random(5000) : 4096;
    const unsigned int most = 2 + Random(12);
    const unsigned int ahead = Random(4);
    switch (Random(GetParam().truncates ? 12 : 11)) {
      case 0:
      case 1:
      case 2:
      case 3:
        return [=, &stream] {
          bool eof = false;
          stream.Read(&lock, memory, off, len, &eof, ~0ul, 0, size, most, ahead, nullptr);
        };
      case 4:
        return [=, &stream] {  // goes on where the last request ended
          bool eof = false;
          stream.Read(&lock, memory, stream.curr_pos, len, &eof, ~0ul, 0, size, most, ahead,
                      nullptr);
        };
      case 5:
      case 6:
        return [=, &stream] {
          stream.Write(&lock, memory, off, len, ~0ul, 0, size, most, Random(2) == 0, nullptr);
        };
      case 7:
        return [=, &stream] {
          stream.Write(&lock, memory, stream.curr_pos, len % 100 + 1, ~0ul, 0, size, most, false,
                       nullptr);
        };
      case 8:
        return [=, &stream] {
          EndSome();
          stream.Flush(&lock, len % 2 == 0, false, false, len % 7 == 0);
        };
      case 9:
        return [=, &stream] {
          EndSome();
          stream.IsCacheDirty(len % 2 == 0);
        };
      case 10:
        return [=, &stream] {
          clock_now += Random(10);
          if (len % 2 == 0) stream.Dump();
          if (len % 5 == 0) stream.RemoveEOF();
        };
      default: return [=, &stream] { Truncate(stream, off); };
    }
  }

  // Only what its owner may ask for: the blocks that go are clean and idle.
  void Truncate(VeskStream& stream, unsigned long length) {
    if (length < stream.curr_off) return;
    for (const VeskBuffer* const block : stream.buffers) {
      const bool goes = length <= block->off || length == block->off + block->blen;
      if (goes && block->GetState(DIRTY | IOR | IOW) != 0) return;
    }
    for (const VeskBuffer* const block : stream.buffers) {
      if (length <= block->off || length == block->off + block->blen) dropped_.insert(block->off);
    }
    stream.Truncate(length);
  }

  std::mt19937 random_;
  Replay replay_{true};
  std::size_t fed_ = 0;
  bool threads_told_ = false;
  std::set<unsigned long> dropped_;       // offsets of blocks that went without a line
  std::size_t blocks_ = 0, blurred_ = 0;  // compared; of these with something that cannot be told
};

TEST_P(ReplayModuleTest, RebuildsTheBlocksOfTheStreamAfterEachRequest) {
  constexpr unsigned kSeeds = 60;
  constexpr int kSteps = 250;
  std::size_t steps = 0;
  settings.refresh_interval = GetParam().ages ? 5 : 0;
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    random_.seed(seed);
    threads_told_ = seed % 3 != 0;
    dropped_.clear();
    VeskStream stream("file " + std::to_string(seed), bundler, 0, 0, 0);
    for (int step = 0; step < kSteps && Step(stream); ++step) ++steps;
    Clean(stream);
    dispatcher.Release();
    if (HasFailure()) return;
  }
  std::size_t lines_at_least = 20 * kSeeds;
  EXPECT_GT(replay_.totals().cache_lines, lines_at_least);
  EXPECT_EQ(replay_.totals().cache_lines, logger.lines.size());
  EXPECT_EQ(replay_.totals().damaged, 0u);
  RecordProperty("steps", static_cast<int>(steps));
  RecordProperty("blocks", static_cast<int>(blocks_));
  RecordProperty("blurred", static_cast<int>(blurred_));
  std::printf("%zu steps, %zu lines, %zu blocks compared, %zu of them not wholly told\n", steps,
              logger.lines.size(), blocks_, blurred_);
  if (GetParam().failures || GetParam().truncates) {
    EXPECT_LT(blurred_ * 4, blocks_);
  } else {
    EXPECT_LT(blurred_ * 50, blocks_);
  }
}

INSTANTIATE_TEST_SUITE_P(Means, ReplayModuleTest,
                         testing::Values(Means{"Plain"}, Means{"Aging", false, false, true},
                                         Means{"Failing", true, false, true},
                                         Means{"Truncating", false, true, false},
                                         Means{"Everything", true, true, true}),
                         [](const auto& means) { return std::string(means.param.name); });

}  // namespace
}  // namespace vesk_test
