// Stores described by a line of text: what it may say, what it is told when it may not, and what is
// built from it.

#include "runtime/store_spec.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "runtime/dispatcher.h"
#include "runtime/random.h"
#include "runtime/settings.h"
#include "runtime/store.h"
#include "tests/support/jobs.h"
#include "tests/support/manual_clock.h"
#include "tests/support/null_logger.h"
#include "tests/support/temporary_directory.h"
#include "vesk/VeskBundler.h"
#ifdef VESK_HAVE_URING
#include "runtime/backend_uring.h"
#endif

#ifdef VESK_HAVE_URING
#include <liburing.h>

#include <atomic>

namespace vesk_test {
namespace {

std::atomic<bool> ring_is_refused{false};

}  // namespace
}  // namespace vesk_test

// In front of liburing's.
extern "C" int io_uring_queue_init(unsigned entries, io_uring* ring, unsigned flags) {
  if (vesk_test::ring_is_refused) return -EPERM;
  io_uring_params parameters = {};
  parameters.flags = flags;
  return io_uring_queue_init_params(entries, ring, &parameters);
}
#endif

namespace vesk_test {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using vesk::Clock;
using vesk::FaultRule;
using vesk::LatencyDecorator;
using vesk::ParseStoreSpec;
using vesk::StoreSpec;
using vesk::StoreStack;
using vesk::VeskBundler;
using Backend = StoreSpec::Backend;
using Effect = FaultRule::Effect;
using When = FaultRule::When;

// ---- what is right ----

StoreSpec Parsed(const std::string& text) {
  StoreSpec spec;
  std::string why;
  EXPECT_TRUE(ParseStoreSpec(text, &spec, &why)) << why;
  EXPECT_EQ(why, "");
  return spec;
}

// The only decorator of "auto,<text>".
template <typename Decorator>
Decorator Parsed(const std::string& text) {
  const StoreSpec spec = Parsed("auto," + text);
  EXPECT_EQ(spec.decorators.size(), 1u);
  if (spec.decorators.size() != 1 || !std::holds_alternative<Decorator>(spec.decorators[0])) {
    ADD_FAILURE() << text;
    return {};
  }
  return std::get<Decorator>(spec.decorators[0]);
}

TEST(ParseStoreSpecTest, TheBackendComesFirst) {
  EXPECT_EQ(Parsed("auto").backend, Backend::kAuto);
  EXPECT_EQ(Parsed("posix").backend, Backend::kPosix);
  EXPECT_EQ(Parsed("uring").backend, Backend::kUring);
  EXPECT_EQ(Parsed("memory").backend, Backend::kMemory);
  EXPECT_TRUE(Parsed("memory").decorators.empty());
}

TEST(ParseStoreSpecTest, DecoratorsKeepTheirOrderAndMayBeThereTwice) {
  const StoreSpec spec =
      Parsed("posix,latency=2ms,fault=write:EIO:every=100,retry,latency=1s,retry");
  std::vector<std::size_t> kinds;
  for (const auto& decorator : spec.decorators) kinds.push_back(decorator.index());
  EXPECT_EQ(kinds, (std::vector<std::size_t>{0, 1, 2, 0, 2}));
}

TEST(ParseStoreSpecTest, Latency) {
  auto latency = Parsed<LatencyDecorator::Options>("latency=2ms");
  EXPECT_EQ(latency.fixed, milliseconds(2));
  EXPECT_EQ(latency.jitter, Clock::Duration::zero());
  EXPECT_EQ(latency.bandwidth, 0u);
  latency = Parsed<LatencyDecorator::Options>("latency=250us:bandwidth=100M:seed=7:jitter=1m");
  EXPECT_EQ(latency.fixed, microseconds(250));
  EXPECT_EQ(latency.jitter, minutes(1));
  EXPECT_EQ(latency.bandwidth, 100u << 20);
  EXPECT_EQ(latency.seed, 7u);
  EXPECT_EQ(Parsed<LatencyDecorator::Options>("latency=0").fixed, Clock::Duration::zero());
}

TEST(ParseStoreSpecTest, Fault) {
  auto rule = Parsed<FaultRule>("fault=all:EIO");
  EXPECT_EQ(rule.operations, vesk::kFaultAll);
  EXPECT_EQ(rule.name, "*");
  EXPECT_EQ(rule.when, When::kAlways);
  EXPECT_EQ(rule.effect, Effect::kError);
  EXPECT_EQ(rule.error, EIO);
  EXPECT_EQ(rule.times, 0u);
  EXPECT_EQ(rule.lasts, Clock::Duration::zero());

  rule =
      Parsed<FaultRule>("fault=write+sync:ENOSPC:every=100:after=3:times=4:for=5s:name=*/x=[a-c]?");
  EXPECT_EQ(rule.operations, vesk::kFaultWrite | vesk::kFaultSync);
  EXPECT_EQ(rule.when, When::kEvery);
  EXPECT_EQ(rule.number, 100u);
  EXPECT_EQ(rule.after, 3u);
  EXPECT_EQ(rule.times, 4u);
  EXPECT_EQ(rule.lasts, seconds(5));
  EXPECT_EQ(rule.name, "*/x=[a-c]?");
  EXPECT_EQ(rule.error, ENOSPC);

  rule = Parsed<FaultRule>("fault=read:short:chance=0.25:seed=9");
  EXPECT_EQ(rule.effect, Effect::kShort);
  EXPECT_EQ(rule.when, When::kChance);
  EXPECT_EQ(rule.chance, 0.25);
  EXPECT_EQ(rule.seed, 9u);
  rule = Parsed<FaultRule>("fault=transfers:never:nth=2");
  EXPECT_EQ(rule.operations, vesk::kFaultRead | vesk::kFaultWrite);
  EXPECT_EQ(rule.effect, Effect::kNever);
  EXPECT_EQ(rule.when, When::kNth);
  EXPECT_EQ(rule.number, 2u);
}

TEST(ParseStoreSpecTest, EveryOperationAndErrorHasItsName) {
  struct Row {
    const char* name;
    vesk::FaultOperations operations;
  };
  const Row rows[] = {
      {"read", vesk::kFaultRead},           {"write", vesk::kFaultWrite},
      {"stat", vesk::kFaultStat},           {"open", vesk::kFaultOpen},
      {"create", vesk::kFaultCreate},       {"truncate", vesk::kFaultTruncate},
      {"nextdata", vesk::kFaultNextData},   {"sync", vesk::kFaultSync},
      {"rename", vesk::kFaultRename},       {"remove", vesk::kFaultRemove},
      {"transfers", vesk::kFaultTransfers}, {"setpermissions", vesk::kFaultSetPermissions},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Parsed<FaultRule>(std::string("fault=") + row.name + ":EIO").operations,
              row.operations);
  }
  EXPECT_EQ(Parsed<FaultRule>("fault=all:ETIMEDOUT").error, ETIMEDOUT);
  EXPECT_EQ(Parsed<FaultRule>("fault=all:EXDEV").error, EXDEV);
  EXPECT_EQ(Parsed<FaultRule>("fault=all:EACCES").error, EACCES);
}

TEST(ParseStoreSpecTest, Retry) {
  EXPECT_FALSE(Parsed<vesk::RetryOptions>("retry").seed);
  EXPECT_EQ(Parsed<vesk::RetryOptions>("retry:seed=3").seed, 3u);
}

// ---- what is wrong ----

std::string Refusal(const std::string& text) {
  StoreSpec spec;
  spec.backend = Backend::kMemory;
  std::string why;
  EXPECT_FALSE(ParseStoreSpec(text, &spec, &why)) << text;
  EXPECT_EQ(spec.backend, Backend::kMemory) << "changed by a description that was refused";
  EXPECT_TRUE(spec.decorators.empty());
  return why;
}

TEST(ParseStoreSpecTest, SaysWhatIsWrongAndWhatWouldBeRight) {
  struct Row {
    const char* text;
    const char* why;
  };
  const std::string errors =
      "EACCES, EAGAIN, EBADF, EBUSY, ECANCELED, ECONNABORTED, ECONNREFUSED, ECONNRESET, EDQUOT, "
      "EEXIST, EFBIG, EHOSTDOWN, EHOSTUNREACH, EINTR, EINVAL, EIO, EISDIR, ELOOP, EMFILE, EMLINK, "
      "ENAMETOOLONG, ENETDOWN, ENETRESET, ENETUNREACH, ENFILE, ENOBUFS, ENODEV, ENOENT, ENOLCK, "
      "ENOMEM, ENOSPC, ENOSYS, ENOTCONN, ENOTDIR, ENOTSUP, ENXIO, EPERM, EPIPE, EREMOTEIO, EROFS, "
      "ESHUTDOWN, ESTALE, ETIMEDOUT, ETXTBSY, EXDEV";
  EXPECT_EQ(Refusal("posix,fault=read:EIOO"),
            "fault: unknown effect 'EIOO'; did you mean 'EIO'? known: never, short, " + errors);
  EXPECT_EQ(Refusal("posix,fault=read:5"),
            "fault: unknown effect '5'; known: never, short, " + errors);
  // clang-format off
  const Row rows[] = {
      // the backend
      {"",                       "the description is empty; a backend comes first: auto, memory, posix, uring"},
      {"posx",                   "unknown backend 'posx'; did you mean 'posix'? known: auto, memory, posix, uring"},
      {"POSIX",                  "unknown backend 'POSIX'; known: auto, memory, posix, uring"},
      {"threads",                "unknown backend 'threads'; known: auto, memory, posix, uring"},
      {" posix",                 "unknown backend ' posix'; did you mean 'posix'? known: auto, memory, posix, uring"},
      {"posix=4",                "'posix' takes no value; settings say how it works"},
      {"posix:threads=4",        "'posix' takes no value; settings say how it works"},
      {"posix:",                 "'posix' takes no value; settings say how it works"},
      {"retry,posix",            "'retry' stands in front of a backend, which comes first: auto, memory, posix, uring"},
      {"latency=2ms",            "'latency' stands in front of a backend, which comes first: auto, memory, posix, uring"},
      {"posix,posix",            "'posix' is a backend, which only the first item can be"},
      {"posix,retry,memory",     "'memory' is a backend, which only the first item can be"},
      // items
      {",",                      "item 1 is empty: one ',' between two items, none at the ends"},
      {"posix,",                 "item 2 is empty: one ',' between two items, none at the ends"},
      {",posix",                 "item 1 is empty: one ',' between two items, none at the ends"},
      {"posix,,retry",           "item 2 is empty: one ',' between two items, none at the ends"},
      {"posix,latancy=2ms",      "unknown decorator 'latancy'; did you mean 'latency'? known: fault, latency, retry"},
      {"posix,cache",            "unknown decorator 'cache'; known: fault, latency, retry"},
      {"posix, retry",           "unknown decorator ' retry'; did you mean 'retry'? known: fault, latency, retry"},
      {"posix,=",                "unknown decorator ''; known: fault, latency, retry"},
      {"posix,:",                "unknown decorator ''; known: fault, latency, retry"},
      {"posix,re\ntry",          "unknown decorator 're\\x0atry'; did you mean 'retry'? known: fault, latency, retry"},
      // latency
      {"posix,latency",          "latency: needs a time, as in latency=2ms"},
      {"posix,latency:seed=1",   "latency: needs a time, as in latency=2ms"},
      {"posix,latency=",         "latency: '' is not a duration: a whole number of us, ms, s, m or h as in 30s"},
      {"posix,latency=2",        "latency: '2' has no unit: us, ms, s, m or h belongs behind it, as in 2ms"},
      {"posix,latency=2x",       "latency: '2x' is not a duration: a whole number of us, ms, s, m or h as in 30s"},
      {"posix,latency=-2ms",     "latency: '-2ms' is not a duration: a whole number of us, ms, s, m or h as in 30s"},
      {"posix,latency=1.5ms",    "latency: '1.5ms' is not a duration: a whole number of us, ms, s, m or h as in 30s"},
      {"posix,latency=721h",     "latency: '721h' is too large: at most 720h"},
      {"posix,latency=99999999999999999999s", "latency: '99999999999999999999s' is too large: at most 720h"},
      {"posix,latency=2ms:",     "latency: unknown key ''; known: bandwidth, jitter, seed"},
      {"posix,latency=2ms:jiter=1ms", "latency: unknown key 'jiter'; did you mean 'jitter'? known: bandwidth, jitter, seed"},
      {"posix,latency=2ms:jitter", "latency: jitter needs a value: jitter=..."},
      {"posix,latency=2ms:jitter=1", "latency: jitter: '1' has no unit: us, ms, s, m or h belongs behind it, as in 2ms"},
      {"posix,latency=2ms:seed=1:seed=1", "latency: seed is there twice"},
      {"posix,latency=2ms:seed=x", "latency: seed: 'x' is not a whole number: 0 to 18446744073709551615"},
      {"posix,latency=2ms:seed=18446744073709551616", "latency: seed: '18446744073709551616' is too large: at most 18446744073709551615"},
      {"posix,latency=2ms:bandwidth=1023", "latency: bandwidth: '1023' is too small: at least 1K"},
      {"posix,latency=2ms:bandwidth=2T", "latency: bandwidth: '2T' is too large: at most 1T"},
      {"posix,latency=2ms:bandwidth=fast", "latency: bandwidth: 'fast' is not a size: a whole number of bytes, or of K, M, G or T as in 256K"},
      // fault
      {"posix,fault",            "fault: needs operations and an effect, as in fault=read:EIO"},
      {"posix,fault=read",       "fault: needs an effect behind the operations, as in fault=read:EIO"},
      {"posix,fault=",           "fault: unknown operation ''; known: all, create, nextdata, open, read, remove, rename, setpermissions, stat, sync, transfers, truncate, write"},
      {"posix,fault=raed:EIO",   "fault: unknown operation 'raed'; did you mean 'read'? known: all, create, nextdata, open, read, remove, rename, setpermissions, stat, sync, transfers, truncate, write"},
      {"posix,fault=read+:EIO",  "fault: unknown operation ''; known: all, create, nextdata, open, read, remove, rename, setpermissions, stat, sync, transfers, truncate, write"},
      {"posix,fault=write:short", "fault: 'short' is for read alone: all else is done whole or fails"},
      {"posix,fault=read+write:short", "fault: 'short' is for read alone: all else is done whole or fails"},
      {"posix,fault=all:short",  "fault: 'short' is for read alone: all else is done whole or fails"},
      {"posix,fault=read:EIO:nth=0", "fault: nth: '0' is too small: at least 1"},
      {"posix,fault=read:EIO:every=0", "fault: every: '0' is too small: at least 1"},
      {"posix,fault=read:EIO:times=0", "fault: times: '0' is too small: at least 1"},
      {"posix,fault=read:EIO:for=0", "fault: for: '0' is too small: at least 1us"},
      {"posix,fault=read:EIO:for=5", "fault: for: '5' has no unit: us, ms, s, m or h belongs behind it, as in 2ms"},
      {"posix,fault=read:EIO:every=-1", "fault: every: '-1' is not a whole number: 1 to 18446744073709551615"},
      {"posix,fault=read:EIO:every=2:every=3", "fault: every is there twice"},
      {"posix,fault=read:EIO:every=2:nth=3", "fault: only one of nth, every and chance can choose the operations"},
      {"posix,fault=read:EIO:nth=2:chance=1", "fault: only one of nth, every and chance can choose the operations"},
      {"posix,fault=read:EIO:chance=1.01", "fault: chance: '1.01' is not a chance: a number from 0 to 1, as in 0.25"},
      {"posix,fault=read:EIO:chance=-0.5", "fault: chance: '-0.5' is not a chance: a number from 0 to 1, as in 0.25"},
      {"posix,fault=read:EIO:chance=nan", "fault: chance: 'nan' is not a chance: a number from 0 to 1, as in 0.25"},
      {"posix,fault=read:EIO:chance=0.5x", "fault: chance: '0.5x' is not a chance: a number from 0 to 1, as in 0.25"},
      {"posix,fault=read:EIO:chance=", "fault: chance: '' is not a chance: a number from 0 to 1, as in 0.25"},
      {"posix,fault=read:EIO:name=", "fault: name: '' matches no name; * matches all"},
      {"posix,fault=read:EIO:EIO", "fault: unknown key 'EIO'; known: after, chance, every, for, name, nth, seed, times"},
      {"posix,fault=read:EIO:name=a:b", "fault: unknown key 'b'; known: after, chance, every, for, name, nth, seed, times"},
      // retry
      {"posix,retry=3",          "retry: takes no value; settings say how often and when"},
      {"posix,retry:times=3",    "retry: unknown key 'times'; known: seed"},
  };
  // clang-format on
  for (const Row& row : rows) EXPECT_EQ(Refusal(row.text), row.why);
}

TEST(ParseStoreSpecTest, LongTextsAreRefusedBriefly) {
  EXPECT_EQ(Refusal(std::string(4097, 'a')), "the description is too long: at most 4096 bytes");
  std::string many = "posix";
  for (int i = 0; i < 16; ++i) many += ",retry";
  EXPECT_EQ(Parsed(many).decorators.size(), 16u);
  EXPECT_EQ(Refusal(many + ",retry"), "too many decorators: at most 16");
  for (const char filler : {'a', ':', '=', '+'}) {
    for (const char* before :
         {"", "posix,", "posix,latency=", "posix,fault=", "posix,fault=read:"}) {
      const std::string text = before + std::string(4000, filler);
      EXPECT_LT(Refusal(text).size(), 700u) << before << filler << "...";
    }
  }
}

// Pieces in any order, and right texts with a slip in them: one line comes of each, or a store.
TEST(ParseStoreSpecTest, AnyTextIsEitherRightOrRefusedOnOneLine) {
  const std::vector<std::string> pieces = {"posix",
                                           "memory",
                                           "auto",
                                           "latency=",
                                           "latency",
                                           "2ms",
                                           "2",
                                           "fault=",
                                           "read",
                                           "write",
                                           "all",
                                           ":",
                                           ",",
                                           "=",
                                           "+",
                                           "EIO",
                                           "short",
                                           "never",
                                           "every=",
                                           "nth=",
                                           "chance=",
                                           "0.5",
                                           "times",
                                           "name=*",
                                           "retry",
                                           "seed=",
                                           "-1",
                                           "1e400",
                                           "inf",
                                           "\xff\n",
                                           " ",
                                           std::string(1, '\0'),
                                           "for=",
                                           "1s",
                                           "99999999999999999999"};
  const std::string right = "posix,latency=2ms:jitter=1ms,fault=read:short:chance=0.5,retry";
  vesk::Random random(1);
  int accepted = 0;
  for (int round = 0; round < 4000; ++round) {
    std::string text = round % 2 == 0 ? "" : right;
    for (std::uint64_t i = 1 + random.Next() % 6; i > 0; --i) {
      const std::string& piece = pieces[random.Next() % pieces.size()];
      const std::size_t at = random.Next() % (text.size() + 1);
      const std::size_t replaced = random.Next() % 3;
      text.replace(at, replaced, piece);
    }
    StoreSpec spec;
    std::string why;
    if (ParseStoreSpec(text, &spec, &why)) {
      ++accepted;
      EXPECT_EQ(why, "");
      continue;
    }
    EXPECT_FALSE(why.empty());
    EXPECT_GT(why.size(), 15u);
    EXPECT_EQ(why.find_first_of(std::string("\n\0", 2)), std::string::npos) << why;
    EXPECT_TRUE(spec.decorators.empty());
  }
  EXPECT_GT(accepted, 0);
  EXPECT_LT(accepted, 1000);
}

// ---- what is built ----

class LinesLogger : public NullLogger {
 public:
  void Info(const vesk::LogSite& /*site*/, const char* format, ...) override
      __attribute__((format(printf, 3, 4))) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    lines.emplace_back(text);
  }

  std::vector<std::string> lines;
};

bool HasUring() {
#ifdef VESK_HAVE_URING
  return vesk::UringBackend::Probe() == 0;
#else
  return false;
#endif
}

class StoreStackTest : public ::testing::Test {
 protected:
  StoreStack& Build(const std::string& text) {
    stack_ = std::make_unique<StoreStack>(Parsed(text), settings_, clock_, logger_);
    return *stack_;
  }

  std::string OnDisk(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Creates a file with these bytes through the store that was built, and reads them back.
  void ExpectWorks() {
    const std::string path = directory_ / "file";
    VeskBundler bundler(stack_->top(), clock_);
    vesk::Store names(bundler);
    ASSERT_EQ(names.Create(path, 0600), 0);
    const std::string bytes = "0123456789";
    const JobHolder write(NewWrite(path, bytes.data(), 10, 0));
    bundler.SubmitJob(write.get());
    bundler.WaitForJob(write.get(), nullptr, "test");
    EXPECT_EQ(write->GetReturnValue(), 0);
    EXPECT_EQ(names.Sync(path), 0);
    EXPECT_EQ(OnDisk(path), bytes);
    std::string back(10, '?');
    unsigned int count = 0;
    const JobHolder read(NewRead(path, back.data(), 10, 0, &count));
    bundler.SubmitJob(read.get());
    bundler.WaitForJob(read.get(), nullptr, "test");
    EXPECT_EQ(back, bytes);
    EXPECT_EQ(names.Remove(path), 0);
  }

  // What a stat of an absent file comes to, and how much time that takes.
  int StatAbsent(Clock::Duration* taken) {
    VeskBundler bundler(stack_->top(), clock_);
    const JobHolder job(vesk::NewNameJob(vesk::OPCODE_STAT, directory_ / "absent", {}, 0,
                                         std::make_shared<vesk::FileInfo>()));
    const Clock::Time begin = clock_.Now();
    bundler.SubmitJob(job.get());
    for (int i = 0; i < 2000 && job->GetJobState() != vesk::JOB_STATE_DONE; ++i) {
      clock_.Advance(milliseconds(1));
      job->WaitUntilDone(Clock::System(), Clock::System().Now() + milliseconds(5), nullptr);
    }
    *taken = clock_.Now() - begin;
    EXPECT_EQ(job->GetJobState(), vesk::JOB_STATE_DONE);
    return job->GetJobState() == vesk::JOB_STATE_DONE ? job->GetReturnValue() : -1;
  }

  const TemporaryDirectory directory_;
  vesk::Settings settings_;
  ManualClock clock_;
  LinesLogger logger_;
  std::unique_ptr<StoreStack> stack_;
};

TEST_F(StoreStackTest, PosixIsThreadsOverFiles) {
  EXPECT_EQ(Build("posix").backend_name(), "threads");
  EXPECT_EQ(stack_->retry(), nullptr);
  ExpectWorks();
  EXPECT_TRUE(logger_.lines.empty());
}

TEST_F(StoreStackTest, MemoryStandsInFrontOfFiles) {
  EXPECT_EQ(Build("memory").backend_name(), "memory");
  ExpectWorks();
}

TEST_F(StoreStackTest, AutoTakesWhatIsThereAndSaysSoInOneLine) {
  EXPECT_EQ(Build("auto").backend_name(), HasUring() ? "io_uring" : "threads");
  ExpectWorks();
  ASSERT_EQ(logger_.lines.size(), 1u);
  const std::string begin =
      HasUring() ? "store auto is io_uring\n" : "store auto is threads: io_uring: ";
  EXPECT_EQ(logger_.lines[0].substr(0, begin.size()), begin);
}

#ifdef VESK_HAVE_URING
// A kernel that offers no ring, from here to the end of the scope.
class NoRing {
 public:
  NoRing() { ring_is_refused = true; }
  ~NoRing() { ring_is_refused = false; }
  NoRing(const NoRing&) = delete;
  NoRing& operator=(const NoRing&) = delete;
};

TEST_F(StoreStackTest, AutoFallsBackToThreadsWithOneLineWhereTheKernelHasNoRing) {
  const NoRing none;
  EXPECT_EQ(Build("auto").backend_name(), "threads");
  ExpectWorks();
  ASSERT_EQ(logger_.lines.size(), 1u);
  EXPECT_EQ(logger_.lines[0].rfind("store auto is threads: io_uring: ", 0), 0u);
}

TEST_F(StoreStackTest, UringIsRefusedWithTheReasonWhereTheKernelHasNoRing) {
  const NoRing none;
  try {
    Build("uring");
    FAIL() << "built without a ring";
  } catch (const std::invalid_argument& refusal) {
    const std::string why = refusal.what();
    EXPECT_EQ(why.rfind("store: uring is not to be had here (io_uring: ", 0), 0u) << why;
    EXPECT_NE(why.find("; auto and posix are"), std::string::npos) << why;
  }
}
#endif

TEST_F(StoreStackTest, UringMovesFilesWhereTheKernelHasARing) {
  if (!HasUring()) GTEST_SKIP() << "no io_uring here";
  EXPECT_EQ(Build("uring").backend_name(), "io_uring");
  ExpectWorks();
}

TEST_F(StoreStackTest, TellsTheOutermostRetry) {
  vesk::RetryDecorator* const retry = Build("posix,retry,fault=sync:EIO,retry:seed=2").retry();
  ASSERT_NE(retry, nullptr);
  EXPECT_EQ(static_cast<vesk::VeskBackend*>(retry), &stack_->top());
  vesk::RetryDecorator* const inner = Build("posix,retry,fault=sync:EIO").retry();
  ASSERT_NE(inner, nullptr);
  EXPECT_NE(static_cast<vesk::VeskBackend*>(inner), &stack_->top());
}

TEST_F(StoreStackTest, TheWrittenOrderIsFromTheInsideOut) {
  Clock::Duration taken{};
  Build("posix,latency=20ms,fault=stat:ENOSPC");
  EXPECT_EQ(StatAbsent(&taken), ENOSPC);
  EXPECT_EQ(taken, Clock::Duration::zero()) << "the fault is in front";
  Build("posix,fault=stat:ENOSPC,latency=20ms");
  EXPECT_EQ(StatAbsent(&taken), ENOSPC);
  EXPECT_GE(taken, milliseconds(20)) << "the latency is in front";
  Build("posix,latency=20ms,latency=15ms");
  EXPECT_EQ(StatAbsent(&taken), ENOENT);
  EXPECT_GE(taken, milliseconds(35)) << "one after the other";
}

TEST_F(StoreStackTest, RetrySeesAShortOutageThrough) {
  Clock::Duration taken{};
  settings_.retry_first_delay_ms = 2;
  Build("posix,fault=stat:EIO:times=2,retry:seed=1");
  EXPECT_EQ(StatAbsent(&taken), ENOENT) << "the third try reaches the store";
  EXPECT_EQ(stack_->retry()->GetTotals().others.retried, 2u);
  Build("posix,retry:seed=1,fault=stat:EIO:times=2");
  EXPECT_EQ(StatAbsent(&taken), EIO) << "a fault in front of the retry is nobody's to repeat";
}

// Whatever stands there in front, jobs end, also those in flight when the store goes.
TEST_F(StoreStackTest, StacksOfAllKindsEndEveryJob) {
  settings_.retry_first_delay_ms = 1;
  settings_.retry_longest_delay_ms = 2;
  for (const char* text : {"posix,latency=1ms:jitter=1ms,fault=write:EIO:every=5,retry",
                           "memory,fault=all:EAGAIN:chance=0.3:seed=4,retry,latency=100us",
                           "auto,fault=write:never:for=3ms,retry,fault=read:short"}) {
    StoreStack stack(Parsed(text), settings_, Clock::System(), logger_);
    const std::string path = directory_ / "file";
    std::ofstream(path) << std::string(1000, 'o');
    {
      VeskBundler bundler(stack.top());
      std::vector<std::thread> threads;
      for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&bundler, &path] {
          std::vector<std::unique_ptr<JobHolder>> jobs;
          for (unsigned long at = 0; at < 50; ++at) {
            jobs.push_back(std::make_unique<JobHolder>(NewWrite(path, "x", 1, at)));
            bundler.SubmitJob(jobs.back()->get());
          }
          for (const auto& job : jobs) bundler.WaitForJob(job->get(), nullptr, "test");
          for (const auto& job : jobs) EXPECT_EQ(job->get()->GetReturnValue(), 0);
        });
      }
      for (std::thread& thread : threads) thread.join();
    }
  }
}

TEST_F(StoreStackTest, WhatIsHeldForEverEndsWithShutdown) {
  Build("posix,fault=write:never,latency=0,retry");
  VeskBundler bundler(stack_->top(), clock_);
  const JobHolder job(NewWrite(directory_ / "f", "x", 1, 0));
  bundler.SubmitJob(job.get());
  EXPECT_TRUE(bundler.dispatcher().Shutdown(clock_.Now(), Clock::kNever));
  EXPECT_EQ(job->GetReturnValue(), ESHUTDOWN);
}

}  // namespace
}  // namespace vesk_test
