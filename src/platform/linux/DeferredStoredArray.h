// File: DeferredStoredArray.h
// An array kept element by element whose rows were read at open but not yet decoded. The
// upload queues are what this is for: decoding a hundred queued records costs milliseconds,
// and the host's thread that opens the suite at start never needs them. The first reader (or
// the writer, when the key is written first) decodes them once; everyone after shares that.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvane/PlistValue.h"

namespace orvane {

// What the file holds of one array kept element by element.
struct StoredArray {
  std::shared_ptr<const PlistValue> value;   // the array the rows spell out
  std::vector<int64_t> positions;            // one per element of `value`
  std::vector<int64_t> unreadablePositions;  // rows that do not decode, dropped on next write
};

class DeferredStoredArray {
 public:
  struct Row {
    int64_t position;
    Bytes bytes;
  };

  // `reportPrefix` starts each line about an element that does not decode.
  DeferredStoredArray(std::string key, std::string reportPrefix, std::vector<Row> rows);

  // Decodes on the first call, from any thread; the rows are let go then. Each element that
  // does not decode costs only itself and gives one line to `report`, on the first call only.
  const StoredArray& decoded(const std::function<void(const std::string&)>& report);

 private:
  const std::string key_;
  const std::string reportPrefix_;
  std::once_flag once_;
  std::vector<Row> rows_;
  StoredArray decoded_;
};

}  // namespace orvane
