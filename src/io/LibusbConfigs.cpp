#include "io/LibusbConfigs.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <span>
#include <tuple>
#include <utility>

namespace vel {
namespace {

template <typename T>
std::span<const T> Items(const T* items, int count) {
  return {items, items == nullptr || count < 0 ? 0 : static_cast<std::size_t>(count)};
}

bool SameExtra(const unsigned char* a, int aLength, const unsigned char* b, int bLength) {
  return std::ranges::equal(Items(a, aLength), Items(b, bLength));
}

bool Same(const libusb_endpoint_descriptor& a, const libusb_endpoint_descriptor& b) {
  const auto fields = [](const libusb_endpoint_descriptor& endpoint) {
    return std::tie(endpoint.bLength, endpoint.bEndpointAddress, endpoint.bmAttributes, endpoint.wMaxPacketSize,
                    endpoint.bInterval, endpoint.bRefresh, endpoint.bSynchAddress);
  };
  return fields(a) == fields(b) && SameExtra(a.extra, a.extra_length, b.extra, b.extra_length);
}

bool Same(const libusb_interface_descriptor& a, const libusb_interface_descriptor& b) {
  const auto fields = [](const libusb_interface_descriptor& setting) {
    return std::tie(setting.bLength, setting.bInterfaceNumber, setting.bAlternateSetting, setting.bNumEndpoints,
                    setting.bInterfaceClass, setting.bInterfaceSubClass, setting.bInterfaceProtocol,
                    setting.iInterface);
  };
  return fields(a) == fields(b) && SameExtra(a.extra, a.extra_length, b.extra, b.extra_length) &&
         std::ranges::equal(Items(a.endpoint, a.bNumEndpoints), Items(b.endpoint, b.bNumEndpoints),
                            [](const auto& left, const auto& right) { return Same(left, right); });
}

bool Same(const libusb_config_descriptor& a, const libusb_config_descriptor& b) {
  const auto fields = [](const libusb_config_descriptor& config) {
    return std::tie(config.bLength, config.wTotalLength, config.bNumInterfaces, config.bConfigurationValue,
                    config.iConfiguration, config.bmAttributes, config.MaxPower);
  };
  const auto sameInterface = [](const libusb_interface& left, const libusb_interface& right) {
    return std::ranges::equal(Items(left.altsetting, left.num_altsetting),
                              Items(right.altsetting, right.num_altsetting),
                              [](const auto& l, const auto& r) { return Same(l, r); });
  };
  return fields(a) == fields(b) && SameExtra(a.extra, a.extra_length, b.extra, b.extra_length) &&
         std::ranges::equal(Items(a.interface, a.bNumInterfaces), Items(b.interface, b.bNumInterfaces), sameInterface);
}

}  // namespace

libusb_config_descriptor* LibusbConfigs::Keep(LibusbConfigPtr config) {
  const auto kept =
      std::ranges::find_if(mKept, [&config](const LibusbConfigPtr& earlier) { return Same(*earlier, *config); });
  if (kept != mKept.end()) {
    return kept->get();
  }
  try {
    return mKept.emplace_back(std::move(config)).get();
  } catch (const std::exception&) {
    return nullptr;
  }
}

}  // namespace vel
