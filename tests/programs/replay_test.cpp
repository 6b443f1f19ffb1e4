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
  constexpr unsigned kSeeds = 30;
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
  EXPECT_GT(steps, 60 * kSeeds);
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

// The lines of a run without failures.
class ReplayLinesTest : public ReplayModuleTest {
 protected:
  std::vector<std::string> Run() {
    random_.seed(1);
    VeskStream stream("f", bundler, 0, 0, 0);
    for (int step = 0; step < 150; ++step) Step(stream);
    Clean(stream);
    dispatcher.Release();
    return logger.lines;
  }

  // Contradictions of one more line, which is then forgotten.
  static std::size_t Objections(Replay replay, const std::string& line) {
    return Contradictions(replay.Feed(AsJson(line))).size();
  }

  static std::string Replaced(std::string line, const std::string& label, unsigned long value) {
    const std::size_t begin = line.find(label) + label.size();
    return line.replace(begin, line.find_first_of(" \n", begin) - begin, std::to_string(value));
  }

  static unsigned long Value(const std::string& line, const std::string& label) {
    return std::stoul(line.substr(line.find(label) + label.size()));
  }
};

TEST_P(ReplayLinesTest, ObjectsToAnyFieldOfABlockThatCannotBe) {
  Replay replay(true);
  std::size_t changed = 0;
  for (const std::string& line : Run()) {
    if (line.find("Debug 520") == 0) {
      ++changed;
      const unsigned long state = Value(line, " ST:"), length = Value(line, " B_L:");
      EXPECT_EQ(Objections(replay, line), 0u) << line;
      for (const unsigned long other : {1u, 4u, 8u, 16u, 36u}) {
        if (other == state) continue;
        EXPECT_GT(Objections(replay, Replaced(line, " ST:", other)), 0u) << other << ": " << line;
      }
      EXPECT_GT(Objections(replay, Replaced(line, " B_L:", length + 1)), 0u) << line;
      EXPECT_GT(Objections(replay, Replaced(line, " B_O:", 77777)), 0u) << line;
      EXPECT_GT(Objections(replay, Replaced(line, " S:", 1000)), 0u) << line;
    }
    if (line.find("Trace 341") == 0) {
      EXPECT_GT(Objections(replay, Replaced(line, " L:", Value(line, " L:") + 1)), 0u) << line;
      EXPECT_GT(Objections(replay, Replaced(line, " O:", 77777)), 0u) << line;
    }
    if (line.find("Trace 370") == 0) {
      std::string other = line;
      other.insert(line.find("0x") + 2, "1");
      EXPECT_GT(Objections(replay, other), 0u) << line;
    }
    replay.Feed(AsJson(line));
  }
  EXPECT_GT(changed, 300u);
}

TEST_P(ReplayLinesTest, MissesALineThatIsLeftOut) {
  const std::vector<std::string> lines = Run();
  std::size_t missed = 0;
  for (const char* const site : {"Debug 493", "Debug 254", "Trace 299", "Trace 341"}) {
    std::size_t found = 0, left_out = 0;
    for (std::size_t i = 0; i < lines.size() && left_out < 10; ++i) {
      if (lines[i].find(site) != 0) continue;
      ++left_out;
      Replay replay(true);
      for (std::size_t j = 0; j < lines.size(); ++j) {
        if (j != i) replay.Feed(AsJson(lines[j]));
      }
      if (replay.totals().contradictions > 0) ++found;
    }
    EXPECT_EQ(left_out, 10u) << site;
    EXPECT_GE(found, 8u) << site;  // of the last ones nothing may be told any more
    missed += found;
  }
  EXPECT_GT(missed, 0u);
}

TEST_P(ReplayLinesTest, ObjectsToNothingInALogThatBeginsInTheMiddle) {
  const std::vector<std::string> lines = Run();
  for (std::size_t first = 1; first < lines.size(); first += 1 + lines.size() / 60) {
    Replay text, json;
    for (std::size_t i = first; i < lines.size(); ++i) {
      ASSERT_TRUE(Contradictions(text.Feed(AsText(lines[i]))).empty()) << first << ": " << lines[i];
      ASSERT_TRUE(Contradictions(json.Feed(AsJson(lines[i]))).empty()) << first << ": " << lines[i];
    }
  }
}

TEST_P(ReplayLinesTest, TakesWhateverItIsFed) {
  const std::vector<std::string> lines = Run();
  Replay replay;
  for (int round = 0; round < 20000; ++round) {
    const std::string& chosen = lines[Random(static_cast<unsigned>(lines.size()))];
    std::string line = Random(2) == 0 ? AsText(chosen) : AsJson(chosen);
    for (unsigned change = Random(3); change > 0; --change) {
      const std::size_t at = Random(static_cast<unsigned>(line.size()));
      if (Random(3) == 0) {
        line.resize(at + 1);
      } else {
        line[at] = static_cast<char>(Random(256));
      }
    }
    replay.Feed(line);
  }
  EXPECT_EQ(replay.totals().lines, 20000u);
  EXPECT_GT(replay.totals().damaged, 1000u);
  EXPECT_GT(replay.totals().cache_lines, 10000u);
}

INSTANTIATE_TEST_SUITE_P(Lines, ReplayLinesTest, testing::Values(Means{"Plain"}),
                         [](const auto& means) { return std::string(means.param.name); });

// ---- lines as they come ----

TEST(ReplaySitesTest, AreThoseOfTheDocumentation) {
  std::ifstream table(std::string(VESK_SOURCE_DIR) + "/docs/trace.md");
  auto site = Replay::Sites().begin();
  for (std::string row; std::getline(table, row);) {
    if (row.size() < 3 || row[0] != '|' || row[2] < '0' || row[2] > '9') continue;
    ASSERT_NE(site, Replay::Sites().end()) << row;
    std::string text = site->format;
    for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2) {
      text.replace(at, 1, "\\n");
    }
    const std::string number = "| " + std::to_string(site->number) + " |";
    EXPECT_EQ(row.compare(0, number.size(), number), 0) << row;
    EXPECT_NE(row.find(std::string("| ") + site->operation + " |"), std::string::npos) << row;
    EXPECT_NE(row.find("| `" + text + "` |"), std::string::npos) << row;
    ++site;
  }
  EXPECT_EQ(site, Replay::Sites().end());
}

TEST(ReplayLineTest, IsTakenApartInEveryForm) {
  for (
      const char* const raw :
      {"2026-11-21T16:19:07.817932Z debug VeskStream:738 a b Eof O:5",
       "2026-11-21T16:19:07.817932Z debug VeskStream:738 a b Eof O:5\r",
       R"({"time":"t","level":"debug","file":"VeskStream","site":738,"thread":7,"text":"a b Eof O:5"})",
       R"( { "text" : "a b Eof O:5\n" , "site":738, "other":null, "file":"\u0056eskStream" } )",
       "Nov 21 16:19:07 host server[17]: VeskStream:738 a b Eof O:5"}) {
    LogLine line;
    ASSERT_TRUE(ParseLine(raw, &line)) << raw;
    EXPECT_EQ(line.file, "VeskStream") << raw;
    EXPECT_EQ(line.site, 738) << raw;
    EXPECT_EQ(line.text, "a b Eof O:5") << raw;
    EXPECT_FALSE(line.history) << raw;
  }
  LogLine line;
  ASSERT_TRUE(ParseLine("2026Z history trace VeskStream:341 f Job done", &line));
  EXPECT_TRUE(line.history);
  EXPECT_EQ(line.time, "2026Z");
  ASSERT_TRUE(ParseLine(R"({"file":"VeskStream","site":1,"thread":7,"history":true})", &line));
  EXPECT_TRUE(line.history);
  EXPECT_EQ(line.thread, "7");
}

TEST(ReplayLineTest, OfAnotherProgramIsNone) {
  for (const std::string& raw :
       {std::string(), std::string("hello"), std::string("VeskStream"), std::string("VeskStream:"),
        std::string("VeskStream:x y"), std::string("aVeskStream:738 f Eof O:5"), std::string("{"),
        std::string("{}"), std::string(R"({"file":"VeskStream","site":73)"),
        std::string(R"({"file":"VeskStream","site":738} x)"),
        std::string(R"({"file":"Other","site":738})"), std::string("\0\1\xff", 3),
        std::string(100000, 'x'), std::string("VeskStream:99999999999999999999 f")}) {
    LogLine line;
    EXPECT_FALSE(ParseLine(raw, &line)) << raw.substr(0, 100);
  }
}

TEST(ReplayLineTest, HasANameOfAnyKind) {
  Values values;
  ASSERT_TRUE(Match("%s Eof O:%lld\n", "a Eof O:1 Eof O:22", &values));
  EXPECT_EQ(values.texts, std::vector<std::string>{"a Eof O:1"});
  EXPECT_EQ(values.numbers, std::vector<std::uint64_t>{22});
  ASSERT_TRUE(Match("W(%s), only(%s) \n", "W(x), only(y)), only(TRUE)", &values));
  EXPECT_EQ(values.texts, (std::vector<std::string>{"x), only(y)", "TRUE"}));
  ASSERT_TRUE(Match("%p %x %d", "(nil) 1f -2", &values));
  EXPECT_EQ(values.numbers, (std::vector<std::uint64_t>{0, 31, ~std::uint64_t{0} - 1}));
  for (const char* const cut : {"f Eof O:", "f Eof", "f Eof O:1 ", "f Eof O:x", "", "f Eof O:1x",
                                "f Eof O:99999999999999999999999"}) {
    const bool whole = std::string(cut) == "f Eof O:1 ";
    EXPECT_EQ(Match("%s Eof O:%lld\n", cut, &values), whole) << cut;
  }
}

// ---- logs as they come ----

class ReplayLogTest : public testing::Test {
 protected:
  std::vector<Note::Kind> Feed(const std::string& text, const char* head = "t debug ") {
    std::vector<Note::Kind> kinds;
    for (const Note& note : replay_.Feed(head + text)) kinds.push_back(note.kind);
    return kinds;
  }

  void FeedNewBlock(const char* head = "t debug ") {
    Feed("VeskStream:493 f New buffer O:0 L:10 AS:10 ML:99", head);
    Feed("VeskStream:411 f CurrentValidLength1 O:0 L:10 DL:0", head);
    Feed("VeskStream:254 f Creating Read job 0x10 O:0 L:10 ST:8", head);
  }

  const KnownBlock& TheBlock() const { return replay_.files().at("f").blocks.begin()->second; }

  Replay replay_;
};

TEST_F(ReplayLogTest, TellsAFailedCheckOnce) {
  Feed("VeskStream:480 ASSERT failure::");
  EXPECT_EQ(Feed("VeskStream:480 Endoff too big O:5 ML:5"),
            std::vector<Note::Kind>{Note::Kind::kFailure});
  Feed("VeskStream:480 ");
  EXPECT_EQ(replay_.totals().failures, 1u);
}

TEST_F(ReplayLogTest, ForgetsEverythingAtALineThatIsCut) {
  FeedNewBlock();
  ASSERT_EQ(replay_.files().size(), 1u);
  EXPECT_EQ(Feed("VeskStream:341 f Job done O:0 L:1"), std::vector<Note::Kind>{Note::Kind::kDoubt});
  EXPECT_TRUE(replay_.files().empty());
  EXPECT_EQ(replay_.totals().damaged, 1u);
}

TEST_F(ReplayLogTest, PassesOverAHistoryOfLinesThatWereWrittenBefore) {
  FeedNewBlock();
  Feed("Logger:100 history begins, lines: 3, reason: ASSERT failure");
  FeedNewBlock("t history debug ");
  Feed("Logger:100 history ends");
  EXPECT_EQ(replay_.totals().repeated, 3u);
  EXPECT_EQ(replay_.totals().new_blocks, 1u);
  EXPECT_EQ(TheBlock().state, 8u);
}

TEST_F(ReplayLogTest, ReplaysAHistoryThatIsAllThereIs) {
  Feed("VeskStream:353 f Block error RC:5", "t error ");
  Feed("Logger:100 history begins, lines: 3, reason: ASSERT failure");
  FeedNewBlock("t history debug ");
  Feed("Logger:100 history ends");
  EXPECT_EQ(replay_.totals().repeated, 0u);
  EXPECT_EQ(TheBlock().state, 8u);
  EXPECT_EQ(TheBlock().job, 0x10u);
  // The ring may have lost what came between this history and the next.
  Feed("Logger:100 history begins, lines: 3, reason: ASSERT failure");
  EXPECT_TRUE(replay_.files().empty());
}

TEST_F(ReplayLogTest, SaysWhatItCannotTell) {
  FeedNewBlock();
  Feed("VeskStream:493 f New buffer O:10 L:10 AS:10 ML:99");
  Feed("VeskStream:254 f Creating Read job 0x20 O:10 L:10 ST:8");
  EXPECT_EQ(Feed("VeskStream:353 f Block error RC:5"), std::vector<Note::Kind>{Note::Kind::kDoubt});
  for (const auto& [off, block] : replay_.files().at("f").blocks) {
    EXPECT_FALSE(block.state.has_value()) << off;
    EXPECT_FALSE(block.job.has_value()) << off;
    EXPECT_TRUE(block.length.has_value()) << off;
  }
  Feed("VeskStream:341 f Job done O:10 L:10 DL:10");
  EXPECT_EQ(replay_.totals().contradictions, 0u);
  EXPECT_EQ(replay_.doubts().size(), 1u);
}

TEST_F(ReplayLogTest, DoesNotMissTheLinesOfALevelThatWasNotLogged) {
  FeedNewBlock();
  Feed("VeskStream:520 f Finding buffer B_O:0 B_L:10 B_DL:10 O:0 L:5 S:0 ST:4");
  EXPECT_EQ(replay_.totals().contradictions, 0u);
  EXPECT_EQ(replay_.totals().untold, 1u);
}

// Three threads write into two streams of one name. The first one's line of its new block is
// followed by those of the others for a long time.
TEST_F(ReplayLogTest, KeepsABlockNewUntilItsOwnRequestHasReturned) {
  const auto state_at = [this](std::uint64_t off) {
    return replay_.files().at("f").blocks.find(off)->second.state;
  };
  Feed("VeskStream:493 f New buffer O:0 L:10 AS:10 ML:50");
  Feed("VeskStream:493 f New buffer O:50 L:10 AS:10 ML:99");
  EXPECT_EQ(Feed("VeskStream:756 f Returning 10"), std::vector<Note::Kind>{Note::Kind::kDoubt});
  Feed("VeskStream:520 f Finding buffer B_O:50 B_L:10 B_DL:10 O:60 L:9 S:0 ST:2");
  Feed("VeskStream:493 f New buffer O:60 L:10 AS:10 ML:99");
  EXPECT_EQ(Feed("VeskStream:756 f Returning 9"), std::vector<Note::Kind>{Note::Kind::kDoubt});
  Feed("VeskStream:520 f Finding buffer B_O:60 B_L:10 B_DL:9 O:70 L:9 S:0 ST:2");
  Feed("VeskStream:493 f New buffer O:70 L:9 AS:10 ML:99");
  EXPECT_EQ(Feed("VeskStream:756 f Returning 10"), std::vector<Note::Kind>{Note::Kind::kDoubt})
      << "it may be the first one's";
  Feed("VeskStream:254 f Creating Read job 0x10 O:70 L:9 ST:8");
  EXPECT_EQ(replay_.totals().contradictions, 0u);
  EXPECT_EQ(state_at(70), 8u);
  // All are settled: what is written next is told again.
  Feed("VeskStream:493 f New buffer O:20 L:10 AS:10 ML:50");
  Feed("VeskStream:756 f Returning 10");
  EXPECT_EQ(state_at(20), 2u);
}

}  // namespace
}  // namespace vesk_test
