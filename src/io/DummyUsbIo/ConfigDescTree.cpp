#include "io/DummyUsbIo/ConfigDescTree.h"

namespace vel {
namespace {

// Extra bytes of one descriptor lie together, since nothing but extra bytes stands between them.
template <class Desc>
void Extend(Desc& desc, std::span<const std::uint8_t> bytes) {
  if (desc.extra == nullptr) {
    desc.extra = bytes.data();
  }
  desc.extra_length += static_cast<int>(bytes.size());
}

}  // namespace

ConfigDescTree::ConfigDescTree(std::span<const std::uint8_t> bytes) : mBytes(bytes.begin(), bytes.end()) {
  std::span<const std::uint8_t> rest(mBytes);
  while (rest.size() >= 2 && rest[0] >= 2 && rest[0] <= rest.size()) {
    Add(rest.first(rest[0]));
    rest = rest.subspan(rest[0]);
  }
  Link();
}

void ConfigDescTree::Add(std::span<const std::uint8_t> descriptor) {
  const bool first = descriptor.data() == mBytes.data();  // A later configuration would part extra bytes.
  if (first && descriptor[1] == LIBUSB_DT_CONFIG && descriptor.size() >= LIBUSB_DT_CONFIG_SIZE) {
    mConfig.bLength = descriptor[0];
    mConfig.bDescriptorType = descriptor[1];
    mConfig.wTotalLength = static_cast<std::uint16_t>(descriptor[2] | (descriptor[3] << 8U));
    mConfig.bConfigurationValue = descriptor[5];
    mConfig.iConfiguration = descriptor[6];
    mConfig.bmAttributes = descriptor[7];
    mConfig.MaxPower = descriptor[8];
  } else if (descriptor[1] == LIBUSB_DT_INTERFACE && descriptor.size() >= LIBUSB_DT_INTERFACE_SIZE) {
    if (mInterfaces.empty() || mInterfaces.back().number != descriptor[2]) {
      mInterfaces.emplace_back().number = descriptor[2];
    }
    FillInterfaceDesc(mInterfaces.back().altSettings.emplace_back().desc, descriptor[2], descriptor[3], descriptor[4],
                      descriptor[5], descriptor[6], descriptor[7], descriptor[8]);
  } else if (descriptor[1] == LIBUSB_DT_ENDPOINT && descriptor.size() >= LIBUSB_DT_ENDPOINT_SIZE &&
             !mInterfaces.empty()) {
    const EndpointPtr endpoint = CreateEndpiontDesc(
        descriptor[2], descriptor[3], static_cast<std::uint16_t>(descriptor[4] | (descriptor[5] << 8U)), descriptor[6]);
    if (endpoint != nullptr) {
      mInterfaces.back().altSettings.back().endpoints.push_back(*endpoint);
    }
  } else {
    AddExtra(descriptor);
  }
}

void ConfigDescTree::AddExtra(std::span<const std::uint8_t> descriptor) {
  if (mInterfaces.empty()) {
    Extend(mConfig, descriptor);
    return;
  }
  AltSetting& setting = mInterfaces.back().altSettings.back();
  if (setting.endpoints.empty()) {
    Extend(setting.desc, descriptor);
  } else {
    Extend(setting.endpoints.back(), descriptor);
  }
}

void ConfigDescTree::Link() {
  for (Interface& interface : mInterfaces) {
    for (AltSetting& setting : interface.altSettings) {
      setting.desc.bNumEndpoints = static_cast<std::uint8_t>(setting.endpoints.size());
      setting.desc.endpoint = setting.endpoints.data();
      interface.records.push_back(setting.desc);
    }
    mInterfaceRecords.push_back({interface.records.data(), static_cast<int>(interface.records.size())});
  }
  mConfig.bNumInterfaces = static_cast<std::uint8_t>(mInterfaces.size());
  mConfig.interface = mInterfaceRecords.data();
}

}  // namespace vel
