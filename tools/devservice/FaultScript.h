// File: FaultScript.h
// A queue of scripted answers for the next upload requests, one step per request:
//   "500"        answer 500 at once
//   "200:1.5"    answer 200 (with the payload) after 1.5 seconds
//   "timeout:2"  hold the request 2 seconds, then break the connection without an answer
//                ("timeout" alone holds it 60 seconds, the SDK's own time-out)
// Once the script is used up, uploads get the normal answer again.
#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace devservice {

struct FaultStep {
  std::optional<int> status;  // none: break the connection
  double delaySeconds = 0;

  std::string text() const;
};

// Throws std::invalid_argument naming the step it cannot read.
FaultStep parseFaultStep(std::string_view text);
// A comma-separated list; empty items are ignored.
std::vector<FaultStep> parseFaultList(std::string_view text);

class FaultScript {
 public:
  void replace(std::vector<FaultStep> steps);
  // The step for the request that has just arrived; none when the script is used up.
  std::optional<FaultStep> next();
  std::vector<std::string> remaining();

 private:
  std::mutex mutex_;
  std::deque<FaultStep> steps_;
};

}  // namespace devservice
