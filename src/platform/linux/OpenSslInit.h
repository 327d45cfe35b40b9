// File: OpenSslInit.h
// OpenSSL, set up so that it outlives the process's exit-time cleanup.
#pragma once

namespace orvane {

// Initialises libcrypto and libssl without their exit handler, once per process. With the
// handler, exit() frees OpenSSL's state while the SDK's worker threads may still be inside
// it (a digest, a cipher, a TLS upload); without it the state simply stays until the process
// is gone. Only the first initialisation in a process decides, so this runs when the Linux
// platform library is loaded, before anything else can touch OpenSSL.
void initializeOpenSslWithoutExitHandler();

}  // namespace orvane
