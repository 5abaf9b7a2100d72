#ifndef VIRTUSB_HOST_CMD_DESCRIBE_DECODED_DESCRIPTOR_H
#define VIRTUSB_HOST_CMD_DESCRIBE_DECODED_DESCRIPTOR_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cmd/describe/FieldTable.h"

namespace vel {

// A field with its value.
struct DecodedField {
  std::string name;
  As as = As::kNumber;
  std::uint64_t number = 0;  // Of the first eight bytes.
  std::string value;         // As it is printed.
  std::string_view note;     // What it means; for an endpoint or a string, nothing.
  std::vector<std::string_view> lines;
  int width = 0;
};

// A descriptor as far as it is whole: fields that are cut are left out.
struct DecodedDescriptor {
  const DescriptorTable* table = nullptr;
  std::vector<DecodedField> fields;
  bool cut = false;                        // Fields are missing.
  std::span<const std::uint8_t> leftover;  // Behind the last field; points into what was decoded.
};

// Nothing for a descriptor that no table knows. It has at least two bytes.
std::optional<DecodedDescriptor> Decode(const DescriptorPlace& place, std::span<const std::uint8_t> descriptor);

// Two digits each, with spaces between.
std::string HexBytes(std::span<const std::uint8_t> bytes);
// Binary-coded decimal, as in a release number.
std::string BcdText(std::uint64_t value);

}  // namespace vel

#endif
