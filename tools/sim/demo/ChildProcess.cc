#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace orvane::sim::demo {

ChildProcess::ChildProcess(std::vector<std::string> arguments, const std::string& logFile) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    const int log = open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (log >= 0) {
      dup2(log, STDOUT_FILENO);
      dup2(log, STDERR_FILENO);
      close(log);
    }
    const int nothing = open("/dev/null", O_RDONLY);
    if (nothing >= 0) dup2(nothing, STDIN_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(other.pid_), reaped_(other.reaped_), status_(other.status_) {
  other.pid_ = -1;
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
}

int ChildProcess::wait(double seconds) {
  if (pid_ <= 0) return -1;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!reaped_) {
    int status = 0;
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      reaped_ = true;
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    } else if (done < 0 || std::chrono::steady_clock::now() >= deadline) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
      reaped_ = true;
      status_ = -1;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  return status_;
}

}  // namespace orvane::sim::demo
