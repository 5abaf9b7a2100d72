// The serialised configuration, read back as its receivers do.
#include <algorithm>
#include <optional>
#include <vector>

#include <gmock/gmock.h>

#include "ConfigSerializer.h"
#include "DescriptorTree.h"
#include "remote/ConfigModel.h"
#include "support/CapturingLog.h"

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

TEST(SerialisedConfiguration, HoldsTheWholeTree) {
  const Bytes configExtra = Extra(3, 1);
  const Bytes settingExtra = Extra(5, 2);
  const Bytes endpointExtra = Extra(7, 3);
  DescriptorTree tree;
  DescriptorTree::SetExtra(tree.config, configExtra);
  DescriptorTree::SetExtra(tree.settings[1], settingExtra);
  DescriptorTree::SetExtra(tree.endpoint, endpointExtra);
  const auto config = Serialised(tree);
  ASSERT_TRUE(config);
  EXPECT_EQ(config->bLength, 9);
  EXPECT_EQ(config->bDescriptorType, 2);
  EXPECT_EQ(config->wTotalLength, 34);
  EXPECT_EQ(config->bConfigurationValue, 2);
  EXPECT_EQ(config->iConfiguration, 6);
  EXPECT_EQ(config->bmAttributes, 0xC0);
  EXPECT_EQ(config->MaxPower, 25);
  EXPECT_EQ(config->extra, configExtra);
  ASSERT_THAT(config->interfaces, ElementsAre(SizeIs(2)));
  const AltSettingModel& setting = config->interfaces[0][1];
  EXPECT_EQ(setting.bInterfaceNumber, 3);
  EXPECT_EQ(setting.bAlternateSetting, 1);
  EXPECT_EQ(setting.bInterfaceClass, 0xFF);
  EXPECT_EQ(setting.bInterfaceSubClass, 0xFE);
  EXPECT_EQ(setting.bInterfaceProtocol, 0xFD);
  EXPECT_EQ(setting.iInterface, 8);
  EXPECT_EQ(setting.extra, settingExtra);
  ASSERT_THAT(setting.endpoints, SizeIs(1));
  const EndpointModel& endpoint = setting.endpoints[0];
  EXPECT_EQ(endpoint.bEndpointAddress, 0x81);
  EXPECT_EQ(endpoint.bmAttributes, 5);
  EXPECT_EQ(endpoint.wMaxPacketSize, 0x0402);
  EXPECT_EQ(endpoint.bInterval, 1);
  EXPECT_EQ(endpoint.bRefresh, 0xB1);
  EXPECT_EQ(endpoint.bSynchAddress, 0xB2);
  EXPECT_EQ(endpoint.extra, endpointExtra);
}

TEST(SerialisedConfiguration, GrowsForExtraBytesAboveTheReplysCapacity) {
  for (const std::size_t size : {std::size_t{8192}, std::size_t{16384 - 16 + 1}, std::size_t{200'001}}) {
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
    EXPECT_TRUE(config->extra == configExtra);
    EXPECT_TRUE(config->interfaces[0][1].extra == settingExtra);
    EXPECT_TRUE(config->interfaces[0][1].endpoints[0].extra == endpointExtra);
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

TEST(DescriptorRecords, AreNoneForNull) {
  const CapturingLog log;
  EXPECT_EQ(get_vep_desc(nullptr), nullptr);
  EXPECT_EQ(get_vif_desc(nullptr), nullptr);
  EXPECT_EQ(get_vconfig_desc(nullptr), nullptr);
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(DescriptorRecords, OfEndpointsAloneAreLogged) {
  const DescriptorTree tree;
  const CapturingLog log;
  get_vep_desc(&tree.endpoint);
  get_vif_desc(&tree.settings[0]);
  get_vconfig_desc(&tree.config);
  EXPECT_THAT(log.Messages(),
              ElementsAre("Debug:endpoint bLength[7] bDescriptorType[5] bEndpointAddress[129] bmAttributes[5] "
                          "bRefresh[177] bSynchAddress[178] extra_length[0]"));
}

}  // namespace
}  // namespace vel
