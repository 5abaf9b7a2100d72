#include "cmd/Enumeration.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <cstddef>
#include <span>

namespace vel {
namespace {

constexpr std::uint16_t kEnglish = 0x0409;

void AppendUtf8(std::string& text, std::uint32_t codePoint) {
  const auto put = [&text](std::uint32_t byte) { text += static_cast<char>(byte); };
  if (codePoint < 0x80) {
    put(codePoint);
  } else if (codePoint < 0x800) {
    put(0xC0U | (codePoint >> 6U));
    put(0x80U | (codePoint & 0x3FU));
  } else if (codePoint < 0x10000) {
    put(0xE0U | (codePoint >> 12U));
    put(0x80U | ((codePoint >> 6U) & 0x3FU));
    put(0x80U | (codePoint & 0x3FU));
  } else {
    put(0xF0U | (codePoint >> 18U));
    put(0x80U | ((codePoint >> 12U) & 0x3FU));
    put(0x80U | ((codePoint >> 6U) & 0x3FU));
    put(0x80U | (codePoint & 0x3FU));
  }
}

// The text of a string descriptor (UTF-16LE behind two bytes). Control characters and lone surrogates become U+FFFD:
// the device wrote this, and it goes to a terminal.
std::string ReadString(std::span<const std::uint8_t> descriptor) {
  constexpr std::uint32_t kReplacement = 0xFFFD;
  std::string text;
  const std::size_t size = descriptor.size() < 2 ? 0 : std::min<std::size_t>(descriptor.size(), descriptor[0]);
  const auto unitAt = [&](std::size_t i) {
    return static_cast<std::uint32_t>(descriptor[i] | (descriptor[i + 1] << 8U));
  };
  for (std::size_t i = 2; i + 1 < size; i += 2) {
    std::uint32_t codePoint = unitAt(i);
    if (codePoint >= 0xD800 && codePoint < 0xDC00 && i + 3 < size && unitAt(i + 2) >= 0xDC00 &&
        unitAt(i + 2) < 0xE000) {
      codePoint = 0x10000 + ((codePoint - 0xD800) << 10U) + (unitAt(i + 2) - 0xDC00);
      i += 2;
    } else if (codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0) ||
               (codePoint >= 0xD800 && codePoint < 0xE000)) {
      codePoint = kReplacement;
    }
    AppendUtf8(text, codePoint);
  }
  return text;
}

void ReadStringOnce(RemoteDevice& remote, std::uint8_t index, std::map<std::uint8_t, std::string>& strings) {
  if (index == 0 || strings.contains(index)) {
    return;
  }
  const RemoteDevice::Result result = remote.GetStringDescriptor(index, kEnglish, 255);
  if (result.value > 0) {
    strings[index] = ReadString(result.data);
  }
}

}  // namespace

Enumeration Enumerate(RemoteDevice& remote) {
  if (const std::int32_t opened = remote.Status(Command::kOpenUsbDev); opened != 0) {
    throw RemoteError(std::string("the device cannot be opened: ") + libusb_strerror(opened));
  }
  Enumeration found;
  const std::optional<DeviceModel> device = ReadDeviceModel(remote.GetDeviceDescriptor());
  if (!device) {
    throw RemoteError("the device sent no whole device descriptor");
  }
  found.device = *device;
  found.bus = remote.Status(Command::kGetBusNumber);
  found.address = remote.Status(Command::kGetDeviceAddress);
  found.port = remote.Status(Command::kGetDevicePortNumber);
  found.speed = remote.Status(Command::kGetDeviceSpeed);
  found.config = ReadConfigModel(remote.GetConfiguration());
  for (const std::uint8_t index : {device->iManufacturer, device->iProduct, device->iSerialNumber}) {
    ReadStringOnce(remote, index, found.strings);
  }
  if (found.config) {
    ReadStringOnce(remote, found.config->iConfiguration, found.strings);
    for (const auto& settings : found.config->interfaces) {
      for (const AltSettingModel& setting : settings) {
        ReadStringOnce(remote, setting.iInterface, found.strings);
      }
    }
  }
  return found;
}

}  // namespace vel
