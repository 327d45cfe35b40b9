// File: DrainUploads.h
// Uploads over a real transport are answered on the transport's threads, after the queues
// have run: drain until the sender has handled every answer (or a few seconds have passed).
#pragma once

#include <chrono>
#include <thread>

#include "logging/OrvaneLogSender.h"
#include "testutil/FakePlatform.h"

namespace orvane::testing {

inline void drainUploads(FakePlatform& fake, const OrvaneLogSender& sender,
                         double timeoutSeconds = 10) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  fake.drain();
  while (sender.uploadInFlight() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    fake.drain();
  }
}

}  // namespace orvane::testing
