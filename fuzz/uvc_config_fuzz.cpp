// The search for the video-streaming interface in a configuration that contradicts itself. Input:
// for each interface a byte of class, a byte of settings and pointers, and the extra bytes of its
// setting and of its endpoint.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "Require.h"
#include "oskelo/log.h"
#include "policys/UVCUtil.h"
#include "protocol/ByteReader.h"

namespace vel {
namespace {

// Counts may be too large for what is there only where the pointer is null, as in libusb.
class Recipe {
 public:
  explicit Recipe(std::span<const std::uint8_t> bytes) : mReader(bytes) {
    while (!mReader.Rest().empty() && mInterfaces.size() < UINT8_MAX) {
      AddInterface();
    }
    mConfig.bNumInterfaces = static_cast<std::uint8_t>(mInterfaces.size());
    mConfig.interface = mInterfaces.data();
  }
  Recipe(const Recipe&) = delete;
  Recipe& operator=(const Recipe&) = delete;

  const libusb_config_descriptor* Get() const { return &mConfig; }

 private:
  void AddInterface() {
    const std::uint8_t kind = mReader.Host<std::uint8_t>();
    const std::uint8_t shape = mReader.Host<std::uint8_t>();
    auto& settings = mSettings.emplace_back(shape % 4U);
    mInterfaces.push_back({(shape & 0x04U) != 0 ? nullptr : settings.data(), static_cast<int>(settings.size())});
    libusb_endpoint_descriptor& endpoint = mEndpoints.emplace_back();
    libusb_interface_descriptor unused{};
    libusb_interface_descriptor& first = settings.empty() ? unused : settings.front();
    first.bInterfaceClass = (kind & 0x0FU) == 0 ? kind : std::uint8_t{14};
    first.bInterfaceSubClass = (kind & 0x10U) != 0 ? kind : std::uint8_t{2};
    first.bNumEndpoints = static_cast<std::uint8_t>(shape >> 3U & 1U);
    first.endpoint = (shape & 0x10U) != 0 ? nullptr : &endpoint;
    SetExtra(first, (shape & 0x20U) != 0);
    SetExtra(endpoint, (shape & 0x40U) != 0);
  }

  template <class Desc>
  void SetExtra(Desc& desc, bool null) {
    const std::uint8_t wanted = mReader.Host<std::uint8_t>();
    const auto bytes = mReader.Bytes(std::min<std::size_t>(wanted, mReader.Rest().size()));
    const auto& kept = mExtras.emplace_back(bytes.begin(), bytes.end());
    desc.extra = null ? nullptr : kept.data();
    desc.extra_length = null ? static_cast<std::int8_t>(wanted) : static_cast<int>(kept.size());
  }

  ByteReader mReader;
  std::deque<std::vector<std::uint8_t>> mExtras;  // Blocks of exactly their sizes.
  std::deque<libusb_endpoint_descriptor> mEndpoints;
  std::deque<std::vector<libusb_interface_descriptor>> mSettings;
  std::vector<libusb_interface> mInterfaces;
  libusb_config_descriptor mConfig{};
};

void Search(const libusb_config_descriptor* config) {
  const std::uint8_t position = UVCUtil::GetVSInterfaceFromConfig(config);
  const std::uint32_t endpoint = UVCUtil::GetVSEndpointFromConfig(config);
  const bool overBulk = UVCUtil::IsStreamOverBulk(config);
  const UVCInputHeaderPtr header = UVCUtil::ParseUVCInputHeader(config);
  Require(position == UVCUtil::kNoInterface || position < config->bNumInterfaces, "an interface is one of those there");
  Require(endpoint == UVCUtil::kNoEndpoint || endpoint <= UINT8_MAX, "an endpoint has an address");
  if (position == UVCUtil::kNoInterface) {
    Require(endpoint == UVCUtil::kNoEndpoint && overBulk && header == nullptr,
            "nothing is found where nothing streams");
  }
  UVCUtil::GetFrameTypeDesc(header.get(), 1, 1);
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  const vel::Recipe recipe(std::span(data, size));
  vel::Search(recipe.Get());
  return 0;
}
