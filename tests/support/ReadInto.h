#ifndef VIRTUSB_TESTS_SUPPORT_READ_INTO_H
#define VIRTUSB_TESTS_SUPPORT_READ_INTO_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "remote/PacketFramer.h"

namespace vel {

// As a descriptor is read that has these bytes. False once the stream cannot go on.
inline bool ReadInto(PacketFramer& framer, std::span<const std::uint8_t> bytes) {
  bool goesOn = true;
  while (!bytes.empty()) {
    std::size_t count = 0;
    for (const IoPiece& piece : framer.Room()) {
      const auto part = bytes.first(std::min(bytes.size(), piece.iov_len));
      std::ranges::copy(part, static_cast<std::uint8_t*>(piece.iov_base));
      bytes = bytes.subspan(part.size());
      count += part.size();
    }
    goesOn = framer.Filled(count);
  }
  return goesOn;
}

}  // namespace vel

#endif
