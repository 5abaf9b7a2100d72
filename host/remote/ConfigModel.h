// Descriptors as values, read from what a device sent. Nothing is trusted: reading stops where the bytes do.
#ifndef VIRTUSB_HOST_REMOTE_CONFIG_MODEL_H
#define VIRTUSB_HOST_REMOTE_CONFIG_MODEL_H

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vel {

using Bytes = std::vector<std::uint8_t>;

struct DeviceModel {
  std::uint8_t bLength = 0;
  std::uint8_t bDescriptorType = 0;
  std::uint16_t bcdUSB = 0;
  std::uint8_t bDeviceClass = 0;
  std::uint8_t bDeviceSubClass = 0;
  std::uint8_t bDeviceProtocol = 0;
  std::uint8_t bMaxPacketSize0 = 0;
  std::uint16_t idVendor = 0;
  std::uint16_t idProduct = 0;
  std::uint16_t bcdDevice = 0;
  std::uint8_t iManufacturer = 0;
  std::uint8_t iProduct = 0;
  std::uint8_t iSerialNumber = 0;
  std::uint8_t bNumConfigurations = 0;
};

struct EndpointModel {
  std::uint8_t bLength = 0;
  std::uint8_t bDescriptorType = 0;
  std::uint8_t bEndpointAddress = 0;
  std::uint8_t bmAttributes = 0;
  std::uint16_t wMaxPacketSize = 0;
  std::uint8_t bInterval = 0;
  std::uint8_t bRefresh = 0;
  std::uint8_t bSynchAddress = 0;
  Bytes extra;
};

struct AltSettingModel {
  std::uint8_t bLength = 0;
  std::uint8_t bDescriptorType = 0;
  std::uint8_t bInterfaceNumber = 0;
  std::uint8_t bAlternateSetting = 0;
  std::uint8_t bNumEndpoints = 0;
  std::uint8_t bInterfaceClass = 0;
  std::uint8_t bInterfaceSubClass = 0;
  std::uint8_t bInterfaceProtocol = 0;
  std::uint8_t iInterface = 0;
  std::vector<EndpointModel> endpoints;
  Bytes extra;
};

struct ConfigModel {
  std::uint8_t bLength = 0;
  std::uint8_t bDescriptorType = 0;
  std::uint16_t wTotalLength = 0;
  std::uint8_t bNumInterfaces = 0;
  std::uint8_t bConfigurationValue = 0;
  std::uint8_t iConfiguration = 0;
  std::uint8_t bmAttributes = 0;
  std::uint8_t MaxPower = 0;
  std::vector<std::vector<AltSettingModel>> interfaces;
  Bytes extra;
};

// From the 18 bytes of a device descriptor. Nothing when there are fewer.
std::optional<DeviceModel> ReadDeviceModel(std::span<const std::uint8_t> bytes);

// From a serialised configuration (reply to "get configuration"). Nothing when it is cut or counts more than it holds.
std::optional<ConfigModel> ReadConfigModel(std::span<const std::uint8_t> bytes);

// One class-specific descriptor after another, out of extra bytes; stops at the last whole one.
std::vector<std::span<const std::uint8_t>> SplitDescriptors(std::span<const std::uint8_t> bytes);

}  // namespace vel

#endif
