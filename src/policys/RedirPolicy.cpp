#include "policys/RedirPolicy.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <limits>
#include <span>
#include <utility>

#include "base/VelLog.h"
#include "policys/UVCUtil.h"
#include "uvc/UvcCodes.h"

namespace vel {
namespace {

// USB 2.0, 9.3: fields of bmRequestType and the request codes that matter here.
constexpr std::uint8_t kTypeMask = 0x60;
constexpr std::uint8_t kTypeStandard = 0x00;
constexpr std::uint8_t kTypeClass = 0x20;
// Bits 1 and 2 only: guests that ask an interface for a device's descriptors are answered, too.
constexpr std::uint8_t kRecipientMask = 0x06;
constexpr std::uint8_t kRecipientEndpoint = 0x02;

constexpr std::uint8_t DescriptorType(std::uint16_t wValue) {
  return static_cast<std::uint8_t>(wValue >> 8U);
}

std::span<std::uint8_t> Data(std::uint8_t* data, std::uint16_t wLength) {
  return {data, data == nullptr ? std::size_t{0} : wLength};
}

int CopyBounded(std::span<const std::uint8_t> bytes, std::uint8_t* data, std::uint16_t wLength) {
  const std::size_t count = data == nullptr ? 0 : std::min<std::size_t>(bytes.size(), wLength);
  std::copy_n(bytes.begin(), count, data);
  return static_cast<int>(count);
}

std::array<std::uint8_t, LIBUSB_DT_DEVICE_SIZE> DeviceDescBytes(const libusb_device_descriptor& desc) {
  const auto low = [](std::uint16_t value) { return static_cast<std::uint8_t>(value); };
  const auto high = [](std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8U); };
  return {desc.bLength,         desc.bDescriptorType, low(desc.bcdUSB),       high(desc.bcdUSB),    desc.bDeviceClass,
          desc.bDeviceSubClass, desc.bDeviceProtocol, desc.bMaxPacketSize0,   low(desc.idVendor),   high(desc.idVendor),
          low(desc.idProduct),  high(desc.idProduct), low(desc.bcdDevice),    high(desc.bcdDevice), desc.iManufacturer,
          desc.iProduct,        desc.iSerialNumber,   desc.bNumConfigurations};
}

// Standard descriptors are written with their standard sizes, whatever a device says of its own length: that many bytes
// lie in libusb's record, and the descriptor that follows has to be found.
class DescriptorWriter {
 public:
  void Standard(std::initializer_list<std::uint8_t> fields) {
    mBytes.push_back(static_cast<std::uint8_t>(fields.size() + 1));
    mBytes.insert(mBytes.end(), fields);
  }
  void Extra(const unsigned char* extra, int length) {
    const std::span bytes(extra, extra == nullptr ? 0U : static_cast<std::size_t>(std::max(length, 0)));
    mBytes.insert(mBytes.end(), bytes.begin(), bytes.end());
  }
  // Extra bytes that a camera's policy may shorten.
  void Extra(const unsigned char* extra, int length, const UVCPolicy& camera) {
    const std::size_t before = mBytes.size();
    Extra(extra, length);
    if (const auto kept = camera.RewriteDescriptors(std::span(mBytes).subspan(before))) {
      mBytes.resize(before + *kept);
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
    writer.Standard(
        {endpoint.bDescriptorType, endpoint.bEndpointAddress, endpoint.bmAttributes, low, high, endpoint.bInterval});
  }
  writer.Extra(endpoint.extra, endpoint.extra_length);
}

void WriteAltSetting(DescriptorWriter& writer, const libusb_interface_descriptor& setting, const UVCPolicy* camera) {
  writer.Standard({setting.bDescriptorType, setting.bInterfaceNumber, setting.bAlternateSetting, setting.bNumEndpoints,
                   setting.bInterfaceClass, setting.bInterfaceSubClass, setting.bInterfaceProtocol,
                   setting.iInterface});
  if (camera != nullptr && setting.bAlternateSetting == 0 && IsVideoStreaming(setting)) {
    writer.Extra(setting.extra, setting.extra_length, *camera);
  } else {
    writer.Extra(setting.extra, setting.extra_length);
  }
  for (int i = 0; i < setting.bNumEndpoints && setting.endpoint != nullptr; ++i) {
    WriteEndpoint(writer, setting.endpoint[i]);
  }
}

}  // namespace

RedirPolicy::RedirPolicy(IUsbIo* io, bool headerLengthCounts, bool newestPictures)
    : mIo(io), mHeaderLengthCounts(headerLengthCounts), mNewestPictures(newestPictures) {
  VEL_DEBUG("ENTER");
}

int RedirPolicy::SetPolicy(const char* policyText) {
  if (policyText != nullptr) {
    mPolicyMap[kUvcClassVideo] = 1;
  }
  return 0;
}

int RedirPolicy::ProbePolicy(const void* /*unused1*/, const void* /*unused2*/) {
  mConfig = mIo->GetConfigDesc();
  if (mConfig == nullptr) {
    VEL_ERROR("GetDeviceconfig: error");
    return -1;
  }
  ProbeCamera();
  mRawConfig = MakeRawConfigDesc(*mConfig, mUvcPolicy.get());
  return 0;
}

void RedirPolicy::ProbeCamera() {
  mUvcPolicy.reset();
  mPolicyInterface = kNoPolicy;
  mPolicyEndpoint = kNoPolicy;
  if (UVCUtil::GetVSInterfaceFromConfig(mConfig) == UVCUtil::kNoInterface) {
    return;
  }
  if (mPolicyMap[kUvcClassVideo] == 1) {
    VEL_DEBUG("Enable UVC policy");
    mUvcPolicy = std::make_unique<UVCPolicy>(mIo, 0, 1, 1, mHeaderLengthCounts, mNewestPictures);
  } else {
    VEL_DEBUG("Disable UVC policy");
    mUvcPolicy = std::make_unique<UVCPolicy>(mIo, 0, 0, 0, mHeaderLengthCounts, mNewestPictures);
  }
  mUvcPolicy->ParseDescriptors(mConfig);
  mPolicyInterface = mUvcPolicy->GetVSInterface();
  mPolicyEndpoint = mUvcPolicy->GetVSEndpoint();
  VEL_DEBUG("Apply UVC policy, Interface[%d], Endpoint[0x%x]", int{mPolicyInterface}, unsigned{mPolicyEndpoint});
}

std::vector<std::uint8_t> RedirPolicy::MakeRawConfigDesc(const libusb_config_descriptor& config,
                                                         const UVCPolicy* camera) {
  DescriptorWriter writer;
  writer.Standard({config.bDescriptorType, static_cast<std::uint8_t>(config.wTotalLength),
                   static_cast<std::uint8_t>(config.wTotalLength >> 8U), config.bNumInterfaces,
                   config.bConfigurationValue, config.iConfiguration, config.bmAttributes, config.MaxPower});
  writer.Extra(config.extra, config.extra_length);
  for (int i = 0; i < config.bNumInterfaces && config.interface != nullptr; ++i) {
    const libusb_interface& interface = config.interface[i];
    for (int j = 0; j < interface.num_altsetting && interface.altsetting != nullptr; ++j) {
      WriteAltSetting(writer, interface.altsetting[j], camera);
    }
  }
  std::vector<std::uint8_t> raw = writer.Take();
  VEL_DEBUG("configDesc wTotalLength = %d, total_if_len = %d", int{config.wTotalLength}, static_cast<int>(raw.size()));
  if (raw.size() > std::numeric_limits<std::uint16_t>::max()) {
    VEL_ERROR("configuration descriptor of %zu bytes is larger than a device can have", raw.size());
    return {};
  }
  // The header counts what is there: a device's own total may be anything.
  raw[2] = static_cast<std::uint8_t>(raw.size());
  raw[3] = static_cast<std::uint8_t>(raw.size() >> 8U);
  return raw;
}

int RedirPolicy::SetInterface(std::uint32_t interfaceNumber, std::uint32_t altSetting) {
  if (mUvcPolicy == nullptr) {
    return -1;
  }
  return IsPolicyInterface(interfaceNumber) ? mUvcPolicy->SetInterface(interfaceNumber, altSetting) : 0;
}

int RedirPolicy::SetInterfacePost(std::uint32_t interfaceNumber, std::uint32_t altSetting) {
  if (mUvcPolicy == nullptr) {
    return -1;
  }
  return IsPolicyInterface(interfaceNumber) ? mUvcPolicy->SetInterfacePost(interfaceNumber, altSetting) : 0;
}

int RedirPolicy::DoTransfer(_UsbIoXferInfo* info) {
  return mUvcPolicy == nullptr ? mIo->IsochTransfer(info) : mUvcPolicy->DoTransfer(info);
}

bool RedirPolicy::CancelTransfer(std::uint32_t localXferId) {
  return mUvcPolicy != nullptr && mUvcPolicy->CancelTransfer(localXferId);
}

void RedirPolicy::Release() {
  if (mUvcPolicy != nullptr) {
    mUvcPolicy->Release();
  }
}

int RedirPolicy::PeekControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                                     std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength) {
  const auto type = static_cast<std::uint8_t>(bmRequestType & kTypeMask);
  if (type != kTypeStandard && type != kTypeClass) {
    return 0;
  }
  if (type == kTypeStandard && bRequest == LIBUSB_REQUEST_GET_DESCRIPTOR &&
      (DescriptorType(wValue) == LIBUSB_DT_DEVICE || DescriptorType(wValue) == LIBUSB_DT_CONFIG) &&
      mIo->GetIoType() == kIoTypeEmulated) {
    return 1;
  }
  if (type == kTypeStandard && bRequest == LIBUSB_REQUEST_CLEAR_FEATURE && bmRequestType == kRecipientEndpoint) {
    const int status = mIo->ClearHalt(wIndex);
    VEL_ERROR("Clear feature status[%d], rt[0x%x], r[0x%x], v[0x%x], i[0x%x]", status, unsigned{bmRequestType},
              unsigned{bRequest}, unsigned{wValue}, unsigned{wIndex});
  }
  if (mUvcPolicy != nullptr) {
    mUvcPolicy->PeekClassControlTransfer({bmRequestType, bRequest, wValue, wIndex, Data(data, wLength)});
  }
  return 0;
}

int RedirPolicy::PeekControlTransferRet(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                                        std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength) {
  if ((bmRequestType & kTypeMask) == kTypeClass && mUvcPolicy != nullptr) {
    mUvcPolicy->PeekClassControlTransferRet({bmRequestType, bRequest, wValue, wIndex, Data(data, wLength)});
  }
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
