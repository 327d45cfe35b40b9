// File: ChildProcess.h
// The learning run's helpers: its installations (orvane-sim itself) and the trainer, each a
// child process with its output in a file, ended with the demo however the demo ends.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orvane::sim::demo {

class ChildProcess {
 public:
  // Starts `arguments` (the program first) with stdout and stderr appended to `logFile`;
  // check started().
  ChildProcess(std::vector<std::string> arguments, const std::string& logFile);
  // Ends a child still running (SIGTERM) and reaps it.
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ChildProcess& operator=(ChildProcess&&) = delete;

  bool started() const { return pid_ > 0; }
  // Waits until the child ends or `seconds` pass; its exit status, or -1 when it was ended
  // by a signal, did not start, or is still running (then it is sent SIGTERM).
  int wait(double seconds);

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = -1;
};

}  // namespace orvane::sim::demo
