// One control-group draw as error reporting makes it for every report: two groups, so one
// SHA-256 of a UUID and a short name, a sort of two and a scan.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "models/ControlGrouper.h"
#include "models/Sha256TestCrypto.h"

namespace {

void BM_TwoGroupDraw(benchmark::State& state) {
  const orvane::testing::Sha256TestCrypto crypto;
  const std::string uuid = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  const std::vector<orvane::ControlGroup<bool>> groups = {{true, 0.001}, {false, 1.0}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        orvane::ControlGrouper::getGroupAssignment(crypto, uuid, "error_reporting", groups));
  }
}
BENCHMARK(BM_TwoGroupDraw);

}  // namespace
