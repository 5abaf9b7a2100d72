// The serialised configuration, read back as its receivers do.
#include <algorithm>
#include <optional>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "ConfigSerializer.h"
#include "DescriptorTree.h"
#include "remote/ConfigModel.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kReplyCapacity = 16384;

std::optional<ConfigModel> Serialised(const DescriptorTree& tree) {
  VelPacket reply(kReplyCapacity);
  AppendConfig(reply, tree.config);
  EXPECT_EQ(reply.Wire().size(), reply.GetPacketSize()) << "not all of it is in the packet";
  return ReadConfigModel(reply.PayloadBytes());
}

Bytes Extra(std::size_t size, std::uint8_t seed) {
  Bytes bytes(size);
  std::generate(bytes.begin(), bytes.end(),
                [value = seed]() mutable { return value = static_cast<std::uint8_t>(value * 5 + 1); });
  return bytes;
}

TEST(SerialisedConfiguration, HoldsTheWholeTreeAlsoAboveTheReplysCapacity) {
  for (const std::size_t size : {std::size_t{3}, std::size_t{kReplyCapacity - 16 + 1}, std::size_t{200'001}}) {
    SCOPED_TRACE(size);
    const Bytes configExtra = Extra(size, 1);
    const Bytes settingExtra = Extra(size, 2);
    const Bytes endpointExtra = Extra(size, 3);
    DescriptorTree tree;
    DescriptorTree::SetExtra(tree.config, configExtra);
    DescriptorTree::SetExtra(tree.settings[1], settingExtra);
    DescriptorTree::SetExtra(tree.endpoint, endpointExtra);
    const auto config = Serialised(tree);
    ASSERT_TRUE(config);
    EXPECT_EQ(std::tie(config->bLength, config->wTotalLength, config->bConfigurationValue, config->iConfiguration,
                       config->bmAttributes, config->MaxPower),
              std::tuple(9, 34, 2, 6, 0xC0, 25));
    EXPECT_TRUE(config->extra == configExtra);
    ASSERT_THAT(config->interfaces, ElementsAre(SizeIs(2)));
    const AltSettingModel& setting = config->interfaces[0][1];
    EXPECT_EQ(std::tie(setting.bInterfaceNumber, setting.bAlternateSetting, setting.bInterfaceClass,
                       setting.bInterfaceSubClass, setting.bInterfaceProtocol, setting.iInterface),
              std::tuple(3, 1, 0xFF, 0xFE, 0xFD, 8));
    EXPECT_TRUE(setting.extra == settingExtra);
    ASSERT_THAT(setting.endpoints, SizeIs(1));
    const EndpointModel& endpoint = setting.endpoints[0];
    EXPECT_EQ(std::tie(endpoint.bEndpointAddress, endpoint.bmAttributes, endpoint.wMaxPacketSize, endpoint.bInterval,
                       endpoint.bRefresh, endpoint.bSynchAddress),
              std::tuple(0x81, 5, 0x0402, 1, 0xB1, 0xB2));
    EXPECT_TRUE(endpoint.extra == endpointExtra);
  }
}

TEST(SerialisedConfiguration, OfATreeThatContradictsItselfCanBeRead) {
  DescriptorTree tree;
  tree.settings[0].bNumEndpoints = 3;  // At null.
  tree.endpoint.extra_length = 100;    // At null.
  tree.config.extra_length = -1;
  const auto config = Serialised(tree);
  ASSERT_TRUE(config);
  ASSERT_THAT(config->interfaces, ElementsAre(SizeIs(2)));
  EXPECT_THAT(config->interfaces[0][0].endpoints, IsEmpty());
  EXPECT_THAT(config->interfaces[0][1].endpoints[0].extra, IsEmpty());
  EXPECT_THAT(config->extra, IsEmpty());

  for (const int count : {0, -1}) {
    tree.interface.num_altsetting = count;
    const auto settingless = Serialised(tree);
    ASSERT_TRUE(settingless);
    EXPECT_THAT(settingless->interfaces, ElementsAre(IsEmpty()));
  }
  tree.interface.num_altsetting = 2;
  tree.interface.altsetting = nullptr;
  const auto nowhere = Serialised(tree);
  ASSERT_TRUE(nowhere);
  EXPECT_THAT(nowhere->interfaces, ElementsAre(IsEmpty()));
  tree.config.interface = nullptr;
  const auto bare = Serialised(tree);
  ASSERT_TRUE(bare);
  EXPECT_THAT(bare->interfaces, IsEmpty());
}

}  // namespace
}  // namespace vel
