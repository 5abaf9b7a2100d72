#include "policys/RedirPolicy.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "VelLog.h"

namespace vel {
namespace {

// USB 2.0, 9.3: fields of bmRequestType and the request codes that matter here.
constexpr std::uint8_t kTypeMask = 0x60;
constexpr std::uint8_t kTypeStandard = 0x00;
constexpr std::uint8_t kRecipientMask = 0x06;  // Bits 1 and 2 only: an interface recipient passes, as meant.
constexpr std::uint8_t kRecipientEndpoint = 0x02;
constexpr std::uint8_t kClassVideo = 14;

constexpr std::uint8_t DescriptorType(std::uint16_t wValue) { return static_cast<std::uint8_t>(wValue >> 8U); }

int CopyBounded(std::span<const std::uint8_t> bytes, std::uint8_t* data, std::uint16_t wLength) {
  const std::size_t count = data == nullptr ? 0 : std::min<std::size_t>(bytes.size(), wLength);
  if (count > 0) {
    std::memcpy(data, bytes.data(), count);
  }
  return static_cast<int>(count);
}

std::array<std::uint8_t, LIBUSB_DT_DEVICE_SIZE> DeviceDescBytes(const libusb_device_descriptor& desc) {
  const auto low = [](std::uint16_t value) { return static_cast<std::uint8_t>(value); };
  const auto high = [](std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8U); };
  return {desc.bLength,        desc.bDescriptorType, low(desc.bcdUSB),      high(desc.bcdUSB),
          desc.bDeviceClass,   desc.bDeviceSubClass, desc.bDeviceProtocol,  desc.bMaxPacketSize0,
          low(desc.idVendor),  high(desc.idVendor),  low(desc.idProduct),   high(desc.idProduct),
          low(desc.bcdDevice), high(desc.bcdDevice), desc.iManufacturer,    desc.iProduct,
          desc.iSerialNumber,  desc.bNumConfigurations};
}

// Standard descriptors are written with their standard sizes, whatever a device says of its own length: that many
// bytes lie in libusb's record, and the descriptor that follows has to be found.
class DescriptorWriter {
 public:
  void Standard(std::initializer_list<std::uint8_t> fields) {
    mBytes.push_back(static_cast<std::uint8_t>(fields.size() + 1));
    mBytes.insert(mBytes.end(), fields);
  }
  void Extra(const unsigned char* extra, int length) {
    if (extra != nullptr && length > 0) {
      mBytes.insert(mBytes.end(), extra, extra + length);
    }
  }
  std::vector<std::uint8_t> Take() { return std::move(mBytes); }

 private:
  std::vector<std::uint8_t> mBytes;
};

void WriteEndpoint(DescriptorWriter& writer, const libusb_endpoint_descriptor& endpoint) {
  const auto low = static_cast<std::uint8_t>(endpoint.wMaxPacketSize);
  const auto high = static_cast<std::uint8_t>(endpoint.wMaxPacketSize >> 8U);
  if (endpoint.bLength >= LIBUSB_DT_ENDPOINT_AUDIO_SIZE) {
    writer.Standard({endpoint.bDescriptorType, endpoint.bEndpointAddress, endpoint.bmAttributes, low, high,
                     endpoint.bInterval, endpoint.bRefresh, endpoint.bSynchAddress});
  } else {
    writer.Standard({endpoint.bDescriptorType, endpoint.bEndpointAddress, endpoint.bmAttributes, low, high,
                     endpoint.bInterval});
  }
  writer.Extra(endpoint.extra, endpoint.extra_length);
}

void WriteAltSetting(DescriptorWriter& writer, const libusb_interface_descriptor& setting) {
  writer.Standard({setting.bDescriptorType, setting.bInterfaceNumber, setting.bAlternateSetting,
                   setting.bNumEndpoints, setting.bInterfaceClass, setting.bInterfaceSubClass,
                   setting.bInterfaceProtocol, setting.iInterface});
  writer.Extra(setting.extra, setting.extra_length);
  for (int i = 0; i < setting.bNumEndpoints && setting.endpoint != nullptr; ++i) {
    WriteEndpoint(writer, setting.endpoint[i]);
  }
}

}  // namespace

RedirPolicy::RedirPolicy(IUsbIo* io) : mIo(io) { VEL_DEBUG("ENTER"); }

int RedirPolicy::SetPolicy(const char* policyText) {
  if (policyText != nullptr) {
    mPolicyMap[kClassVideo] = 1;
  }
  return 0;
}

int RedirPolicy::ProbePolicy(const void* /*unused1*/, const void* /*unused2*/) {
  mConfig = mIo->GetConfigDesc();
  if (mConfig == nullptr) {
    VEL_ERROR("GetDeviceconfig: error");
    return -1;
  }
  mRawConfig = MakeRawConfigDesc(*mConfig);
  return 0;
}

std::vector<std::uint8_t> RedirPolicy::MakeRawConfigDesc(const libusb_config_descriptor& config) {
  DescriptorWriter writer;
  writer.Standard({config.bDescriptorType, static_cast<std::uint8_t>(config.wTotalLength),
                   static_cast<std::uint8_t>(config.wTotalLength >> 8U), config.bNumInterfaces,
                   config.bConfigurationValue, config.iConfiguration, config.bmAttributes, config.MaxPower});
  writer.Extra(config.extra, config.extra_length);
  for (int i = 0; i < config.bNumInterfaces && config.interface != nullptr; ++i) {
    const libusb_interface& interface = config.interface[i];
    for (int j = 0; j < interface.num_altsetting && interface.altsetting != nullptr; ++j) {
      WriteAltSetting(writer, interface.altsetting[j]);
    }
  }
  std::vector<std::uint8_t> raw = writer.Take();
  VEL_DEBUG("configDesc wTotalLength = %d, total_if_len = %d", int{config.wTotalLength},
            static_cast<int>(raw.size()));
  if (raw.size() > std::numeric_limits<std::uint16_t>::max()) {
    VEL_ERROR("configuration descriptor of %zu bytes is larger than a device can have", raw.size());
    return {};
  }
  // The header counts what is there: a device's own total may be anything.
  raw[2] = static_cast<std::uint8_t>(raw.size());
  raw[3] = static_cast<std::uint8_t>(raw.size() >> 8U);
  return raw;
}

int RedirPolicy::SetInterface(std::uint32_t /*interfaceNumber*/, std::uint32_t /*altSetting*/) { return -1; }

int RedirPolicy::SetInterfacePost(std::uint32_t /*interfaceNumber*/, std::uint32_t /*altSetting*/) { return -1; }

int RedirPolicy::DoTransfer(_UsbIoXferInfo* info) { return mIo->IsochTransfer(info); }

void RedirPolicy::Release() {}

int RedirPolicy::PeekControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                                     std::uint16_t wIndex, std::uint8_t* /*data*/, std::uint16_t /*wLength*/) {
  if ((bmRequestType & kTypeMask) != kTypeStandard) {
    return 0;
  }
  if (bRequest == LIBUSB_REQUEST_GET_DESCRIPTOR &&
      (DescriptorType(wValue) == LIBUSB_DT_DEVICE || DescriptorType(wValue) == LIBUSB_DT_CONFIG) &&
      mIo->GetIoType() == kIoTypeEmulated) {
    return 1;
  }
  if (bRequest == LIBUSB_REQUEST_CLEAR_FEATURE && bmRequestType == kRecipientEndpoint) {
    const int status = mIo->ClearHalt(wIndex);
    VEL_ERROR("Clear feature status[%d], rt[0x%x], r[0x%x], v[0x%x], i[0x%x]", status, unsigned{bmRequestType},
              unsigned{bRequest}, unsigned{wValue}, unsigned{wIndex});
  }
  return 0;
}

int RedirPolicy::PeekControlTransferRet(std::uint8_t /*bmRequestType*/, std::uint8_t /*bRequest*/,
                                        std::uint16_t /*wValue*/, std::uint16_t /*wIndex*/,
                                        std::uint8_t* /*data*/, std::uint16_t /*wLength*/) {
  return 0;
}

int RedirPolicy::GetVirtControlData(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                                    std::uint16_t /*wIndex*/, std::uint8_t* data, std::uint16_t wLength) {
  if ((bmRequestType & kRecipientMask) != 0 || bRequest != LIBUSB_REQUEST_GET_DESCRIPTOR) {
    return 0;
  }
  if (DescriptorType(wValue) == LIBUSB_DT_CONFIG) {
    return CopyBounded(mRawConfig, data, wLength);
  }
  if (DescriptorType(wValue) == LIBUSB_DT_DEVICE) {
    const libusb_device_descriptor* desc = mIo->GetDeviceDesc();
    return desc == nullptr ? 0 : CopyBounded(DeviceDescBytes(*desc), data, wLength);
  }
  return 0;
}

}  // namespace vel
