#include "base/VelLog.h"

#include <array>

namespace vel {

std::string EscapeForLog(std::string_view text, std::size_t maxBytes) {
  constexpr std::array kHex = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
  std::string escaped;
  for (const char character : text.substr(0, maxBytes)) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 && byte < 0x7F) {
      escaped += character;
    } else {
      escaped += {'\\', 'x', kHex[byte >> 4U], kHex[byte & 0xFU]};
    }
  }
  if (text.size() > maxBytes) {
    escaped += "...";
  }
  return escaped;
}

}  // namespace vel
