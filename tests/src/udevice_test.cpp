// The device over a scripted backend: what it passes on, what it gives back, what it reports.
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "protocol/IsoTable.h"
#include "protocol/Requests.h"
#include "support/CapturingLog.h"
#include "support/RecordingDeviceBase.h"
#include "support/ReplyMatchers.h"
#include "support/ScriptedUsbIo.h"
#include "virt_udevice.h"

namespace vel {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kRealAddress = 0x7F;
constexpr std::uint8_t kEmulatedAddress = 0x80;

// A device at an address, and its two neighbours.
struct TestedDevice {
  explicit TestedDevice(std::uint8_t address) : remote({.address = address}) { device->Init(); }

  // As a handler prepares it: `given` bytes came with the request, what lies behind was never
  // written.
  void* Context(std::uint32_t given = 0) {
    auto* context = static_cast<TransferContext*>(std::calloc(1, sizeof(TransferContext)));
    context->deviceBase = &remote;
    context->device = device.get();
    context->devId = 0x55;
    context->dataGiven = given;
    return context;
  }
  static std::uint8_t* Block(const Bytes& bytes) {
    auto* block = static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(bytes.size(), 1)));
    std::copy(bytes.begin(), bytes.end(), block);
    return block;
  }
  int Bulk(std::uint32_t streamId, const Bytes& data) {
    const auto size = static_cast<std::uint32_t>(data.size());
    return device->BulkTransfer(0x81, streamId, size, Block(data), Context(size));
  }

  RecordingDeviceBase remote;
  ScriptedUsbIo io{remote};
  std::unique_ptr<VirtUDevice> device = std::make_unique<VirtUDevice>(&remote, &ScriptedUsbIo::Create);
};

class Emulated : public ::testing::Test, protected TestedDevice {
 protected:
  Emulated() : TestedDevice(kEmulatedAddress) {}
};

class Real : public ::testing::Test, protected TestedDevice {
 protected:
  Real() : TestedDevice(kRealAddress) {}
};

TEST_F(Real, EndpointZeroIsSaidToTake64BytesForNearlyEveryDevice) {
  for (const auto [maxPacketSize, configurations, expected] :
       {std::array<std::uint8_t, 3>{8, 0x40, 8}, {8, 1, 64}, {8, 0x41, 64}, {16, 0x40, 64}, {64, 1, 64}, {0, 0, 64}}) {
    SCOPED_TRACE(unsigned{maxPacketSize} * 1000 + configurations);
    libusb_device_descriptor desc{};
    desc.bMaxPacketSize0 = maxPacketSize;
    desc.bNumConfigurations = configurations;
    io.Describe(&desc, nullptr);
    EXPECT_EQ(device->GetDevDescript(), &desc);
    EXPECT_EQ(desc.bMaxPacketSize0, expected);
  }
}

TEST_F(Emulated, FailedOpenReportsBothEventsAndStillLooksAtTheConfiguration) {
  const CapturingLog log(OSKELO_LOG_ERROR);
  io.Answer("OpenUsbDev", LIBUSB_ERROR_ACCESS);
  EXPECT_EQ(device->OpenUsbDev(), LIBUSB_ERROR_ACCESS);
  EXPECT_THAT(remote.Events(),
              ElementsAre("LOCAL_CAMERA_CREATE status=error, message=create camera fail, success=false",
                          "LOCAL_CAMERA_CREATE status=success, message=create camera success, success=true"));
  EXPECT_NE(remote.SpanIds()[0], remote.SpanIds()[1]);
  io.Answer("OpenUsbDev", 0);
  device->OpenUsbDev();
  EXPECT_THAT(remote.Events(), SizeIs(3));
  EXPECT_THAT(io.Calls(), ElementsAre("Init", "OpenUsbDev", "GetConfigDesc", "OpenUsbDev", "GetConfigDesc"));
  EXPECT_THAT(log.Messages("OpenUsbDev"), ElementsAre("Error:libusb_open error: -3 - LIBUSB_ERROR_ACCESS "
                                                      "[b=0x03,a=0x80,VID=0xFF00,PID=0xFF06]"));
}

TEST_F(Real, ReportsNoEventsAtAll) {
  io.Answer("OpenUsbDev", LIBUSB_ERROR_IO);
  const CapturingLog log(OSKELO_LOG_OFF);
  device->OpenUsbDev();
  device->SetInterfaceAltSetting(0, 1);
  Bulk(1, {1});
  EXPECT_THAT(remote.Events(), IsEmpty());
  EXPECT_THAT(remote.Replies(), SizeIs(1));
}

TEST_F(Emulated, FirstDataAfterStreamingStartsIsReportedOnce) {
  const std::string opened = "LOCAL_DEVICE_OPEN status=success, message=streamon camera success, success=true";
  const std::string data = "LOCAL_CAMERA_DATA status=success, message=get camera data success, success=true";
  Bulk(1, {1});  // Not streaming yet.
  device->SetInterfaceAltSetting(1, 4);
  Bulk(2, {});  // No data.
  Bulk(3, {1});
  Bulk(4, {1});
  EXPECT_THAT(remote.Events(), ElementsAre(opened, data));
  device->SetInterfaceAltSetting(1, 4);
  device->SetInterfaceAltSetting(1, 0);
  Bulk(5, {1});
  EXPECT_THAT(remote.Events(), ElementsAre(opened, data, opened));
  for (const std::uint32_t failing : {0U, 4U}) {  // Either way the flag is cleared.
    io.Answer("SetInterfaceAltSetting", 0);
    device->SetInterfaceAltSetting(1, 4);
    io.Answer("SetInterfaceAltSetting", LIBUSB_ERROR_PIPE);
    EXPECT_EQ(device->SetInterfaceAltSetting(1, failing), LIBUSB_ERROR_PIPE);
    Bulk(6, {1});
  }
  EXPECT_THAT(remote.Events(), ElementsAre(opened, data, opened, opened, opened));
}

TEST_F(Emulated, CompletedTransferIsGivenBackWithWhatTheBackendLeft) {
  io.HoldTransfers();
  device->BulkTransfer(0x81, 7, 4, Block({9, 9, 9, 9}), Context(4));
  EXPECT_THAT(remote.Replies(), IsEmpty());
  io.CompleteNext({.status = kXferCompleted, .bytes = {{1, 2, 3, 4, 5, 6}}});
  device->InterruptTransfer(0x82, 8, 1, Block({9}), Context(1));
  io.CompleteNext({.status = kXferCompleted, .bytes = {{}}});
  device->IsoTransfer(0x83, 9, 0, 2, Block({8, 9}), Context(2));
  io.CompleteNext({.status = kXferCompleted, .bytes = {}});
  device->BulkTransfer(0x81, 10, 2, Block({9, 9}), Context(2));
  io.CompleteNext({.status = kXferTimedOut, .bytes = {{1, 2}}});  // A failure that kept its data.
  EXPECT_THAT(remote.Replies(),
              ElementsAre(IsBulkReply(7, 0, ElementsAre(1, 2, 3, 4, 5, 6)), IsInterruptReply(8, 0, IsEmpty()),
                          IsIsoReply(9, 0, 0, ElementsAre(8, 9)), IsBulkReply(10, kXferTimedOut, ElementsAre(1, 2))));
  for (const Reply& reply : remote.Replies()) {
    EXPECT_EQ(reply.devId, 0x55U);
  }
}

TEST_F(Emulated, TransferThatFailedIsGivenBackEmptyWhereTheRemoteSideWantsIt) {
  io.HoldTransfers();
  for (const bool wanted : {false, true}) {
    if (wanted) {
      remote.AnswerFailedTransfers();
    }
    Bulk(1, {1, 2});
    device->InterruptTransfer(0x81, 2, 1, Block({1}), Context(1));
    device->IsoTransfer(0x83, 3, 1, 16, Block(Bytes(16)), Context(16));
    for (const std::int32_t status : {2, 4, 5}) {
      ASSERT_TRUE(io.CompleteNext({.status = status, .bytes = {}}));
    }
  }
  EXPECT_THAT(remote.Replies(), ElementsAre(IsBulkReply(1, 2, IsEmpty()), IsInterruptReply(2, 4, IsEmpty()),
                                            IsIsoReply(3, 5, 0, IsEmpty())));
}

TEST_F(Real, RefusedTransferReturnsTheRequestsBytesAndZerosForWhatItDidNotBring) {
  const CapturingLog log(OSKELO_LOG_ERROR);
  for (const char* operation : {"BulkTransfer", "InterruptTransfer", "IsochTransfer"}) {
    io.Answer(operation, LIBUSB_ERROR_NO_DEVICE);
  }
  // 0xAA stands for what a fresh block holds.
  EXPECT_EQ(device->BulkTransfer(0x81, 1, 4, Block({1, 2, 0xAA, 0xAA}), Context(2)), LIBUSB_ERROR_NO_DEVICE);
  EXPECT_EQ(device->InterruptTransfer(0x01, 2, 2, Block({3, 4}), Context(2)), LIBUSB_ERROR_NO_DEVICE);
  Bytes iso(18, 0xAA);
  std::fill_n(iso.begin(), 16, std::uint8_t{7});
  EXPECT_EQ(device->IsoTransfer(0x83, 3, 1, 18, Block(iso), Context(16)), LIBUSB_ERROR_NO_DEVICE);
  Bytes isoBack(18, 7);
  isoBack[16] = isoBack[17] = 0;
  EXPECT_THAT(remote.Replies(),
              ElementsAre(IsBulkReply(1, kXferError, ElementsAre(1, 2, 0, 0)),
                          IsInterruptReply(2, kXferError, ElementsAre(3, 4)), IsIsoReply(3, kXferError, 1, isoBack)));
  EXPECT_THAT(log.Messages(),
              ElementsAre("Error:bulkTransfer error ret[-4] len[4]", "Error:Error submitting interrupt transfer, -4",
                          "Error:Error submitting iso transfer, -4"));
}

TEST_F(Real, PacketTableIsKeptForTheBackendAsFarAsItIsThere) {
  Bytes data(48);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<std::uint8_t>(i);
  }
  device->IsoTransfer(0x03, 1, 2, 48, Block(data), Context(48));
  device->IsoTransfer(0x03, 2, 0, 48, Block(data), Context(48));
  device->IsoTransfer(0x03, 3, 4, 48, Block(data), Context(48));  // 64 bytes of table do not fit.
  const std::vector<ScriptedUsbIo::Submitted> transfers = io.Transfers();
  EXPECT_EQ(transfers[0].isoDescCopy, Bytes(data.begin(), data.begin() + 32));
  EXPECT_THAT(transfers[1].isoDescCopy, IsEmpty());
  EXPECT_THAT(transfers[2].isoDescCopy, IsEmpty());
}

}  // namespace
}  // namespace vel
