// The same run on the model of tests/oracle, and what is different there.

#ifndef TESTS_EXHAUSTIVE_MIRROR_H_
#define TESTS_EXHAUSTIVE_MIRROR_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/exhaustive/driver.h"
#include "tests/oracle/oracle.h"

namespace vesk_test {

// Follows a world that records: each call with the same arguments, the same jobs ending in the same
// way at the same point (in waits too), the same time.
//   Before   a plain caller, and no Faults
class Mirror {
 public:
  // The world is at its beginning.
  explicit Mirror(const World& real);
  Mirror(const Mirror&) = delete;
  Mirror& operator=(const Mirror&) = delete;

  // Follows to where the world is now. The first difference, empty when there is none: results, log
  // lines of every level in order, jobs with what they were to move, waits with their reason, reads
  // of the clock, and all fields of streams and blocks. Marks are the world's own to check.
  std::string Follow();

 private:
  void Play();
  void MakeCall(const Call& call);
  Result Make(const Call& call);
  std::uint64_t Carry(const Call& call, Result& result);
  void EndJob(const Event& event);
  void OnWait(const vesk_oracle::Job* job, const std::string& tag);
  const Event& Next(Event::What what);

  void Compare(const char* what, const std::string& real, const std::string& model);
  void CompareResult(const Result& real, const Result& model);
  void CompareLines();
  void CompareSites(const LogLine& real, const vesk_oracle::Line& model);
  void CompareJobs();
  void CompareStream(std::size_t number);
  std::string Normal(const std::string& text) const;
  std::size_t NumberOf(const vesk_oracle::Job* job) const;

  bool Fails(vesk_oracle::Allocation what);

  const World& real_;
  long now_;
  std::vector<vesk_oracle::Line> lines_;
  std::vector<vesk_oracle::Submitted> submitted_;
  std::vector<std::size_t> lines_at_submission_;
  vesk_oracle::World model_{&lines_, &submitted_};
  std::unique_ptr<vesk_oracle::Stream> streams_[World::kStreams];
  bool no_operation_ = false, no_job_ = false;  // the next one cannot be had
  std::size_t next_event_ = 0, lines_compared_ = 0, jobs_compared_ = 0;
  std::map<std::string, int> sites_;  // of the model's places
  std::string different_;
};

// A whole run on both, by a plain caller whatever the settings say. What was different, or broken.
std::string RunCompared(const Case& c);

// The same, compared after all the steps only, and what distinguishes the state then.
std::string RunComparedAtEnd(const Case& c, std::string* fingerprint);

}  // namespace vesk_test

#endif  // TESTS_EXHAUSTIVE_MIRROR_H_
