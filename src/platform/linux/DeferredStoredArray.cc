#include "platform/linux/DeferredStoredArray.h"

#include <span>
#include <utility>

#include "platform/linux/SqliteSupport.h"
#include "platform/linux/StoredElementCodec.h"

namespace orvane {

DeferredStoredArray::DeferredStoredArray(std::string key, std::string reportPrefix,
                                         std::vector<Row> rows)
    : key_(std::move(key)), reportPrefix_(std::move(reportPrefix)), rows_(std::move(rows)) {}

const StoredArray& DeferredStoredArray::decoded(
    const std::function<void(const std::string&)>& report) {
  // Reported after the decoding is settled, so that a caller's report cannot undo it.
  std::vector<std::string> lines;
  std::call_once(once_, [&] {
    PlistArray elements;
    elements.reserve(rows_.size());
    for (const Row& row : rows_) {
      auto element = decodeStoredElement(std::span<const uint8_t>(row.bytes));
      if (!element) {
        // The other elements of a queue are still worth keeping.
        lines.push_back(reportPrefix_ + "skipping unreadable element at position " +
                        std::to_string(row.position) + " of key " + inQuotes(key_));
        decoded_.unreadablePositions.push_back(row.position);
        continue;
      }
      elements.push_back(std::move(*element));
      decoded_.positions.push_back(row.position);
    }
    decoded_.value = std::make_shared<const PlistValue>(std::move(elements));
    std::vector<Row>().swap(rows_);
  });
  for (const std::string& line : lines) report(line);
  return decoded_;
}

}  // namespace orvane
