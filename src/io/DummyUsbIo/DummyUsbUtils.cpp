#include "io/DummyUsbIo/DummyUsbUtils.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace vel {
namespace {

constexpr std::size_t kPatternPeriod = 255;

// Several periods, so that long fills copy from the first-level cache in long runs.
constexpr auto kPattern = [] {
  std::array<std::uint8_t, kPatternPeriod * 64> pattern{};
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = static_cast<std::uint8_t>(255 - i % kPatternPeriod);
  }
  return pattern;
}();

constexpr std::uint16_t ReadLe16(std::uint8_t low, std::uint8_t high) {
  return static_cast<std::uint16_t>(low | (high << 8U));
}

}  // namespace

DummyUsbUtils::EndpointPtr DummyUsbUtils::CreateEndpiontDesc(std::uint8_t address, std::uint8_t attributes,
                                                             std::uint16_t maxPacketSize, std::uint8_t interval) {
  EndpointPtr endpoint(static_cast<libusb_endpoint_descriptor*>(std::calloc(1, sizeof(libusb_endpoint_descriptor))));
  if (endpoint != nullptr) {
    endpoint->bLength = LIBUSB_DT_ENDPOINT_SIZE;
    endpoint->bDescriptorType = LIBUSB_DT_ENDPOINT;
    endpoint->bEndpointAddress = address;
    endpoint->bmAttributes = attributes;
    endpoint->wMaxPacketSize = maxPacketSize;
    endpoint->bInterval = interval;
  }
  return endpoint;
}

void DummyUsbUtils::FillInterfaceDesc(libusb_interface_descriptor& record, std::uint8_t interfaceNumber,
                                      std::uint8_t alternateSetting, std::uint8_t numEndpoints,
                                      std::uint8_t interfaceClass, std::uint8_t subclass, std::uint8_t protocol,
                                      std::uint8_t iInterface) {
  record = {};
  record.bLength = LIBUSB_DT_INTERFACE_SIZE;
  record.bDescriptorType = LIBUSB_DT_INTERFACE;
  record.bInterfaceNumber = interfaceNumber;
  record.bAlternateSetting = alternateSetting;
  record.bNumEndpoints = numEndpoints;
  record.bInterfaceClass = interfaceClass;
  record.bInterfaceSubClass = subclass;
  record.bInterfaceProtocol = protocol;
  record.iInterface = iInterface;
}

libusb_device_descriptor DummyUsbUtils::ReadDeviceDesc(std::span<const std::uint8_t, LIBUSB_DT_DEVICE_SIZE> bytes) {
  libusb_device_descriptor desc{};
  desc.bLength = bytes[0];
  desc.bDescriptorType = bytes[1];
  desc.bcdUSB = ReadLe16(bytes[2], bytes[3]);
  desc.bDeviceClass = bytes[4];
  desc.bDeviceSubClass = bytes[5];
  desc.bDeviceProtocol = bytes[6];
  desc.bMaxPacketSize0 = bytes[7];
  desc.idVendor = ReadLe16(bytes[8], bytes[9]);
  desc.idProduct = ReadLe16(bytes[10], bytes[11]);
  desc.bcdDevice = ReadLe16(bytes[12], bytes[13]);
  desc.iManufacturer = bytes[14];
  desc.iProduct = bytes[15];
  desc.iSerialNumber = bytes[16];
  desc.bNumConfigurations = bytes[17];
  return desc;
}

int DummyUsbUtils::CopyAnswer(std::span<const std::uint8_t> answer, std::uint8_t* buffer, int length) {
  if (buffer == nullptr || length <= 0) {
    return 0;
  }
  const std::size_t count = std::min(answer.size(), static_cast<std::size_t>(length));
  std::memcpy(buffer, answer.data(), count);
  return static_cast<int>(count);
}

void DummyUsbUtils::FillPattern(std::span<std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const std::size_t run = std::min(bytes.size(), kPattern.size());
    std::memcpy(bytes.data(), kPattern.data(), run);
    bytes = bytes.subspan(run);
  }
}

}  // namespace vel
