#include "logging/LogEncoder.h"

#include <array>
#include <bit>
#include <map>

#include "logging/AES.h"
#include "logging/AnyEncodable.h"
#include "logging/BinaryEncoding.h"
#include "logging/Compression.h"
#include "util/Base64.h"

namespace orvane {
namespace {

// A map keyed by column where a later value replaces an earlier one and the first
// occurrence keeps its place. Columns come from the signal catalogue, which ends below 1024,
// so a direct index replaces a search.
constexpr size_t kColumnLimit = 1024;
static_assert(signal_catalogue::kAllIds.back() < kColumnLimit);

template <typename T>
class ColumnMap {
 public:
  ColumnMap() { slots_.fill(kEmpty); }
  void set(uint16_t column, T value) {
    uint16_t& slot = slots_[column];
    if (slot != kEmpty) {
      entries_[slot].second = std::move(value);
      return;
    }
    slot = static_cast<uint16_t>(entries_.size());
    entries_.emplace_back(column, std::move(value));
  }
  bool empty() const { return entries_.empty(); }
  const std::vector<std::pair<uint16_t, T>>& entries() const { return entries_; }

 private:
  static constexpr uint16_t kEmpty = 0xFFFF;
  std::array<uint16_t, kColumnLimit> slots_;
  std::vector<std::pair<uint16_t, T>> entries_;
};

// Custom signals by id, last value wins, first occurrence keeps its place.
void appendCustomObject(std::string& out, const CustomSignalList& signals,
                        std::optional<PlatformError>& error) {
  std::vector<const CustomSignal*> unique;
  std::map<std::string_view, size_t> index;
  for (const auto& s : signals) {
    auto [it, inserted] = index.emplace(s.id(), unique.size());
    if (inserted) {
      unique.push_back(&s);
    } else {
      unique[it->second] = &s;
    }
  }
  out.push_back('{');
  for (size_t i = 0; i < unique.size(); ++i) {
    if (i > 0) out.push_back(',');
    appendJsonString(out, unique[i]->id());
    out.push_back(':');
    std::visit([&](const auto& v) { AnyEncodable(PlistValue(v)).appendJson(out, error); },
               unique[i]->value());
  }
  out.push_back('}');
}

// The groups are ids and binary values with little to find for string matching; the
// envelope's Huffman coding follows anyway. Stored, they cost a copy instead of a compressor
// run each, for a log a few per cent larger.
Result<std::string> compressedBase64(const Bytes& binary) {
  auto compressed = deflateRaw(binary, CompressionHint::kStoreOnly);
  if (!compressed) return compressed.error();
  return base64Encode(*compressed);
}

}  // namespace

LogEncoder::LogEncoder(std::shared_ptr<Crypto> crypto, std::shared_ptr<RandomSource> random,
                       std::shared_ptr<SystemLog> log,
                       std::function<std::optional<std::string>()> logKey)
    : crypto_(std::move(crypto)),
      random_(std::move(random)),
      log_(std::move(log)),
      logKey_(std::move(logKey)) {}

Result<std::string> LogEncoder::envelopeJson(const SignalList& signals,
                                             const CustomSignalList& customSignals,
                                             const CustomSignalList& globalSignals) const {
  ColumnMap<uint64_t> doubles;  // no built-in signal holds a double today; kept for the format
  ColumnMap<uint32_t> floats;
  ColumnMap<int8_t> i8;
  ColumnMap<int16_t> i16;
  ColumnMap<int32_t> i32;
  ColumnMap<int64_t> i64;
  std::vector<int32_t> booleans;
  ColumnMap<std::string> texts;

  for (const Signal& signal : signals) {
    const uint16_t column = signal.id().rawValue();
    switch (signal.kind()) {
      case SignalKind::kFloat:
        floats.set(column, std::bit_cast<uint32_t>(std::get<float>(signal.value())));
        break;
      case SignalKind::kDecimal:
        texts.set(column, std::get<Decimal>(signal.value()).toString());
        break;
      case SignalKind::kBool:
        booleans.push_back(std::get<bool>(signal.value()) ? column : -int32_t{column});
        break;
      case SignalKind::kInt: {
        const int64_t v = std::get<int64_t>(signal.value());
        if (v == static_cast<int8_t>(v)) {
          i8.set(column, static_cast<int8_t>(v));
        } else if (v == static_cast<int16_t>(v)) {
          i16.set(column, static_cast<int16_t>(v));
        } else if (v == static_cast<int32_t>(v)) {
          i32.set(column, static_cast<int32_t>(v));
        } else {
          i64.set(column, v);
        }
        break;
      }
      case SignalKind::kString:
        texts.set(column, std::get<std::string>(signal.value()));
        break;
    }
  }

  std::string out = "{";
  std::optional<PlatformError> error;
  auto member = [&](const char* key, const Bytes& binary) {
    if (error || binary.empty()) return;
    auto text = compressedBase64(binary);
    if (!text) {
      error = text.error();
      return;
    }
    if (out.size() > 1) out.push_back(',');
    appendJsonString(out, key);
    out.push_back(':');
    appendJsonString(out, *text);
  };
  member("d", BinaryMapEncodingDecoding::dataFromDictionary(doubles.entries()));
  member("f", BinaryMapEncodingDecoding::dataFromDictionary(floats.entries()));
  member("i8", BinaryMapEncodingDecoding::dataFromDictionary(i8.entries()));
  member("i16", BinaryMapEncodingDecoding::dataFromDictionary(i16.entries()));
  member("i32", BinaryMapEncodingDecoding::dataFromDictionary(i32.entries()));
  member("i64", BinaryMapEncodingDecoding::dataFromDictionary(i64.entries()));
  member("b", BinaryArrayEncodingDecoding::dataFromArray(booleans));
  if (error) return *error;

  if (!texts.empty()) {
    if (out.size() > 1) out.push_back(',');
    out += "\"s\":{";
    bool first = true;
    for (const auto& [column, text] : texts.entries()) {
      if (!first) out.push_back(',');
      first = false;
      appendJsonString(out, std::to_string(column));
      out.push_back(':');
      appendJsonString(out, text);
    }
    out.push_back('}');
  }
  if (out.size() > 1) out.push_back(',');
  out += "\"cs\":";
  appendCustomObject(out, customSignals, error);
  out += ",\"gs\":";
  appendCustomObject(out, globalSignals, error);
  out.push_back('}');
  if (error) return *error;
  return out;
}

Result<Bytes> LogEncoder::encodeLog(const SignalList& signals,
                                    const CustomSignalList& customSignals,
                                    const CustomSignalList& globalSignals) const {
  return encodeLogWithKey(signals, customSignals, globalSignals,
                          logKey_ ? logKey_() : std::nullopt);
}

Result<Bytes> LogEncoder::encodeLogWithKey(const SignalList& signals,
                                           const CustomSignalList& customSignals,
                                           const CustomSignalList& globalSignals,
                                           const std::optional<std::string>& key) const {
  auto json = envelopeJson(signals, customSignals, globalSignals);
  if (!json) return json.error();
  auto compressed =
      deflateRaw(std::span(reinterpret_cast<const uint8_t*>(json->data()), json->size()),
                 CompressionHint::kEntropyOnly);
  if (!compressed) return compressed.error();

  Bytes iv(16);
  if (!random_->secureBytes(iv)) {
    return PlatformError{kAESErrorDomain, 2, "The secure random source failed to give an IV."};
  }
  auto aes = AES::make(key.value_or(std::string()), iv, *crypto_, log_.get());
  if (!aes) return aes.error();
  auto ciphertext = aes->crypt(*compressed, AES::kEncrypt);
  if (!ciphertext) return ciphertext.error();

  Bytes out(17, 0);
  std::copy(iv.begin(), iv.end(), out.begin() + 1);
  out.insert(out.end(), ciphertext->begin(), ciphertext->end());
  return out;
}

}  // namespace orvane
