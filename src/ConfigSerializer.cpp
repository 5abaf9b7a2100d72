#include "ConfigSerializer.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "base/VelLog.h"

namespace vel {
namespace {

template <class Record>
std::unique_ptr<Record, FreeDeleter> NewRecord() {
  return std::unique_ptr<Record, FreeDeleter>(static_cast<Record*>(std::calloc(1, sizeof(Record))));
}

std::uint32_t ExtraLength(const unsigned char* extra, int length) {
  return extra == nullptr || length < 0 ? 0 : static_cast<std::uint32_t>(length);
}

template <class Record>
void AppendRecord(VelPacket& reply, const Record& record) {
  if (record == nullptr) {
    throw std::bad_alloc();
  }
  reply.Append(record.get(), sizeof *record);
}

// In pieces: one append takes no more than the packet's first capacity.
void AppendExtra(VelPacket& reply, const unsigned char* extra, int length) {
  constexpr std::uint32_t kPiece = 8192;
  for (std::uint32_t rest = ExtraLength(extra, length); rest > 0;) {
    const std::uint32_t piece = std::min(rest, kPiece);
    reply.Append(extra, piece);
    extra += piece;
    rest -= piece;
  }
}

void AppendAltSetting(VelPacket& reply, const libusb_interface_descriptor& setting) {
  AppendRecord(reply, get_vif_desc(&setting));
  for (int i = 0; i < setting.bNumEndpoints && setting.endpoint != nullptr; ++i) {
    AppendRecord(reply, get_vep_desc(&setting.endpoint[i]));
    AppendExtra(reply, setting.endpoint[i].extra, setting.endpoint[i].extra_length);
  }
  AppendExtra(reply, setting.extra, setting.extra_length);
}

}  // namespace

std::unique_ptr<EndpointRecord, FreeDeleter> get_vep_desc(const libusb_endpoint_descriptor* endpoint) {
  auto record = endpoint == nullptr ? nullptr : NewRecord<EndpointRecord>();
  if (record == nullptr) {
    return nullptr;
  }
  record->bLength = endpoint->bLength;
  record->bDescriptorType = endpoint->bDescriptorType;
  record->bEndpointAddress = endpoint->bEndpointAddress;
  record->bmAttributes = endpoint->bmAttributes;
  record->wMaxPacketSize = endpoint->wMaxPacketSize;
  record->bInterval = endpoint->bInterval;
  record->bRefresh = endpoint->bRefresh;
  record->bSynchAddress = endpoint->bSynchAddress;
  record->extraLength = ExtraLength(endpoint->extra, endpoint->extra_length);
  VEL_DEBUG(
      "endpoint bLength[%d] bDescriptorType[%d] bEndpointAddress[%d] bmAttributes[%d] bRefresh[%d] "
      "bSynchAddress[%d] extra_length[%d]\n",
      int{record->bLength}, int{record->bDescriptorType}, int{record->bEndpointAddress}, int{record->bmAttributes},
      int{record->bRefresh}, int{record->bSynchAddress}, static_cast<int>(record->extraLength));
  return record;
}

std::unique_ptr<InterfaceRecord, FreeDeleter> get_vif_desc(const libusb_interface_descriptor* setting) {
  auto record = setting == nullptr ? nullptr : NewRecord<InterfaceRecord>();
  if (record == nullptr) {
    return nullptr;
  }
  record->bLength = setting->bLength;
  record->bDescriptorType = setting->bDescriptorType;
  record->bInterfaceNumber = setting->bInterfaceNumber;
  record->bAlternateSetting = setting->bAlternateSetting;
  record->bNumEndpoints = setting->endpoint == nullptr ? std::uint8_t{0} : setting->bNumEndpoints;
  record->bInterfaceClass = setting->bInterfaceClass;
  record->bInterfaceSubClass = setting->bInterfaceSubClass;
  record->bInterfaceProtocol = setting->bInterfaceProtocol;
  record->iInterface = setting->iInterface;
  record->extraLength = ExtraLength(setting->extra, setting->extra_length);
  return record;
}

std::unique_ptr<ConfigRecord, FreeDeleter> get_vconfig_desc(const libusb_config_descriptor* config) {
  auto record = config == nullptr ? nullptr : NewRecord<ConfigRecord>();
  if (record == nullptr) {
    return nullptr;
  }
  record->bLength = config->bLength;
  record->bDescriptorType = config->bDescriptorType;
  record->wTotalLength = config->wTotalLength;
  record->bNumInterfaces = config->interface == nullptr ? std::uint8_t{0} : config->bNumInterfaces;
  record->bConfigurationValue = config->bConfigurationValue;
  record->iConfiguration = config->iConfiguration;
  record->bmAttributes = config->bmAttributes;
  record->MaxPower = config->MaxPower;
  record->extraLength = ExtraLength(config->extra, config->extra_length);
  return record;
}

void AppendConfig(VelPacket& reply, const libusb_config_descriptor& config) {
  AppendRecord(reply, get_vconfig_desc(&config));
  for (int i = 0; i < config.bNumInterfaces && config.interface != nullptr; ++i) {
    const libusb_interface& interface = config.interface[i];
    const int counted = interface.altsetting == nullptr ? 0 : std::max(interface.num_altsetting, 0);
    const auto settings = static_cast<std::uint32_t>(counted);
    reply.Append(&settings, sizeof settings);
    for (std::uint32_t j = 0; j < settings; ++j) {
      AppendAltSetting(reply, interface.altsetting[j]);
    }
  }
  AppendExtra(reply, config.extra, config.extra_length);
}

}  // namespace vel
