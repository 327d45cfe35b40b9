#include "motion/ActivityInputMapping.h"

namespace orvane::activity_input {
namespace {

constexpr std::array<uint16_t, kLength> kTable = {
    205, 203, 201, 169, 137, 101, 134, 167, 163, 141, 206, 194, 179, 103, 174, 159, 129, 104,
    117, 139, 157, 185, 156, 120, 208, 160, 106, 122, 102, 123, 200, 112, 171, 199, 170, 164,
    155, 128, 130, 166, 131, 149, 175, 207, 115, 127, 151, 178, 197, 162, 146, 182, 204, 136,
    133, 188, 138, 126, 135, 142, 150, 189, 108, 195, 110, 158, 144, 125, 143, 172, 118, 202,
    173, 107, 176, 192, 140, 186, 198, 210, 100, 180, 145, 109, 148, 152, 154, 183, 105, 181,
    116, 121, 119, 153, 193, 184, 196, 124, 187, 177, 165, 111, 161, 113, 190, 168, 132, 209};

// The models read every motion statistic from 100 to 210 except 114, 147 and 191, each once.
constexpr bool coversTheStatisticsOnce() {
  std::array<int, 211> seen{};
  for (uint16_t id : kTable) {
    if (id < 100 || id > 210 || id == 114 || id == 147 || id == 191 || seen[id]++ != 0) {
      return false;
    }
  }
  return true;
}
static_assert(coversTheStatisticsOnce());

constexpr uint16_t kFirstId = 100;
constexpr uint16_t kLastId = 210;

constexpr std::array<int8_t, kLastId - kFirstId + 1> makePositions() {
  std::array<int8_t, kLastId - kFirstId + 1> positions{};
  for (auto& p : positions) p = -1;
  for (size_t i = 0; i < kTable.size(); ++i)
    positions[kTable[i] - kFirstId] = static_cast<int8_t>(i);
  return positions;
}
constexpr auto kPositions = makePositions();

}  // namespace

const std::array<uint16_t, kLength> kSignalIdByPosition = kTable;

std::optional<size_t> positionOf(uint16_t signalId) {
  if (signalId < kFirstId || signalId > kLastId) return std::nullopt;
  const int8_t position = kPositions[signalId - kFirstId];
  if (position < 0) return std::nullopt;
  return static_cast<size_t>(position);
}

}  // namespace orvane::activity_input
