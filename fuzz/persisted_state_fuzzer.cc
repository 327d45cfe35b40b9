// A value kept by PersistedCodableState, read back from a store someone else can write. The
// record has a field of every kind a stored state uses (integers of two widths, a double, a
// flag, text, a list and a map) and a decoder written the way an owner of a state writes one.
// Reading must give the stored value or the default, never crash, and whatever it gives must
// be stored again and read back unchanged.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "util/PersistedCodableState.h"

namespace {

using namespace orvane;

struct Record {
  int64_t count = 0;
  uint16_t level = 0;
  double ratio = 0;
  bool enabled = false;
  std::string name;
  std::vector<int64_t> history;
  std::map<std::string, double> byFlow;

  bool operator==(const Record&) const = default;
};

void to_json(nlohmann::json& j, const Record& r) {
  j = {{"count", r.count}, {"level", r.level},     {"ratio", r.ratio},  {"enabled", r.enabled},
       {"name", r.name},   {"history", r.history}, {"byFlow", r.byFlow}};
}

std::optional<Record> decodeRecord(const JsonReader& reader) {
  Record r;
  auto count = reader.requiredInt64("count");
  auto level = reader.required("level");
  auto ratio = reader.requiredDouble("ratio");
  auto enabled = reader.requiredBool("enabled");
  auto name = reader.requiredString("name");
  auto history = reader.required("history");
  auto byFlow = reader.required("byFlow");
  if (!count || !level || !ratio || !enabled || !name || !history || !byFlow) return std::nullopt;
  auto narrow = level->asUInt16();
  auto list = history->asArray<int64_t>([](const JsonReader& item) { return item.asInt64(); });
  auto map = byFlow->asMap<double>([](const JsonReader& item) { return item.asDouble(); });
  if (!narrow || !list || !map) return std::nullopt;
  return Record{*count,           *narrow,          *ratio,         *enabled,
                std::move(*name), std::move(*list), std::move(*map)};
}

const Record kDefault{-1, 0, -1, false, "default", {}, {}};

fuzz::Seeds seeds() {
  auto stored = [](const Record& record) {
    auto defaults = fuzz::makeDefaults();
    PersistedCodableState<Record> state("seed", defaults, kDefault, decodeRecord);
    state.set(record);
    const Bytes bytes = defaults->data("seed").value();
    return std::string(bytes.begin(), bytes.end());
  };
  return {
      {"full.json", stored({42, 7, 0.25, true, "home", {1, 2, 3}, {{"home", 1.5}, {"x", -2}}})},
      {"empty.json", stored(Record{})},
      {"large.json",
       stored({INT64_MAX, uint16_t{65535}, 1e300, false, "ü", {INT64_MIN}, {{"", 0}}})},
  };
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto defaults = fuzz::makeDefaults();
  defaults->set("state", Bytes(data, data + size));
  PersistedCodableState<Record> state("state", defaults, kDefault, decodeRecord);
  const Record read = state.get();
  FUZZ_CHECK(state.set(read));
  FUZZ_CHECK(state.get() == read);
  return 0;
}
