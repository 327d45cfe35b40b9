#include "platform/ThreadName.h"

#include <pthread.h>

#include <string>

namespace orvane {

void setCurrentThreadName(std::string_view name) noexcept {
  // Linux limits thread names to 15 bytes plus the terminator; Apple allows more.
  const std::string shortName(name.substr(0, 15));
  if (shortName.empty()) return;
#if defined(__APPLE__)
  // Apple's form takes only the name and always names the calling thread.
  pthread_setname_np(shortName.c_str());
#else
  pthread_setname_np(pthread_self(), shortName.c_str());
#endif
}

}  // namespace orvane
