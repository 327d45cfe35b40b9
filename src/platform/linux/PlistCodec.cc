#include "platform/linux/PlistCodec.h"

#include <bit>
#include <string>
#include <utility>

namespace orvane {
namespace {

// Tag values are part of the stored format: never renumber, only add.
enum Tag : uint8_t {
  kTagFalse = 0x01,
  kTagTrue = 0x02,
  kTagInt = 0x03,
  kTagDouble = 0x04,
  kTagFloat = 0x05,
  kTagDecimal = 0x06,
  kTagString = 0x07,
  kTagBytes = 0x08,
  kTagDate = 0x09,
  kTagArray = 0x0A,
  kTagDictionary = 0x0B,
};

class Writer {
 public:
  explicit Writer(Bytes& out) : out_(out) {}

  bool write(const PlistValue& value, int nesting) {
    switch (value.type()) {
      case PlistValue::Type::kBool:
        byte(*value.asBool() ? kTagTrue : kTagFalse);
        return true;
      case PlistValue::Type::kInt:
        byte(kTagInt);
        fixed(static_cast<uint64_t>(*value.asInt()), 8);
        return true;
      case PlistValue::Type::kDouble:
        byte(kTagDouble);
        fixed(std::bit_cast<uint64_t>(*value.asDouble()), 8);
        return true;
      case PlistValue::Type::kFloat:
        byte(kTagFloat);
        fixed(std::bit_cast<uint32_t>(*value.asFloat()), 4);
        return true;
      case PlistValue::Type::kDecimal: {
        const Decimal d = *value.asDecimal();
        byte(kTagDecimal);
        byte(d.isNegative() ? 1 : 0);
        const Decimal::Mantissa m = d.mantissa();
        fixed(static_cast<uint64_t>(m), 8);
        fixed(static_cast<uint64_t>(m >> 64), 8);
        fixed(static_cast<uint16_t>(static_cast<int16_t>(d.exponent())), 2);
        return true;
      }
      case PlistValue::Type::kString:
        byte(kTagString);
        text(*value.asString());
        return true;
      case PlistValue::Type::kBytes: {
        const Bytes& bytes = *value.asBytes();
        byte(kTagBytes);
        varint(bytes.size());
        out_.insert(out_.end(), bytes.begin(), bytes.end());
        return true;
      }
      case PlistValue::Type::kDate:
        byte(kTagDate);
        fixed(std::bit_cast<uint64_t>(value.asDate()->secondsSince1970), 8);
        return true;
      case PlistValue::Type::kArray: {
        if (nesting >= kPlistCodecMaxNesting) return false;
        const PlistArray& array = *value.asArray();
        byte(kTagArray);
        varint(array.size());
        for (const PlistValue& item : array) {
          if (!write(item, nesting + 1)) return false;
        }
        return true;
      }
      case PlistValue::Type::kDictionary: {
        if (nesting >= kPlistCodecMaxNesting) return false;
        const PlistDictionary& dictionary = *value.asDictionary();
        byte(kTagDictionary);
        varint(dictionary.size());
        // std::map already yields keys in the byte order the decoder insists on.
        for (const auto& [key, item] : dictionary) {
          text(key);
          if (!write(item, nesting + 1)) return false;
        }
        return true;
      }
    }
    return false;
  }

 private:
  void byte(uint8_t b) { out_.push_back(b); }

  void fixed(uint64_t v, int width) {
    for (int i = 0; i < width; ++i) out_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }

  void varint(uint64_t v) {
    while (v >= 0x80) {
      out_.push_back(static_cast<uint8_t>(v | 0x80));
      v >>= 7;
    }
    out_.push_back(static_cast<uint8_t>(v));
  }

  void text(const std::string& s) {
    varint(s.size());
    out_.insert(out_.end(), s.begin(), s.end());
  }

  Bytes& out_;
};

class Reader {
 public:
  explicit Reader(std::span<const uint8_t> in) : in_(in) {}

  bool atEnd() const { return pos_ == in_.size(); }
  size_t remaining() const { return in_.size() - pos_; }

  std::optional<uint8_t> byte() {
    if (pos_ >= in_.size()) return std::nullopt;
    return in_[pos_++];
  }

  std::optional<uint64_t> fixed(int width) {
    if (remaining() < static_cast<size_t>(width)) return std::nullopt;
    uint64_t v = 0;
    for (int i = 0; i < width; ++i) v |= static_cast<uint64_t>(in_[pos_++]) << (8 * i);
    return v;
  }

  // Shortest-form LEB128 only, so each length has a single spelling.
  std::optional<uint64_t> varint() {
    uint64_t v = 0;
    for (int i = 0; i < 10; ++i) {
      const auto b = byte();
      if (!b) return std::nullopt;
      if (i == 9 && *b > 1) return std::nullopt;  // would overflow 64 bits
      v |= static_cast<uint64_t>(*b & 0x7F) << (7 * i);
      if ((*b & 0x80) == 0) {
        if (*b == 0 && i > 0) return std::nullopt;
        return v;
      }
    }
    return std::nullopt;
  }

  // A length that fits in what is left of the input; anything larger is damage, and must
  // not reach an allocation.
  std::optional<size_t> length() {
    const auto n = varint();
    if (!n || *n > remaining()) return std::nullopt;
    return static_cast<size_t>(*n);
  }

  std::optional<std::string> text() {
    const auto n = length();
    if (!n) return std::nullopt;
    std::string s(reinterpret_cast<const char*>(in_.data() + pos_), *n);
    pos_ += *n;
    return s;
  }

  std::optional<PlistValue> read(int nesting) {
    const auto tag = byte();
    if (!tag) return std::nullopt;
    switch (*tag) {
      case kTagFalse:
        return PlistValue(false);
      case kTagTrue:
        return PlistValue(true);
      case kTagInt: {
        const auto v = fixed(8);
        if (!v) return std::nullopt;
        return PlistValue(static_cast<int64_t>(*v));
      }
      case kTagDouble: {
        const auto v = fixed(8);
        if (!v) return std::nullopt;
        return PlistValue(std::bit_cast<double>(*v));
      }
      case kTagFloat: {
        const auto v = fixed(4);
        if (!v) return std::nullopt;
        return PlistValue(std::bit_cast<float>(static_cast<uint32_t>(*v)));
      }
      case kTagDecimal:
        return decimal();
      case kTagString: {
        auto s = text();
        if (!s) return std::nullopt;
        return PlistValue(std::move(*s));
      }
      case kTagBytes: {
        const auto n = length();
        if (!n) return std::nullopt;
        Bytes bytes(in_.begin() + static_cast<std::ptrdiff_t>(pos_),
                    in_.begin() + static_cast<std::ptrdiff_t>(pos_ + *n));
        pos_ += *n;
        return PlistValue(std::move(bytes));
      }
      case kTagDate: {
        const auto v = fixed(8);
        if (!v) return std::nullopt;
        return PlistValue(Date{std::bit_cast<double>(*v)});
      }
      case kTagArray:
        return array(nesting);
      case kTagDictionary:
        return dictionary(nesting);
      default:
        return std::nullopt;
    }
  }

 private:
  std::optional<PlistValue> decimal() {
    const auto sign = byte();
    const auto low = fixed(8);
    const auto high = fixed(8);
    const auto exponentBits = fixed(2);
    if (!sign || !low || !high || !exponentBits || *sign > 1) return std::nullopt;
    const bool negative = *sign == 1;
    const Decimal::Mantissa mantissa = (static_cast<Decimal::Mantissa>(*high) << 64) | *low;
    const int exponent = static_cast<int16_t>(static_cast<uint16_t>(*exponentBits));
    if (exponent < Decimal::kMinExponent || exponent > Decimal::kMaxExponent) return std::nullopt;
    // Only the normalised form is valid: rebuilding must give back exactly the stored parts.
    const Decimal d = Decimal::fromParts(negative, mantissa, exponent);
    if (d.isNegative() != negative || d.mantissa() != mantissa || d.exponent() != exponent) {
      return std::nullopt;
    }
    return PlistValue(d);
  }

  std::optional<PlistValue> array(int nesting) {
    if (nesting >= kPlistCodecMaxNesting) return std::nullopt;
    const auto count = length();  // every element takes at least one byte
    if (!count) return std::nullopt;
    PlistArray array;
    for (size_t i = 0; i < *count; ++i) {
      auto item = read(nesting + 1);
      if (!item) return std::nullopt;
      array.push_back(std::move(*item));
    }
    return std::optional<PlistValue>(std::in_place, std::move(array));
  }

  std::optional<PlistValue> dictionary(int nesting) {
    if (nesting >= kPlistCodecMaxNesting) return std::nullopt;
    const auto count = length();
    if (!count) return std::nullopt;
    PlistDictionary dictionary;
    for (size_t i = 0; i < *count; ++i) {
      auto key = text();
      if (!key) return std::nullopt;
      // Ascending order rules out duplicates and keeps the encoding unique.
      if (!dictionary.empty() && !(dictionary.rbegin()->first < *key)) return std::nullopt;
      auto item = read(nesting + 1);
      if (!item) return std::nullopt;
      dictionary.emplace_hint(dictionary.end(), std::move(*key), std::move(*item));
    }
    return std::optional<PlistValue>(std::in_place, std::move(dictionary));
  }

  std::span<const uint8_t> in_;
  size_t pos_ = 0;
};

}  // namespace

namespace {

std::optional<Bytes> encodeAt(const PlistValue& value, int nesting) {
  Bytes out;
  out.push_back(kPlistCodecVersion);
  if (!Writer(out).write(value, nesting)) return std::nullopt;
  return out;
}

std::optional<PlistValue> decodeAt(std::span<const uint8_t> bytes, int nesting) {
  Reader reader(bytes);
  const auto version = reader.byte();
  if (!version || *version != kPlistCodecVersion) return std::nullopt;
  auto value = reader.read(nesting);
  if (!value || !reader.atEnd()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<Bytes> encodePlistValue(const PlistValue& value) { return encodeAt(value, 0); }

std::optional<PlistValue> decodePlistValue(std::span<const uint8_t> bytes) {
  return decodeAt(bytes, 0);
}

std::optional<Bytes> encodePlistArrayElement(const PlistValue& element) {
  return encodeAt(element, 1);
}

std::optional<PlistValue> decodePlistArrayElement(std::span<const uint8_t> bytes) {
  return decodeAt(bytes, 1);
}

}  // namespace orvane
