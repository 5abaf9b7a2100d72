#include "cmd/describe/DecodedDescriptor.h"
#include "cmd/describe/DescriptorText.h"
#include "cmd/describe/UsbNames.h"

namespace vel {
namespace {

nlohmann::ordered_json FieldJson(const DecodedField& field) {
  const bool text = field.as == As::kBcd || field.as == As::kGuid || field.as == As::kBytes || field.as == As::kList;
  return text ? nlohmann::ordered_json(field.value) : nlohmann::ordered_json(field.number);
}

// Fields by their names; one that is there several times is an array.
nlohmann::ordered_json DecodedJson(const DecodedDescriptor& decoded) {
  nlohmann::ordered_json object = {{"descriptor", decoded.table->heading}};
  for (const DecodedField& field : decoded.fields) {
    const std::size_t parenthesis = field.name.find('(');
    nlohmann::ordered_json& member = object[field.name.substr(0, parenthesis)];
    if (member.is_null() && parenthesis == std::string::npos) {
      member = FieldJson(field);
    } else {
      if (!member.is_array() && !member.is_null()) {
        member = nlohmann::ordered_json::array({member});
      }
      member.push_back(FieldJson(field));
    }
  }
  if (decoded.cut || !decoded.leftover.empty()) {
    object["leftover"] = HexBytes(decoded.leftover);
  }
  return object;
}

// What the tables know of a block of descriptors.
nlohmann::ordered_json DescriptorsJson(const DescriptorPlace& place, std::span<const std::uint8_t> extra) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const std::span<const std::uint8_t> bytes : SplitDescriptors(extra)) {
    if (const auto decoded = Decode(place, bytes)) {
      list.push_back(DecodedJson(*decoded));
    }
  }
  return list;
}

nlohmann::ordered_json EndpointJson(const AltSettingModel& setting, const EndpointModel& endpoint) {
  return {
      {"bEndpointAddress", endpoint.bEndpointAddress},
      {"direction", (endpoint.bEndpointAddress & 0x80U) != 0 ? "in" : "out"},
      {"bmAttributes", endpoint.bmAttributes},
      {"transferType", TransferTypeName(endpoint.bmAttributes)},
      {"wMaxPacketSize", endpoint.wMaxPacketSize},
      {"bInterval", endpoint.bInterval},
      {"extra", HexBytes(endpoint.extra)},
      {"descriptors", DescriptorsJson({setting.bInterfaceClass, setting.bInterfaceSubClass, true}, endpoint.extra)}};
}

nlohmann::ordered_json AltSettingJson(const Enumeration& found, const AltSettingModel& setting) {
  nlohmann::ordered_json endpoints = nlohmann::ordered_json::array();
  for (const EndpointModel& endpoint : setting.endpoints) {
    endpoints.push_back(EndpointJson(setting, endpoint));
  }
  return {{"bInterfaceNumber", setting.bInterfaceNumber},
          {"bAlternateSetting", setting.bAlternateSetting},
          {"bInterfaceClass", setting.bInterfaceClass},
          {"className", ClassName(setting.bInterfaceClass)},
          {"bInterfaceSubClass", setting.bInterfaceSubClass},
          {"bInterfaceProtocol", setting.bInterfaceProtocol},
          {"iInterface", setting.iInterface},
          {"interface", found.StringAt(setting.iInterface)},
          {"extra", HexBytes(setting.extra)},
          {"descriptors", DescriptorsJson({setting.bInterfaceClass, setting.bInterfaceSubClass}, setting.extra)},
          {"endpoints", std::move(endpoints)}};
}

nlohmann::ordered_json ConfigJson(const Enumeration& found) {
  if (!found.config) {
    return nullptr;
  }
  const ConfigModel& config = *found.config;
  nlohmann::ordered_json interfaces = nlohmann::ordered_json::array();
  for (const auto& settings : config.interfaces) {
    nlohmann::ordered_json altSettings = nlohmann::ordered_json::array();
    for (const AltSettingModel& setting : settings) {
      altSettings.push_back(AltSettingJson(found, setting));
    }
    interfaces.push_back(std::move(altSettings));
  }
  return {{"wTotalLength", config.wTotalLength},
          {"bNumInterfaces", config.bNumInterfaces},
          {"bConfigurationValue", config.bConfigurationValue},
          {"iConfiguration", config.iConfiguration},
          {"configuration", found.StringAt(config.iConfiguration)},
          {"bmAttributes", config.bmAttributes},
          {"maxPowerMilliamperes", found.MilliAmperes()},
          {"extra", HexBytes(config.extra)},
          {"descriptors", DescriptorsJson({}, config.extra)},
          {"interfaces", std::move(interfaces)}};
}

}  // namespace

nlohmann::ordered_json DescriptorJson(const Enumeration& found) {
  const DeviceModel& device = found.device;
  return {{"bus", found.bus},
          {"address", found.address},
          {"port", found.port},
          {"speed", SpeedName(found.speed)},
          {"device",
           {{"bcdUSB", BcdText(device.bcdUSB)},
            {"bDeviceClass", device.bDeviceClass},
            {"className", ClassName(device.bDeviceClass)},
            {"bDeviceSubClass", device.bDeviceSubClass},
            {"bDeviceProtocol", device.bDeviceProtocol},
            {"bMaxPacketSize0", device.bMaxPacketSize0},
            {"idVendor", device.idVendor},
            {"idProduct", device.idProduct},
            {"bcdDevice", BcdText(device.bcdDevice)},
            {"iManufacturer", device.iManufacturer},
            {"manufacturer", found.StringAt(device.iManufacturer)},
            {"iProduct", device.iProduct},
            {"product", found.StringAt(device.iProduct)},
            {"iSerialNumber", device.iSerialNumber},
            {"serialNumber", found.StringAt(device.iSerialNumber)},
            {"bNumConfigurations", device.bNumConfigurations}}},
          {"configuration", ConfigJson(found)},
          {"capabilities",
           found.capabilities.empty()
               ? nullptr
               : DescriptorsJson({}, std::span(found.capabilities).subspan(Enumeration::kCapabilitiesHead))}};
}

}  // namespace vel
