// Class-specific descriptors as tables of fields, one behind the other; names and layout are those of `lsusb -v`.
#ifndef VIRTUSB_HOST_CMD_DESCRIBE_FIELD_TABLE_H
#define VIRTUSB_HOST_CMD_DESCRIBE_FIELD_TABLE_H

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace vel {

// How a value is written.
enum class As : std::uint8_t {
  kNumber,
  kHex,
  kBcd,
  kString,  // Index of a string; the string follows.
  kClass,   // Class, subclass and protocol, in this order; the name follows.
  kSubClass,
  kProtocol,
  kEndpoint,  // Address, with number and direction.
  kGuid,
  kMegahertz,  // Of Hz.
  kBytes,      // Two digits each.
  kList,       // Decimal, each byte.
};

// How often a field is there, and what it says of others.
enum class Flow : std::uint8_t {
  kOnce,
  kCounts,  // Its value is the number of the groups that follow,
  kSizes,   // or the size of the fields that have none.
  kEach,    // Fields of this kind next to each other are a group, repeated as often as was counted.
  kIfNone,  // There when that was 0.
  kIfLong,  // There when the descriptor is long enough.
  kRest,    // A group repeated up to the descriptor's end.
};

// A value's name, behind it; the last of several may be for all others.
struct ValueName {
  std::uint32_t value;
  std::string_view text;
};
inline constexpr std::uint32_t kAnyOther = UINT32_MAX;

// A line below, for values that have these bits.
struct BitsLine {
  std::uint32_t mask;
  std::uint32_t bits;
  std::string_view text;
};

// Lines for bits 0, 1, ... where they are set.
template <std::size_t N>
constexpr std::array<BitsLine, N> BitNames(const std::string_view (&names)[N]) {
  std::array<BitsLine, N> lines{};
  for (std::size_t i = 0; i < N; ++i) {
    lines[i] = {1U << i, 1U << i, names[i]};
  }
  return lines;
}

inline constexpr std::uint8_t kToTheEnd = 0xFF;

struct Field {
  std::string_view name;  // One that ends with a parenthesis gets the group's number.
  std::uint8_t size = 1;  // Bytes; 0 where another field says it.
  As as = As::kNumber;
  std::int8_t width = 0;  // Column where the value ends; negative: before which it begins; 0: the table's.
  Flow flow = Flow::kOnce;
  std::span<const ValueName> names = {};
  std::span<const BitsLine> lines = {};
};

struct DescriptorTable {
  // Of the first fields, which all descriptors of a kind have: none of them, length and type, or a subtype, too.
  enum class Head : std::uint8_t { kNone, kType, kSubtype, kCapability };

  std::uint8_t subtype = 0;
  std::string_view heading;
  std::string_view subtypeName = {};
  std::span<const Field> fields = {};
  std::int8_t width = 25;
  std::int8_t headWidth = 25;
  Head head = Head::kSubtype;
  std::uint8_t indent = 0;
  std::string_view junk = "junk at descriptor end";  // For bytes behind the last field.
};

// What a descriptor stands behind.
struct DescriptorPlace {
  std::uint8_t interfaceClass = 0;
  std::uint8_t interfaceSubClass = 0;
  bool endpoint = false;
};

// Null for a descriptor that no table knows. It has at least two bytes.
const DescriptorTable* FindTable(const DescriptorPlace& place, std::span<const std::uint8_t> descriptor);

// Tables of a class, for FindTable. The one for a subtype that is not known comes last, if there is one, and has no
// fields.
std::span<const DescriptorTable> VideoControlTables();
const DescriptorTable& CameraTerminalTable();
std::span<const DescriptorTable> VideoStreamingTables();
std::span<const DescriptorTable> CdcTables();

}  // namespace vel

#endif
