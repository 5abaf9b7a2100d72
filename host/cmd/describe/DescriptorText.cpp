#include "cmd/describe/DescriptorText.h"

#include <cstdlib>

#include "cmd/console/Format.h"
#include "cmd/describe/DecodedDescriptor.h"
#include "cmd/describe/UsbNames.h"

namespace vel {
namespace {

constexpr std::uint8_t kAssociation = 0x0B;        // USB 3.2, table 9-6
constexpr std::uint8_t kEndpointCompanion = 0x30;  // The same.
constexpr std::uint8_t kClassInterface = 0x24;     // CDC 1.2, table 12
constexpr std::uint8_t kCommunications = 0x02;
constexpr int kConfigurationIndent = 4;

std::string EndpointName(std::uint64_t address) {
  return Format("EP %u %s", static_cast<unsigned>(address & 0x0FU), (address & 0x80U) != 0 ? "IN" : "OUT");
}

// Lines of "name value note", indented; value ends in the column that lsusb uses.
class FieldPrinter {
 public:
  explicit FieldPrinter(std::string& out, int indent) : mOut(out), mIndent(static_cast<std::size_t>(indent)) {}

  void Heading(std::string_view text) { Line(std::string(text) + ":"); }
  void Line(const std::string& text) { mOut += std::string(mIndent, ' ') + text + "\n"; }
  // `width` is the column in which the value ends, or negative: before which it begins.
  void Field(std::string_view name, const std::string& value, std::string_view note = "", int width = kWidth) {
    const std::size_t used = name.size() + (width > 0 ? value.size() : 0);
    const auto column = static_cast<std::size_t>(std::abs(width));
    std::string line = std::string(name) + std::string(used < column ? column - used : 1, ' ') + value;
    if (!note.empty()) {
      line += " " + std::string(note);
    }
    Line(line);
  }
  void Number(std::string_view name, unsigned value, std::string_view note = "") {
    Field(name, std::to_string(value), note);
  }
  FieldPrinter Inner(int more = 2) const { return FieldPrinter(mOut, static_cast<int>(mIndent) + more); }
  FieldPrinter At(int indent) const { return FieldPrinter(mOut, indent); }

  static constexpr int kWidth = 25;

 private:
  std::string& mOut;
  const std::size_t mIndent;
};

void PrintDecoded(FieldPrinter printer, const Enumeration& found, const DecodedDescriptor& decoded) {
  FieldPrinter heading = printer.Inner(decoded.table->indent);
  heading.Heading(decoded.table->heading);
  FieldPrinter fields = heading.Inner();
  for (const DecodedField& field : decoded.fields) {
    const std::string note = field.as == As::kString     ? found.StringAt(static_cast<std::uint8_t>(field.number))
                             : field.as == As::kEndpoint ? " " + EndpointName(field.number)
                                                         : std::string(field.note);
    fields.Field(field.name, field.value, note, field.width);
    for (const std::string_view line : field.lines) {
      fields.Inner().Line(std::string(line));
    }
  }
  const std::string rest = decoded.leftover.empty() ? "" : ": " + HexBytes(decoded.leftover);
  if (decoded.cut) {
    fields.Line("Warning: Descriptor too short" + rest);
  } else if (!rest.empty()) {
    fields.Line(std::string(decoded.table->junk) + rest);
  }
}

// USB 3.2, 9.6.7: what it says depends on the endpoint's type.
void PrintCompanion(FieldPrinter fields, std::span<const std::uint8_t> bytes, std::uint8_t endpointAttributes) {
  constexpr std::uint8_t kIsochronous = 1;
  constexpr std::uint8_t kBulk = 2;
  const std::uint8_t type = endpointAttributes & 3U;
  fields.Number("bMaxBurst", bytes[2]);
  if (type == kBulk && (bytes[3] & 0x1FU) != 0) {
    fields.Number("MaxStreams", 1U << (bytes[3] & 0x1FU));
  } else if (type == kIsochronous && (bytes[3] & 3U) != 0) {
    fields.Number("Mult", bytes[3] & 3U);
  }
}

// Descriptors behind one of the standard ones; `endpoint` is that, where it is an endpoint's.
void PrintExtra(FieldPrinter printer, const Enumeration& found, std::span<const std::uint8_t> extra,
                const DescriptorPlace& place, const EndpointModel* endpoint = nullptr) {
  constexpr std::size_t kCompanionBytes = 6;
  for (const std::span<const std::uint8_t> bytes : SplitDescriptors(extra)) {
    extra = extra.subspan(bytes.size());
    if (const auto decoded = Decode(place, bytes)) {
      PrintDecoded(bytes[1] == kAssociation ? printer.At(kConfigurationIndent) : printer, found, *decoded);
    } else if (endpoint != nullptr && bytes[1] == kEndpointCompanion && bytes.size() >= kCompanionBytes) {
      PrintCompanion(printer, bytes, endpoint->bmAttributes);
    } else {
      const bool cdc = bytes[1] == kClassInterface && place.interfaceClass == kCommunications;
      printer.Line((cdc ? "UNRECOGNIZED CDC:  " : "** UNRECOGNIZED:  ") + HexBytes(bytes));
    }
  }
  if (!extra.empty()) {
    printer.Line("** INVALID, with a length that cannot be:  " + HexBytes(extra));
  }
}

void PrintEndpoint(FieldPrinter printer, const Enumeration& found, const AltSettingModel& setting,
                   const EndpointModel& endpoint) {
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
  PrintExtra(fields, found, endpoint.extra, {setting.bInterfaceClass, setting.bInterfaceSubClass, true}, &endpoint);
}

void PrintClass(FieldPrinter fields, const std::string& prefix, std::uint8_t usbClass, std::uint8_t subClass,
                std::uint8_t protocol) {
  fields.Number(prefix + "Class", usbClass, ClassName(usbClass));
  fields.Number(prefix + "SubClass", subClass, SubClassName(usbClass, subClass));
  fields.Number(prefix + "Protocol", protocol, ProtocolName(usbClass, subClass, protocol));
}

void PrintAltSetting(FieldPrinter printer, const Enumeration& found, const AltSettingModel& setting) {
  printer.Heading("Interface Descriptor");
  FieldPrinter fields = printer.Inner();
  fields.Number("bLength", setting.bLength);
  fields.Number("bDescriptorType", setting.bDescriptorType);
  fields.Number("bInterfaceNumber", setting.bInterfaceNumber);
  fields.Number("bAlternateSetting", setting.bAlternateSetting);
  fields.Number("bNumEndpoints", setting.bNumEndpoints);
  PrintClass(fields, "bInterface", setting.bInterfaceClass, setting.bInterfaceSubClass, setting.bInterfaceProtocol);
  fields.Number("iInterface", setting.iInterface, found.StringAt(setting.iInterface));
  PrintExtra(fields, found, setting.extra, {setting.bInterfaceClass, setting.bInterfaceSubClass});
  for (const EndpointModel& endpoint : setting.endpoints) {
    PrintEndpoint(fields, found, setting, endpoint);
  }
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
  fields.Number("iConfiguration", config.iConfiguration, found.StringAt(config.iConfiguration));
  fields.Field("bmAttributes", Format("0x%02x", unsigned{config.bmAttributes}));
  FieldPrinter attributes = fields.Inner();
  attributes.Line((config.bmAttributes & 0x40U) != 0 ? "Self Powered" : "(Bus Powered)");
  if ((config.bmAttributes & 0x20U) != 0) {
    attributes.Line("Remote Wakeup");
  }
  fields.Field("MaxPower", Format("%umA", found.MilliAmperes()), "", FieldPrinter::kWidth + 2);
  PrintExtra(fields, found, config.extra, {});
  for (const auto& settings : config.interfaces) {
    for (const AltSettingModel& setting : settings) {
      PrintAltSetting(fields, found, setting);
    }
  }
}

void PrintCapabilities(FieldPrinter printer, const Enumeration& found) {
  const std::span<const std::uint8_t> bytes = found.capabilities;
  printer.Heading("Binary Object Store Descriptor");
  FieldPrinter fields = printer.Inner();
  fields.Number("bLength", bytes[0]);
  fields.Number("bDescriptorType", bytes[1]);
  fields.Field("wTotalLength", Format("0x%04x", bytes[2] | unsigned{bytes[3]} << 8U));
  fields.Number("bNumDeviceCaps", bytes[4]);
  PrintExtra(fields, found, bytes.subspan(Enumeration::kCapabilitiesHead), {});
}

}  // namespace

std::string DescriptorText(const Enumeration& found) {
  const DeviceModel& device = found.device;
  std::string out = Format("Bus %03d Device %03d: ID %04x:%04x ", found.bus, found.address, unsigned{device.idVendor},
                           unsigned{device.idProduct}) +
                    found.StringAt(device.iProduct) + "\n";
  FieldPrinter printer(out, 0);
  printer.Heading("Device Descriptor");
  FieldPrinter fields = printer.Inner();
  fields.Number("bLength", device.bLength);
  fields.Number("bDescriptorType", device.bDescriptorType);
  fields.Field("bcdUSB", BcdText(device.bcdUSB));
  PrintClass(fields, "bDevice", device.bDeviceClass, device.bDeviceSubClass, device.bDeviceProtocol);
  fields.Number("bMaxPacketSize0", device.bMaxPacketSize0);
  fields.Field("idVendor", Format("0x%04x", unsigned{device.idVendor}));
  fields.Field("idProduct", Format("0x%04x", unsigned{device.idProduct}));
  fields.Field("bcdDevice", BcdText(device.bcdDevice));
  fields.Number("iManufacturer", device.iManufacturer, found.StringAt(device.iManufacturer));
  fields.Number("iProduct", device.iProduct, found.StringAt(device.iProduct));
  fields.Number("iSerial", device.iSerialNumber, found.StringAt(device.iSerialNumber));
  fields.Number("bNumConfigurations", device.bNumConfigurations);
  if (found.config) {
    PrintConfig(fields, found);
  } else if (found.configBroken) {
    fields.Line("** INVALID configuration: it is cut, or counts more than it holds");
  }
  if (!found.capabilities.empty()) {
    PrintCapabilities(printer, found);
  }
  return out;
}

std::string DescriptorSummary(const Enumeration& found) {
  const DeviceModel& device = found.device;
  std::string out =
      Format("%04x:%04x  USB %s, %s speed, class %s\n", unsigned{device.idVendor}, unsigned{device.idProduct},
             BcdText(device.bcdUSB).c_str(), SpeedName(found.speed).data(), ClassName(device.bDeviceClass).data());
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
