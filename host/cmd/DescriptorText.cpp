#include "cmd/DescriptorText.h"

#include "cmd/Output.h"
#include "cmd/UsbNames.h"

namespace vel {
namespace {

constexpr std::uint8_t kDescriptorHid = 0x21;          // HID 1.11, 6.2.1
constexpr std::uint8_t kDescriptorCsInterface = 0x24;  // CDC 1.2, table 12
constexpr std::uint8_t kClassCommunications = 0x02;

std::string Bcd(std::uint16_t value) {
  return Format("%x.%02x", value >> 8U, value & 0xFFU);
}

std::string StringOf(const Enumeration& found, std::uint8_t index) {
  const auto text = found.strings.find(index);
  return text == found.strings.end() ? "" : text->second;
}

std::string Hex(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += Format(text.empty() ? "%02x" : " %02x", unsigned{byte});
  }
  return text;
}

std::string EndpointName(std::uint8_t address) {
  return Format("EP %u %s", address & 0x0FU, (address & 0x80U) != 0 ? "IN" : "OUT");
}

// Lines of "name value note", indented; value ends in the column that lsusb uses.
class FieldPrinter {
 public:
  explicit FieldPrinter(std::string& out, int indent) : mOut(out), mIndent(static_cast<std::size_t>(indent)) {}

  void Heading(std::string_view text) { Line(std::string(text) + ":"); }
  void Line(const std::string& text) { mOut += std::string(mIndent, ' ') + text + "\n"; }
  void Field(std::string_view name, const std::string& value, std::string_view note = "") {
    constexpr std::size_t kWidth = 25;
    const std::size_t used = name.size() + value.size();
    std::string line = std::string(name) + std::string(used < kWidth ? kWidth - used : 1, ' ') + value;
    if (!note.empty()) {
      line += " " + std::string(note);
    }
    Line(line);
  }
  void Number(std::string_view name, unsigned value, std::string_view note = "") {
    Field(name, std::to_string(value), note);
  }
  FieldPrinter Inner() const { return FieldPrinter(mOut, static_cast<int>(mIndent) + 2); }

 private:
  std::string& mOut;
  const std::size_t mIndent;
};

std::uint16_t Le16(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return static_cast<std::uint16_t>(bytes[offset] | (bytes[offset + 1] << 8U));
}

void PrintHid(FieldPrinter printer, std::span<const std::uint8_t> bytes) {
  printer.Heading("HID Device Descriptor");
  FieldPrinter fields = printer.Inner();
  fields.Number("bLength", bytes[0]);
  fields.Number("bDescriptorType", bytes[1]);
  fields.Field("bcdHID", Bcd(Le16(bytes, 2)));
  fields.Number("bCountryCode", bytes[4], bytes[4] == 0 ? "Not supported" : "");
  fields.Number("bNumDescriptors", bytes[5]);
  for (std::size_t i = 6; i + 3 <= bytes.size(); i += 3) {
    fields.Number("bDescriptorType", bytes[i], bytes[i] == 0x22 ? "Report" : "");
    fields.Number("wDescriptorLength", Le16(bytes, i + 1));
  }
}

void PrintCdc(FieldPrinter printer, std::span<const std::uint8_t> bytes) {
  printer.Heading(CdcSubtypeName(bytes[2]));
  FieldPrinter fields = printer.Inner();
  if (bytes[2] == 0x00) {
    fields.Field("bcdCDC", Bcd(Le16(bytes, 3)));
  } else if (bytes[2] == 0x06) {
    fields.Number("bMasterInterface", bytes[3]);
    for (const std::uint8_t slave : bytes.subspan(4)) {
      fields.Number("bSlaveInterface", slave);
    }
  } else {
    fields.Field("bmCapabilities", Format("0x%02x", unsigned{bytes[3]}));
    if (bytes[2] == 0x01) {
      fields.Number("bDataInterface", bytes[4]);
    }
  }
}

void PrintExtra(FieldPrinter printer, std::span<const std::uint8_t> extra, std::uint8_t interfaceClass) {
  for (const std::span<const std::uint8_t> bytes : SplitDescriptors(extra)) {
    if (bytes[1] == kDescriptorHid && bytes.size() >= 9) {
      PrintHid(printer, bytes);
    } else if (bytes[1] == kDescriptorCsInterface && interfaceClass == kClassCommunications && bytes.size() >= 4 &&
               !CdcSubtypeName(bytes[2]).empty() && (bytes.size() >= 5 || bytes[2] == 0x02)) {
      PrintCdc(printer, bytes);
    } else {
      printer.Line("** UNRECOGNIZED:  " + Hex(bytes));
    }
  }
}

void PrintEndpoint(FieldPrinter printer, const EndpointModel& endpoint) {
  printer.Heading("Endpoint Descriptor");
  FieldPrinter fields = printer.Inner();
  fields.Number("bLength", endpoint.bLength);
  fields.Number("bDescriptorType", endpoint.bDescriptorType);
  fields.Field("bEndpointAddress", Format("0x%02x", unsigned{endpoint.bEndpointAddress}),
               " " + EndpointName(endpoint.bEndpointAddress));
  fields.Number("bmAttributes", endpoint.bmAttributes);
  FieldPrinter types = fields.Inner();
  types.Line(Format("Transfer Type            %s", TransferTypeName(endpoint.bmAttributes).data()));
  types.Line(Format("Synch Type               %s", SynchTypeName(endpoint.bmAttributes).data()));
  types.Line(Format("Usage Type               %s", UsageTypeName(endpoint.bmAttributes).data()));
  // USB 2.0, 9.6.6: bits 11 and 12 count further transactions per microframe.
  fields.Field("wMaxPacketSize", Format("0x%04x", unsigned{endpoint.wMaxPacketSize}),
               Format(" %ux %u bytes", ((endpoint.wMaxPacketSize >> 11U) & 3U) + 1, endpoint.wMaxPacketSize & 0x7FFU));
  fields.Number("bInterval", endpoint.bInterval);
  if (endpoint.bLength >= 9) {
    fields.Number("bRefresh", endpoint.bRefresh);
    fields.Number("bSynchAddress", endpoint.bSynchAddress);
  }
  PrintExtra(fields, endpoint.extra, 0);
}

void PrintAltSetting(FieldPrinter printer, const Enumeration& found, const AltSettingModel& setting) {
  printer.Heading("Interface Descriptor");
  FieldPrinter fields = printer.Inner();
  fields.Number("bLength", setting.bLength);
  fields.Number("bDescriptorType", setting.bDescriptorType);
  fields.Number("bInterfaceNumber", setting.bInterfaceNumber);
  fields.Number("bAlternateSetting", setting.bAlternateSetting);
  fields.Number("bNumEndpoints", setting.bNumEndpoints);
  fields.Number("bInterfaceClass", setting.bInterfaceClass, ClassName(setting.bInterfaceClass));
  fields.Number("bInterfaceSubClass", setting.bInterfaceSubClass);
  fields.Number("bInterfaceProtocol", setting.bInterfaceProtocol);
  fields.Number("iInterface", setting.iInterface, StringOf(found, setting.iInterface));
  PrintExtra(fields, setting.extra, setting.bInterfaceClass);
  for (const EndpointModel& endpoint : setting.endpoints) {
    PrintEndpoint(fields, endpoint);
  }
}

// MaxPower counts 2 mA, at SuperSpeed 8 mA (USB 3.2, 9.6.3).
unsigned MilliAmperes(const Enumeration& found) {
  constexpr int kSuperSpeed = 4;
  return found.config->MaxPower * (found.speed >= kSuperSpeed ? 8U : 2U);
}

void PrintConfig(FieldPrinter printer, const Enumeration& found) {
  const ConfigModel& config = *found.config;
  printer.Heading("Configuration Descriptor");
  FieldPrinter fields = printer.Inner();
  fields.Number("bLength", config.bLength);
  fields.Number("bDescriptorType", config.bDescriptorType);
  fields.Field("wTotalLength", Format("0x%04x", unsigned{config.wTotalLength}));
  fields.Number("bNumInterfaces", config.bNumInterfaces);
  fields.Number("bConfigurationValue", config.bConfigurationValue);
  fields.Number("iConfiguration", config.iConfiguration, StringOf(found, config.iConfiguration));
  fields.Field("bmAttributes", Format("0x%02x", unsigned{config.bmAttributes}));
  FieldPrinter attributes = fields.Inner();
  attributes.Line((config.bmAttributes & 0x40U) != 0 ? "Self Powered" : "(Bus Powered)");
  if ((config.bmAttributes & 0x20U) != 0) {
    attributes.Line("Remote Wakeup");
  }
  fields.Field("MaxPower", Format("%umA", MilliAmperes(found)));
  PrintExtra(fields, config.extra, 0);
  for (const auto& settings : config.interfaces) {
    for (const AltSettingModel& setting : settings) {
      PrintAltSetting(fields, found, setting);
    }
  }
}

nlohmann::ordered_json EndpointJson(const EndpointModel& endpoint) {
  return {{"bEndpointAddress", endpoint.bEndpointAddress},
          {"direction", (endpoint.bEndpointAddress & 0x80U) != 0 ? "in" : "out"},
          {"bmAttributes", endpoint.bmAttributes},
          {"transferType", TransferTypeName(endpoint.bmAttributes)},
          {"wMaxPacketSize", endpoint.wMaxPacketSize},
          {"bInterval", endpoint.bInterval},
          {"extra", Hex(endpoint.extra)}};
}

nlohmann::ordered_json AltSettingJson(const Enumeration& found, const AltSettingModel& setting) {
  nlohmann::ordered_json endpoints = nlohmann::ordered_json::array();
  for (const EndpointModel& endpoint : setting.endpoints) {
    endpoints.push_back(EndpointJson(endpoint));
  }
  return {{"bInterfaceNumber", setting.bInterfaceNumber},
          {"bAlternateSetting", setting.bAlternateSetting},
          {"bInterfaceClass", setting.bInterfaceClass},
          {"className", ClassName(setting.bInterfaceClass)},
          {"bInterfaceSubClass", setting.bInterfaceSubClass},
          {"bInterfaceProtocol", setting.bInterfaceProtocol},
          {"iInterface", setting.iInterface},
          {"interface", StringOf(found, setting.iInterface)},
          {"extra", Hex(setting.extra)},
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
          {"configuration", StringOf(found, config.iConfiguration)},
          {"bmAttributes", config.bmAttributes},
          {"maxPowerMilliamperes", MilliAmperes(found)},
          {"extra", Hex(config.extra)},
          {"interfaces", std::move(interfaces)}};
}

}  // namespace

std::string DescriptorText(const Enumeration& found) {
  const DeviceModel& device = found.device;
  std::string out = Format("Bus %03d Device %03d: ID %04x:%04x ", found.bus, found.address, unsigned{device.idVendor},
                           unsigned{device.idProduct}) +
                    StringOf(found, device.iProduct) + "\n";
  FieldPrinter printer(out, 0);
  printer.Heading("Device Descriptor");
  FieldPrinter fields = printer.Inner();
  fields.Number("bLength", device.bLength);
  fields.Number("bDescriptorType", device.bDescriptorType);
  fields.Field("bcdUSB", Bcd(device.bcdUSB));
  fields.Number("bDeviceClass", device.bDeviceClass, ClassName(device.bDeviceClass));
  fields.Number("bDeviceSubClass", device.bDeviceSubClass);
  fields.Number("bDeviceProtocol", device.bDeviceProtocol);
  fields.Number("bMaxPacketSize0", device.bMaxPacketSize0);
  fields.Field("idVendor", Format("0x%04x", unsigned{device.idVendor}));
  fields.Field("idProduct", Format("0x%04x", unsigned{device.idProduct}));
  fields.Field("bcdDevice", Bcd(device.bcdDevice));
  fields.Number("iManufacturer", device.iManufacturer, StringOf(found, device.iManufacturer));
  fields.Number("iProduct", device.iProduct, StringOf(found, device.iProduct));
  fields.Number("iSerial", device.iSerialNumber, StringOf(found, device.iSerialNumber));
  fields.Number("bNumConfigurations", device.bNumConfigurations);
  if (found.config) {
    PrintConfig(fields, found);
  }
  return out;
}

nlohmann::ordered_json DescriptorJson(const Enumeration& found) {
  const DeviceModel& device = found.device;
  return {{"bus", found.bus},
          {"address", found.address},
          {"port", found.port},
          {"speed", SpeedName(found.speed)},
          {"device",
           {{"bcdUSB", Bcd(device.bcdUSB)},
            {"bDeviceClass", device.bDeviceClass},
            {"className", ClassName(device.bDeviceClass)},
            {"bDeviceSubClass", device.bDeviceSubClass},
            {"bDeviceProtocol", device.bDeviceProtocol},
            {"bMaxPacketSize0", device.bMaxPacketSize0},
            {"idVendor", device.idVendor},
            {"idProduct", device.idProduct},
            {"bcdDevice", Bcd(device.bcdDevice)},
            {"iManufacturer", device.iManufacturer},
            {"manufacturer", StringOf(found, device.iManufacturer)},
            {"iProduct", device.iProduct},
            {"product", StringOf(found, device.iProduct)},
            {"iSerialNumber", device.iSerialNumber},
            {"serialNumber", StringOf(found, device.iSerialNumber)},
            {"bNumConfigurations", device.bNumConfigurations}}},
          {"configuration", ConfigJson(found)}};
}

std::string DescriptorSummary(const Enumeration& found) {
  const DeviceModel& device = found.device;
  std::string out =
      Format("%04x:%04x  USB %s, %s speed, class %s\n", unsigned{device.idVendor}, unsigned{device.idProduct},
             Bcd(device.bcdUSB).c_str(), SpeedName(found.speed).data(), ClassName(device.bDeviceClass).data());
  if (!found.config) {
    return out;
  }
  for (const auto& settings : found.config->interfaces) {
    for (const AltSettingModel& setting : settings) {
      out += Format("  interface %u setting %u  %s\n", unsigned{setting.bInterfaceNumber},
                    unsigned{setting.bAlternateSetting}, ClassName(setting.bInterfaceClass).data());
      for (const EndpointModel& endpoint : setting.endpoints) {
        out += Format("    %-8s %-12s %4u bytes\n", EndpointName(endpoint.bEndpointAddress).c_str(),
                      TransferTypeName(endpoint.bmAttributes).data(), endpoint.wMaxPacketSize & 0x7FFU);
      }
    }
  }
  return out;
}

}  // namespace vel
