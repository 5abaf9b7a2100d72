// A configuration in libusb's layout, serialised for the remote side and rebuilt for the guest.
#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

#include <gmock/gmock.h>

#include "ConfigSerializer.h"
#include "policys/RedirPolicy.h"
#include "remote/ConfigModel.h"
#include "support/CapturingLog.h"
#include "support/DescriptorTree.h"
#include "support/RecordingDeviceBase.h"
#include "support/ScriptedUsbIo.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kReplyCapacity = 16384;

// Read back as its receivers do.
std::optional<ConfigModel> Serialised(const DescriptorTree& tree) {
  VelPacket reply(kReplyCapacity);
  AppendConfig(reply, tree.config);
  EXPECT_EQ(reply.Wire().size(), reply.GetPacketSize()) << "not all of it is in the packet";
  return ReadConfigModel(reply.PayloadBytes());
}

// The configuration descriptor that an emulated device answers after an open.
Bytes Rebuilt(const DescriptorTree& tree) {
  RecordingDeviceBase remote;
  ScriptedUsbIo io(remote);
  const std::unique_ptr<IUsbIo> backend(ScriptedUsbIo::Create(kIoTypeEmulated, &remote));
  libusb_config_descriptor config = tree.config;
  io.Describe(&config);
  RedirPolicy policy(backend.get());
  EXPECT_EQ(policy.ProbePolicy(nullptr, nullptr), 0);
  Bytes data(0xFFFF, 0xEE);
  const int size = policy.GetVirtControlData(0x80, 6, 0x0200, 0, data.data(), 0xFFFF);
  data.resize(static_cast<std::size_t>(size));
  return data;
}

TEST(Configuration, IsSerialisedWholeAlsoAboveTheReplysCapacity) {
  for (const std::size_t size : {std::size_t{3}, std::size_t{kReplyCapacity - 16 + 1}, std::size_t{200'001}}) {
    SCOPED_TRACE(size);
    std::vector<Bytes> extras(3, Bytes(size));
    for (std::size_t i = 0; i < extras.size(); ++i) {
      std::ranges::generate(extras[i], [value = i]() mutable { return static_cast<std::uint8_t>(value += 5); });
    }
    DescriptorTree tree;
    DescriptorTree::SetExtra(tree.config, extras[0]);
    DescriptorTree::SetExtra(tree.settings[1], extras[1]);
    DescriptorTree::SetExtra(tree.endpoint, extras[2]);
    const auto config = Serialised(tree);
    ASSERT_TRUE(config);
    EXPECT_TRUE(config->extra == extras[0]);
    ASSERT_THAT(config->interfaces, ElementsAre(SizeIs(2)));
    EXPECT_TRUE(config->interfaces[0][1].extra == extras[1]);
    ASSERT_THAT(config->interfaces[0][1].endpoints, SizeIs(1));
    const EndpointModel& endpoint = config->interfaces[0][1].endpoints[0];
    EXPECT_EQ(endpoint.wMaxPacketSize, 0x0402);
    EXPECT_EQ(endpoint.bSynchAddress, 0xB2);
    EXPECT_TRUE(endpoint.extra == extras[2]);
  }
}

TEST(Configuration, OfMoreThan64KiBIsNotRebuilt) {
  DescriptorTree tree;
  const Bytes extra(0xFFFF - 34 + 1);
  DescriptorTree::SetExtra(tree.settings[0], extra);
  const CapturingLog log(OSKELO_LOG_ERROR);
  EXPECT_THAT(Rebuilt(tree), IsEmpty());
  --tree.settings[0].extra_length;
  EXPECT_THAT(Rebuilt(tree), SizeIs(0xFFFF));
}

}  // namespace
}  // namespace vel
