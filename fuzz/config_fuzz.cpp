// Configurations that contradict themselves, from the device to the remote side. Input: taken as a serialised
// configuration, which is read and printed; and as the recipe of a configuration in libusb's layout, which is
// serialised and read back, rebuilt by the policy, and searched for a streaming camera.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <span>
#include <vector>

#include "ConfigSerializer.h"
#include "Require.h"
#include "cmd/describe/DescriptorText.h"
#include "io/NullUsbIo.h"
#include "oskelo/log.h"
#include "policys/RedirPolicy.h"
#include "policys/UVCUtil.h"
#include "protocol/ByteReader.h"
#include "remote/ConfigModel.h"

namespace vel {
namespace {

using Input = std::span<const std::uint8_t>;

// A configuration whose counts, pointers and extra bytes need not fit each other, beyond what libusb's callers may
// read: a count that is too large comes with a null pointer, never with a short array.
class HostileConfig {
 public:
  explicit HostileConfig(Input recipe) : mReader(recipe) {
    Fields(mConfig, &libusb_config_descriptor::bLength, &libusb_config_descriptor::bDescriptorType,
           &libusb_config_descriptor::bConfigurationValue, &libusb_config_descriptor::iConfiguration,
           &libusb_config_descriptor::bmAttributes, &libusb_config_descriptor::MaxPower);
    mConfig.wTotalLength = mReader.Host<std::uint16_t>();
    Extra(mConfig);
    mConfig.bNumInterfaces = mReader.Host<std::uint8_t>();
    if (Array<libusb_interface>& interfaces = New(mInterfaces, mConfig.bNumInterfaces); !interfaces.empty()) {
      std::for_each(interfaces.begin(), interfaces.end(), [this](auto& interface) { Fill(interface); });
      mConfig.interface = interfaces.data();
    }
  }
  HostileConfig(const HostileConfig&) = delete;
  HostileConfig& operator=(const HostileConfig&) = delete;

  libusb_config_descriptor& Get() { return mConfig; }

 private:
  template <class Desc>
  using Array = std::vector<Desc>;

  // An array that stays where it is; empty, for a null pointer, when the recipe says so or is at its end.
  template <class Desc>
  Array<Desc>& New(std::deque<Array<Desc>>& arrays, std::size_t count) {
    const bool null = mReader.Rest().empty() || mReader.Host<std::uint8_t>() % 8 == 7;
    return arrays.emplace_back(null ? 0 : count);
  }
  int Signed() {
    const int byte = mReader.Host<std::uint8_t>();
    return byte < 128 ? byte : byte - 256;
  }
  template <class Desc, class... Members>
  void Fields(Desc& desc, Members... members) {
    ((desc.*members = mReader.Host<std::uint8_t>()), ...);
  }
  template <class Desc>
  void Extra(Desc& desc) {
    const int length = Signed();
    desc.extra_length = length;  // Of nothing, or negative.
    if (length > 0 && mReader.Rest().size() >= static_cast<std::size_t>(length)) {
      desc.extra = mReader.Bytes(static_cast<std::size_t>(length)).data();
    }
  }
  void Fill(libusb_interface& interface) {
    interface.num_altsetting = Signed();
    auto& settings = New(mSettings, static_cast<std::size_t>(std::max(interface.num_altsetting, 1)));
    if (!settings.empty()) {
      std::for_each(settings.begin(), settings.end(), [this](auto& setting) { Fill(setting); });
      interface.altsetting = settings.data();
    }
  }
  void Fill(libusb_interface_descriptor& setting) {
    using Desc = libusb_interface_descriptor;
    Fields(setting, &Desc::bLength, &Desc::bDescriptorType, &Desc::bInterfaceNumber, &Desc::bAlternateSetting,
           &Desc::bNumEndpoints, &Desc::bInterfaceClass, &Desc::bInterfaceSubClass, &Desc::bInterfaceProtocol,
           &Desc::iInterface);
    Extra(setting);
    if (auto& endpoints = New(mEndpoints, setting.bNumEndpoints); !endpoints.empty()) {
      std::for_each(endpoints.begin(), endpoints.end(), [this](auto& endpoint) { Fill(endpoint); });
      setting.endpoint = endpoints.data();
    }
  }
  void Fill(libusb_endpoint_descriptor& endpoint) {
    using Desc = libusb_endpoint_descriptor;
    Fields(endpoint, &Desc::bLength, &Desc::bDescriptorType, &Desc::bEndpointAddress, &Desc::bmAttributes,
           &Desc::bInterval, &Desc::bRefresh, &Desc::bSynchAddress);
    endpoint.wMaxPacketSize = mReader.Host<std::uint16_t>();
    Extra(endpoint);
  }

  ByteReader mReader;
  std::deque<Array<libusb_interface>> mInterfaces;
  std::deque<Array<libusb_interface_descriptor>> mSettings;
  std::deque<Array<libusb_endpoint_descriptor>> mEndpoints;
  libusb_config_descriptor mConfig{};
};

void SerialiseAndRead(const libusb_config_descriptor& config) {
  constexpr std::uint32_t kReplyCapacity = 16384;
  VelPacket reply(kReplyCapacity);
  AppendConfig(reply, config);
  Require(reply.Wire().size() == reply.GetPacketSize(), "the reply holds the whole configuration");
  const auto model = ReadConfigModel(reply.PayloadBytes());
  Require(model.has_value(), "what was serialised can be read");
  const bool null = config.interface == nullptr;
  Require(model->interfaces.size() == (null ? 0U : config.bNumInterfaces), "every interface was serialised");
}

// A device with this configuration.
class ConfiguredIo final : public NullUsbIo {
 public:
  explicit ConfiguredIo(libusb_config_descriptor& config) : mConfig(config) {}
  libusb_config_descriptor* GetConfigDesc() override { return &mConfig; }
  std::uint8_t GetIoType() override { return kIoTypeEmulated; }

 private:
  libusb_config_descriptor& mConfig;
};

void Rebuild(libusb_config_descriptor& config) {
  ConfiguredIo io(config);
  RedirPolicy policy(&io);
  policy.ProbePolicy(nullptr, nullptr);
  std::array<std::uint8_t, UINT16_MAX> raw{};
  const int length =
      policy.GetVirtControlData(0x80, LIBUSB_REQUEST_GET_DESCRIPTOR, LIBUSB_DT_CONFIG << 8U, 0, raw.data(), raw.size());
  Require(length == 0 || (length >= LIBUSB_DT_CONFIG_SIZE && raw[2] + raw[3] * 256 == length),
          "the rebuilt descriptor counts its own bytes");
}

void SearchForStreaming(const libusb_config_descriptor& descriptor) {
  const libusb_config_descriptor* config = &descriptor;
  const std::uint8_t position = UVCUtil::GetVSInterfaceFromConfig(config);
  const std::uint32_t endpoint = UVCUtil::GetVSEndpointFromConfig(config);
  UVCUtil::IsStreamOverBulk(config);
  const UVCInputHeaderPtr header = UVCUtil::ParseUVCInputHeader(config);
  Require(position == UVCUtil::kNoInterface || position < config->bNumInterfaces, "an interface is one of those there");
  Require(endpoint == UVCUtil::kNoEndpoint || endpoint <= UINT8_MAX, "an endpoint has an address");
  UVCUtil::GetFrameTypeDesc(header.get(), 1, 1);
}

void ReadAndPrint(Input input) {
  Enumeration found;
  found.config = ReadConfigModel(input);
  const bool whole = found.config.has_value();
  Require(whole == DescriptorJson(found)["configuration"].is_object(), "a configuration is printed when it is whole");
  Require(!DescriptorText(found).empty() && !DescriptorSummary(found).empty(), "every device has a text");
  if (input.size() < Enumeration::kCapabilitiesHead) {
    return;
  }
  // The same bytes as class-specific descriptors of any class, and as capabilities.
  AltSettingModel setting;
  setting.bInterfaceClass = input[0];
  setting.bInterfaceSubClass = input[1];
  setting.extra.assign(input.begin() + 2, input.end());
  found.config.emplace().interfaces = {{setting}};
  found.capabilities.assign(input.begin(), input.end());
  Require(DescriptorJson(found)["capabilities"].is_array(), "capabilities are printed");
  Require(DescriptorText(found).find("Binary Object Store") != std::string::npos, "capabilities have a text");
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  const std::span input(data, size);
  vel::ReadAndPrint(input);
  vel::HostileConfig config(input);
  vel::SerialiseAndRead(config.Get());
  vel::Rebuild(config.Get());
  vel::SearchForStreaming(config.Get());
  return 0;
}
