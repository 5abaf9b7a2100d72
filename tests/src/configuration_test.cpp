// A configuration in libusb's layout, serialised for the remote side and rebuilt for the guest.
#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

#include <gmock/gmock.h>

#include "ConfigSerializer.h"
#include "io/NullUsbIo.h"
#include "policys/RedirPolicy.h"
#include "remote/ConfigModel.h"
#include "support/CapturingLog.h"
#include "support/DescriptorTree.h"
#include "support/RecordingDeviceBase.h"
#include "support/ScriptedUsbIo.h"
#include "support/VsBlock.h"

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

TEST(Configuration, HidesACamerasTallFrames) {
  DescriptorTree tree;
  const VsBlock block("yuyv 480 1080 still color");
  const VsBlock cut("yuyv 480 still color");
  tree.BeCamera(block.bytes);
  DescriptorTree::SetExtra(tree.settings[1], block.bytes);  // Not looked at.
  NullUsbIo io;
  for (const std::uint32_t limit : {0U, 720U}) {
    const UVCPolicy camera(&io, limit, 0, 0);
    const Bytes raw = RedirPolicy::MakeRawConfigDesc(tree.config, &camera);
    const Bytes& first = limit == 0 ? block.bytes : cut.bytes;
    ASSERT_THAT(raw, SizeIs(9 + 9 + first.size() + 9 + block.bytes.size() + 7));
    EXPECT_EQ(raw[2] + 256U * raw[3], raw.size());
    EXPECT_EQ(Bytes(raw.begin() + 18, raw.begin() + 18 + static_cast<std::ptrdiff_t>(first.size())), first);
  }
}

// Which requests the policy answers for an emulated device, and what happens to those of a device without a camera.
TEST(RedirPolicy, AnswersTheDescriptorRequestsOfEmulatedDevices) {
  DescriptorTree tree;
  RecordingDeviceBase remote;
  ScriptedUsbIo io(remote);
  for (const std::uint8_t ioType : {kIoTypeEmulated, kIoTypeLibusb}) {
    const std::unique_ptr<IUsbIo> backend(ScriptedUsbIo::Create(ioType, &remote));
    RedirPolicy policy(backend.get());
    io.Describe(nullptr);
    EXPECT_EQ(policy.ProbePolicy(nullptr, nullptr), -1);
    io.Describe(&tree.config);
    ASSERT_EQ(policy.ProbePolicy(nullptr, nullptr), 0);
    EXPECT_EQ(policy.SetInterface(3, 1), -1);
    EXPECT_EQ(policy.SetInterfacePost(3, 1), -1);
    EXPECT_EQ(policy.SetPolicy("any"), 0);
    const struct {
      std::uint8_t type, request;
      std::uint16_t value, length;
      int peek, bytes;
    } rows[] = {{0x80, 6, 0x0200, 255, 1, 34}, {0x80, 6, 0x0200, 9, 1, 9},    {0x81, 6, 0x0200, 255, 1, 34},
                {0x82, 6, 0x0200, 255, 1, 0},  {0x84, 6, 0x0200, 255, 1, 0},  {0x80, 6, 0x0300, 255, 0, 0},
                {0x80, 8, 0x0200, 255, 0, 0},  {0xA0, 6, 0x0200, 255, 0, 34}, {0xC0, 6, 0x0200, 255, 0, 34},
                {0x80, 6, 0x0100, 255, 1, 0}};
    for (const auto& row : rows) {
      SCOPED_TRACE(::testing::Message() << +row.type << " " << +row.request << " " << row.value);
      Bytes data(255);
      EXPECT_EQ(policy.PeekControlTransfer(row.type, row.request, row.value, 0, data.data(), row.length),
                ioType == kIoTypeEmulated ? row.peek : 0);
      EXPECT_EQ(policy.GetVirtControlData(row.type, row.request, row.value, 0, data.data(), row.length), row.bytes);
      EXPECT_EQ(policy.PeekControlTransferRet(row.type, row.request, row.value, 0, data.data(), row.length), 0);
    }
    EXPECT_EQ(policy.GetVirtControlData(0x80, 6, 0x0200, 0, nullptr, 9), 0);
    EXPECT_EQ(policy.PeekControlTransfer(0x02, 1, 0, 0x81, nullptr, 0), 0);
    EXPECT_EQ(policy.PeekControlTransfer(0x02, 3, 0, 0x82, nullptr, 0), 0);
    EXPECT_EQ(policy.PeekControlTransfer(0x00, 1, 0, 0x83, nullptr, 0), 0);
    EXPECT_EQ(io.Calls().back(), "ClearHalt 129") << "a halt is cleared here, too";
  }
}

TEST(Configuration, OfMoreThan64KiBIsNotRebuilt) {
  DescriptorTree tree;
  const Bytes extra(0xFFFF - 34 + 1);
  DescriptorTree::SetExtra(tree.settings[0], extra);
  const CapturingLog log(OSKELO_LOG_ERROR);
  EXPECT_THAT(RedirPolicy::MakeRawConfigDesc(tree.config, nullptr), IsEmpty());
  --tree.settings[0].extra_length;
  EXPECT_THAT(RedirPolicy::MakeRawConfigDesc(tree.config, nullptr), SizeIs(0xFFFF));
}

}  // namespace
}  // namespace vel
