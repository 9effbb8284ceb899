#include "quillet/storage/StoreValueCodec.h"

#include <bit>
#include <cstring>

namespace quillet::storeValueCodec {
namespace {

// One tag byte, then: a byte for booleans; 8 little-endian bytes for integers and doubles; a
// 32-bit little-endian length and the bytes for texts and byte buffers; a 32-bit count and that
// many (length, key bytes, value) triples for dictionaries.
enum Tag : std::uint8_t {
  kBool = 'b',
  kInteger = 'i',
  kDouble = 'd',
  kText = 's',
  kBytes = 'x',
  kDictionary = 'm',
};
constexpr int kMaxDepth = 64;

void put64(Bytes& out, std::uint64_t value) {
  for (int i = 0; i < 8; ++i)
    out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}
void put32(Bytes& out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i)
    out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}
void putBlob(Bytes& out, std::string_view bytes) {
  put32(out, static_cast<std::uint32_t>(bytes.size()));
  out.insert(out.end(), bytes.begin(), bytes.end());
}

void encodeInto(Bytes& out, const StoreValue& value) {
  std::visit(
      [&out](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, bool>) {
          out.push_back(kBool);
          out.push_back(v ? 1 : 0);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          out.push_back(kInteger);
          put64(out, static_cast<std::uint64_t>(v));
        } else if constexpr (std::is_same_v<T, double>) {
          out.push_back(kDouble);
          put64(out, std::bit_cast<std::uint64_t>(v));
        } else if constexpr (std::is_same_v<T, std::string>) {
          out.push_back(kText);
          putBlob(out, v);
        } else if constexpr (std::is_same_v<T, Bytes>) {
          out.push_back(kBytes);
          putBlob(out, std::string_view(reinterpret_cast<const char*>(v.data()), v.size()));
        } else {
          out.push_back(kDictionary);
          put32(out, static_cast<std::uint32_t>(v.size()));
          for (const auto& [key, element] : v) {
            putBlob(out, key);
            encodeInto(out, element);
          }
        }
      },
      value.variant());
}

class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  bool atEnd() const { return position_ == bytes_.size(); }

  std::optional<std::uint64_t> take(int width) {
    if (bytes_.size() - position_ < static_cast<std::size_t>(width)) return std::nullopt;
    std::uint64_t value = 0;
    for (int i = 0; i < width; ++i)
      value |= std::uint64_t{bytes_[position_++]} << (8 * i);
    return value;
  }

  std::optional<std::string> blob() {
    const auto length = take(4);
    if (!length || bytes_.size() - position_ < *length) return std::nullopt;
    std::string out(reinterpret_cast<const char*>(bytes_.data() + position_), *length);
    position_ += *length;
    return out;
  }

  std::optional<StoreValue> value(int depth) {
    if (depth > kMaxDepth) return std::nullopt;
    const auto tag = take(1);
    if (!tag) return std::nullopt;
    switch (*tag) {
      case kBool: {
        const auto flag = take(1);
        if (!flag || *flag > 1) return std::nullopt;
        return StoreValue(*flag == 1);
      }
      case kInteger: {
        const auto number = take(8);
        if (!number) return std::nullopt;
        return StoreValue(static_cast<std::int64_t>(*number));
      }
      case kDouble: {
        const auto bits = take(8);
        if (!bits) return std::nullopt;
        return StoreValue(std::bit_cast<double>(*bits));
      }
      case kText: {
        auto text = blob();
        if (!text) return std::nullopt;
        return StoreValue(std::move(*text));
      }
      case kBytes: {
        const auto bytes = blob();
        if (!bytes) return std::nullopt;
        return StoreValue(Bytes(bytes->begin(), bytes->end()));
      }
      case kDictionary: {
        const auto count = take(4);
        if (!count) return std::nullopt;
        StoreValue::Dictionary dictionary;
        for (std::uint64_t i = 0; i < *count; ++i) {
          auto key = blob();
          if (!key) return std::nullopt;
          auto element = value(depth + 1);
          if (!element) return std::nullopt;
          dictionary.insert_or_assign(std::move(*key), std::move(*element));
        }
        return StoreValue(std::move(dictionary));
      }
      default:
        return std::nullopt;
    }
  }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t position_ = 0;
};

}  // namespace

Bytes encode(const StoreValue& value) {
  Bytes out;
  encodeInto(out, value);
  return out;
}

std::optional<StoreValue> decode(std::span<const std::uint8_t> bytes) {
  Reader reader(bytes);
  auto value = reader.value(0);
  if (!value || !reader.atEnd()) return std::nullopt;
  return value;
}

}  // namespace quillet::storeValueCodec
