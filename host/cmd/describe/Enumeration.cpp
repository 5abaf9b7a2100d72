#include "cmd/describe/Enumeration.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <cstddef>
#include <span>

#include "cmd/describe/DecodedDescriptor.h"

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

// The strings that class-specific descriptors name.
void ReadClassStrings(RemoteDevice& remote, const DescriptorPlace& place, const Bytes& extra,
                      std::map<std::uint8_t, std::string>& strings) {
  for (const std::span<const std::uint8_t> bytes : SplitDescriptors(extra)) {
    const auto decoded = Decode(place, bytes);
    for (const DecodedField& field : decoded ? decoded->fields : std::vector<DecodedField>()) {
      if (field.as == As::kString) {
        ReadStringOnce(remote, static_cast<std::uint8_t>(field.number), strings);
      }
    }
  }
}

Bytes ReadCapabilities(RemoteDevice& remote) {
  constexpr std::size_t kHead = Enumeration::kCapabilitiesHead;
  ControlSetup setup{.bmRequestType = 0x80, .bRequest = 6, .wValue = 0x0F00, .wIndex = 0, .wLength = kHead};
  Bytes bytes = remote.ControlTransfer(setup).data;
  if (bytes.size() < kHead) {
    return {};
  }
  setup.wLength = static_cast<std::uint16_t>(bytes[2] | bytes[3] << 8U);
  bytes = remote.ControlTransfer(setup).data;
  return bytes.size() < kHead ? Bytes() : bytes;
}

}  // namespace

std::string Enumeration::StringAt(std::uint8_t index) const {
  const auto text = strings.find(index);
  return text == strings.end() ? "" : text->second;
}

// MaxPower counts 2 mA, at SuperSpeed 8 mA (USB 3.2, 9.6.3).
unsigned Enumeration::MilliAmperes() const {
  constexpr int kSuperSpeed = 4;
  return config->MaxPower * (speed >= kSuperSpeed ? 8U : 2U);
}

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
  const Bytes config = remote.GetConfiguration();
  found.config = ReadConfigModel(config);
  found.configBroken = !found.config && !config.empty();
  constexpr std::uint16_t kWithCapabilities = 0x0201;
  if (device->bcdUSB >= kWithCapabilities) {
    found.capabilities = ReadCapabilities(remote);
  }
  for (const std::uint8_t index : {device->iManufacturer, device->iProduct, device->iSerialNumber}) {
    ReadStringOnce(remote, index, found.strings);
  }
  if (found.config) {
    ReadStringOnce(remote, found.config->iConfiguration, found.strings);
    for (const auto& settings : found.config->interfaces) {
      for (const AltSettingModel& setting : settings) {
        ReadStringOnce(remote, setting.iInterface, found.strings);
        ReadClassStrings(remote, {setting.bInterfaceClass, setting.bInterfaceSubClass}, setting.extra, found.strings);
      }
    }
    ReadClassStrings(remote, {}, found.config->extra, found.strings);
  }
  return found;
}

}  // namespace vel
