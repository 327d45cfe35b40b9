// File: CurlHttpTransport.h
// The libcurl transport trusting only the given certificate authorities (PEM) instead of the
// system's, for tests against a loopback TLS server. Peer and host-name verification stay on;
// the public factory (makeCurlHttpTransport) always uses the system's authorities.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "orvane/platform/HttpTransport.h"

namespace orvane {

std::shared_ptr<HttpTransport> makeCurlHttpTransportTrusting(std::string certificateAuthoritiesPem,
                                                             size_t workers = 2);

}  // namespace orvane
