#include "platform/linux/OpenSslInit.h"

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <mutex>

namespace orvane {

void initializeOpenSslWithoutExitHandler() {
  static std::once_flag once;
  std::call_once(once, [] {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr);
  });
}

}  // namespace orvane
