// What a simulated run is made of: settings and steps, from a seed, from any bytes, or from text.

#ifndef SIMULATION_SCENARIO_H_
#define SIMULATION_SCENARIO_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vesk_simulation {

enum class Do : std::uint8_t {
  // Requests of a client: `who` it is; its fiber runs past some switch points. A client that is
  // still busy with a request goes on with that.
  kRead,
  kWrite,
  kAppend,
  kTruncate,
  kFlush,
  kSync,
  kReopen,
  kDiscard,
  kAdvise,
  kStats,
  kSyncAll,
  kRename,
  kTend,
  // The world around them.
  kRun,             // a fiber that can run
  kEnd,             // a job in the store ends
  kAdvance,         // time goes by
  kWall,            // the time of day jumps, or stands still
  kCancel,          // a client's request is called off
  kFailAllocation,  // the n-th allocation from now on fails
  kCrash,           // the machine
  kCount,
};

// Every number means something, taken modulo what there is: any part of a list of steps is one.
struct Step {
  Do what = Do::kRun;
  std::uint32_t who = 0;
  std::uint32_t a = 0;
  std::uint32_t b = 0;
  std::uint32_t c = 0;
};

// With each of these the checks have to fail.
enum class Lie : std::uint32_t {
  kNone,
  kSync,   // says that it has made a file durable, and has not
  kWrite,  // now and then says that it has written, and has not
  kRead,   // now and then changes a byte
};

// One table says what is drawn and how it is written (scenario.cpp).
struct Shape {
  std::uint32_t clients = 2;
  std::uint32_t files = 1;
  std::uint32_t size = 64;  // of each file at the beginning
  std::uint32_t block_size = 4;
  std::uint32_t memory = 64;
  std::uint32_t read_ahead = 0;
  std::uint32_t dirty_soft = 64;
  std::uint32_t dirty_hard = 64;
  std::uint32_t dirty_age_ms = 1000;
  std::uint32_t refresh = 1;
  std::uint32_t fail_unknown = 0;
  std::uint32_t retry = 0;
  std::uint32_t reaper = 1;
  std::uint32_t background = 0;
  std::uint32_t withdraws = 0;
  std::uint32_t chance = 0;  // what a crash keeps, and the contents
  std::uint32_t eager = 0;   // after each step everything runs that can
  std::uint32_t lies = 0;    // of the store, which nobody can make up for: see Lie
};

struct Scenario {
  Shape shape;
  std::vector<Step> steps;
};

// Hostile settings and some hundred steps, a share of them faults.
Scenario FromSeed(std::uint64_t seed);

// The same of whatever bytes there are.
Scenario FromBytes(const std::uint8_t* data, std::size_t size);

// "block_size=4 memory=8; write 0 3 5 0; end 0 0 0 0": what is not named is as in Shape.
std::string ToText(const Scenario& scenario);
//   Ends in  std::invalid_argument, which says what is wrong
Scenario FromText(std::string_view text);

std::string ToText(const Step& step);

}  // namespace vesk_simulation

#endif  // SIMULATION_SCENARIO_H_
