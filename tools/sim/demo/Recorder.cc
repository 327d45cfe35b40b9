#include "Recorder.h"

#include <cstdio>

namespace orvane::sim::demo {

Recorder::Recorder(std::ostream* terminal)
    : start_(std::chrono::steady_clock::now()), terminal_(terminal) {}

double Recorder::now() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::string timelineLine(double t, const std::string& category, const std::string& text) {
  char head[40];
  std::snprintf(head, sizeof head, "%6.1f s  %-9s ", t, category.c_str());
  return head + text;
}

void Recorder::note(const std::string& category, const std::string& text) {
  const double t = now();
  std::lock_guard<std::mutex> guard(mutex_);
  record_.notes.push_back({t, category, text});
  // Under the lock, so lines from several threads never interleave.
  if (terminal_) *terminal_ << timelineLine(t, category, text) << std::endl;
}

void Recorder::motion(double magnitude) {
  const double t = now();
  std::lock_guard<std::mutex> guard(mutex_);
  record_.motion.push_back({t, magnitude});
}

RunRecord Recorder::snapshot() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return record_;
}

}  // namespace orvane::sim::demo
