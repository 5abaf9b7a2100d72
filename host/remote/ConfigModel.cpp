#include "remote/ConfigModel.h"

#include <cstring>
#include <utility>

#include "protocol/ByteReader.h"
#include "protocol/ConfigRecords.h"

namespace vel {
namespace {

template <class Record>
Record ReadRecord(ByteReader& reader) {
  Record record{};
  const std::span<const std::uint8_t> bytes = reader.Bytes(sizeof record);
  if (!bytes.empty()) {
    std::memcpy(&record, bytes.data(), sizeof record);
  }
  return record;
}

Bytes ReadExtra(ByteReader& reader, std::uint32_t length) {
  const std::span<const std::uint8_t> bytes = reader.Bytes(length);
  return {bytes.begin(), bytes.end()};
}

EndpointModel ReadEndpoint(ByteReader& reader) {
  const auto record = ReadRecord<EndpointRecord>(reader);
  EndpointModel endpoint;
  endpoint.bLength = record.bLength;
  endpoint.bDescriptorType = record.bDescriptorType;
  endpoint.bEndpointAddress = record.bEndpointAddress;
  endpoint.bmAttributes = record.bmAttributes;
  endpoint.wMaxPacketSize = record.wMaxPacketSize;
  endpoint.bInterval = record.bInterval;
  endpoint.bRefresh = record.bRefresh;
  endpoint.bSynchAddress = record.bSynchAddress;
  endpoint.extra = ReadExtra(reader, record.extraLength);
  return endpoint;
}

AltSettingModel ReadAltSetting(ByteReader& reader) {
  const auto record = ReadRecord<InterfaceRecord>(reader);
  AltSettingModel setting;
  setting.bLength = record.bLength;
  setting.bDescriptorType = record.bDescriptorType;
  setting.bInterfaceNumber = record.bInterfaceNumber;
  setting.bAlternateSetting = record.bAlternateSetting;
  setting.bNumEndpoints = record.bNumEndpoints;
  setting.bInterfaceClass = record.bInterfaceClass;
  setting.bInterfaceSubClass = record.bInterfaceSubClass;
  setting.bInterfaceProtocol = record.bInterfaceProtocol;
  setting.iInterface = record.iInterface;
  for (std::uint32_t i = 0; i < record.bNumEndpoints && reader.Ok(); ++i) {
    setting.endpoints.push_back(ReadEndpoint(reader));
  }
  setting.extra = ReadExtra(reader, record.extraLength);
  return setting;
}

}  // namespace

std::optional<DeviceModel> ReadDeviceModel(std::span<const std::uint8_t> bytes) {
  ByteReader reader(bytes);
  DeviceModel device;
  device.bLength = reader.Host<std::uint8_t>();
  device.bDescriptorType = reader.Host<std::uint8_t>();
  device.bcdUSB = reader.Host<std::uint16_t>();
  device.bDeviceClass = reader.Host<std::uint8_t>();
  device.bDeviceSubClass = reader.Host<std::uint8_t>();
  device.bDeviceProtocol = reader.Host<std::uint8_t>();
  device.bMaxPacketSize0 = reader.Host<std::uint8_t>();
  device.idVendor = reader.Host<std::uint16_t>();
  device.idProduct = reader.Host<std::uint16_t>();
  device.bcdDevice = reader.Host<std::uint16_t>();
  device.iManufacturer = reader.Host<std::uint8_t>();
  device.iProduct = reader.Host<std::uint8_t>();
  device.iSerialNumber = reader.Host<std::uint8_t>();
  device.bNumConfigurations = reader.Host<std::uint8_t>();
  return reader.Ok() ? std::optional(device) : std::nullopt;
}

std::optional<ConfigModel> ReadConfigModel(std::span<const std::uint8_t> bytes) {
  ByteReader reader(bytes);
  const auto record = ReadRecord<ConfigRecord>(reader);
  ConfigModel config;
  config.bLength = record.bLength;
  config.bDescriptorType = record.bDescriptorType;
  config.wTotalLength = record.wTotalLength;
  config.bNumInterfaces = record.bNumInterfaces;
  config.bConfigurationValue = record.bConfigurationValue;
  config.iConfiguration = record.iConfiguration;
  config.bmAttributes = record.bmAttributes;
  config.MaxPower = record.MaxPower;
  for (std::uint32_t i = 0; i < record.bNumInterfaces && reader.Ok(); ++i) {
    std::vector<AltSettingModel>& settings = config.interfaces.emplace_back();
    const auto count = reader.Host<std::uint32_t>();
    for (std::uint32_t j = 0; j < count && reader.Ok(); ++j) {
      settings.push_back(ReadAltSetting(reader));
    }
  }
  config.extra = ReadExtra(reader, record.extraLength);
  return reader.Ok() ? std::optional(std::move(config)) : std::nullopt;
}

std::vector<std::span<const std::uint8_t>> SplitDescriptors(std::span<const std::uint8_t> bytes) {
  std::vector<std::span<const std::uint8_t>> descriptors;
  while (bytes.size() >= 2 && bytes[0] >= 2 && bytes[0] <= bytes.size()) {
    descriptors.push_back(bytes.first(bytes[0]));
    bytes = bytes.subspan(bytes[0]);
  }
  return descriptors;
}

}  // namespace vel
