// File: Fixtures.h
// Where the committed fixtures are ($ORVANE_FIXTURES under ctest, the source tree otherwise).
#pragma once

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace orvane::testing {

inline std::string fixturePath(const std::string& relative) {
  const char* env = std::getenv("ORVANE_FIXTURES");
  return std::string(env && *env ? env : ORVANE_SOURCE_FIXTURES) + "/" + relative;
}

inline std::string readFixture(const std::string& relative) {
  std::ifstream in(fixturePath(relative), std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

}  // namespace orvane::testing
