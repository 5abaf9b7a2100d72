// What the emulated devices owe their submitter and a remote side cannot see.
#include <array>
#include <memory>
#include <vector>

#include <gmock/gmock.h>

#include "io/IVirtUsbIoFactory.h"
#include "protocol/IsoTable.h"
#include "support/Completions.h"
#include "support/RecordingDeviceBase.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using Done = Completions::Done;

constexpr std::uint16_t kKeyboard = 0xFF01;
constexpr std::uint16_t kCh9102 = 0xFF04;
constexpr std::uint16_t kRaw = 0xFF06;

class EmulatedDevice : public ::testing::TestWithParam<std::uint16_t> {
 protected:
  EmulatedDevice() : remote({.productId = GetParam()}), io(CreateUsbIo(1, &remote)) { io->Init(); }

  void SubmitInterrupt(std::uint32_t streamId) {
    EXPECT_EQ(io->InterruptTransfer(completions.Record(0x81, streamId, 8)), 0);
  }

  RecordingDeviceBase remote;
  Completions completions;
  std::unique_ptr<IUsbIo> io;
};

TEST_P(EmulatedDevice, TakesANullRecordANullBufferAndNoCallback) {
  for (const auto transfer : {&IUsbIo::BulkTransfer, &IUsbIo::InterruptTransfer, &IUsbIo::IsochTransfer}) {
    EXPECT_EQ((io.get()->*transfer)(nullptr), 0);
    XferPtr info = MakeXfer();
    info->epAddr = 0x81;
    (io.get()->*transfer)(info.release());  // Freed.
  }
  for (const auto operation : {&IUsbIo::ResetDevice, &IUsbIo::AttachKernelDriver, &IUsbIo::DetachKernelDriver,
                               &IUsbIo::ReleaseAllInterface, &IUsbIo::ClaimAllInterface}) {
    EXPECT_EQ((io.get()->*operation)(), 0);
  }
  EXPECT_EQ(io->GetStringDescriptor(1, 0, nullptr, 255), 0);
  EXPECT_EQ(io->ControlTransfer(0x80, 6, 0x0300, 0, nullptr, 0, 0), 0);
}

INSTANTIATE_TEST_SUITE_P(All, EmulatedDevice, ::testing::Values(0xFF01, 0xFF02, 0xFF03, 0xFF04, 0xFF05, 0xFF06));

using SilentEndpoint = EmulatedDevice;

TEST_P(SilentEndpoint, CancelsTheLatestOfATransferAndLeavesTheOthers) {
  SubmitInterrupt(1);
  SubmitInterrupt(7);
  _UsbIoXferInfo* latest = completions.Record(0x81, 7, 8);
  latest->streamId = 70;  // Tells the two apart; the id for cancelling is the same.
  io->InterruptTransfer(latest);
  SubmitInterrupt(2);
  for (const std::uint32_t id : {99U, 7U, 7U, 7U}) {
    EXPECT_EQ(io->CancelTransfer(id), 0);
  }
  EXPECT_THAT(completions.done.Take(), ElementsAre(Done{70, kXferCancelled}, Done{7, kXferCancelled}));
  _UsbIoXferInfo* own = completions.Record(0x81, 1, 8);
  own->reserved = kModuleIds;
  io->InterruptTransfer(own);
  EXPECT_EQ(io->CancelOwnTransfers(nullptr) + io->CancelOwnTransfers(&completions), 1);
  EXPECT_THAT(completions.done.Take(), ElementsAre(Done{1, kXferCancelled}));
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_THAT(completions.done.Take(), ElementsAre(Done{1, kXferCancelled}, Done{2, kXferCancelled}));
  SubmitInterrupt(3);  // There is no open state.
  io.reset();
  EXPECT_THAT(completions.done.Take(), ElementsAre(Done{3, kXferCancelled}));
}

INSTANTIATE_TEST_SUITE_P(Both, SilentEndpoint, ::testing::Values(kKeyboard, kCh9102));

class RawDevice : public EmulatedDevice {
 protected:
  // A table of packets of these lengths at the start of `size` bytes.
  int SubmitIso(std::uint8_t epAddr, const std::vector<std::uint32_t>& lengths, std::uint32_t size) {
    _UsbIoXferInfo* info = completions.Record(epAddr, 1, size);
    info->isoPacketNum = static_cast<std::uint32_t>(lengths.size());
    for (std::size_t i = 0; i < lengths.size() && (i + 1) * sizeof(IsoPacketRecord) <= size; ++i) {
      StoreIsoRecord(info->data, i, {.offset = 0xDEAD, .length = lengths[i], .actual_length = 0, .status = 7});
    }
    return io->IsochTransfer(info);
  }
};

TEST_P(RawDevice, AnswersLargeIsochronousTransfersWithinTheBlock) {
  // Packets, bytes of each, and the size of the header, which has 8 bits.
  const std::array<std::uint32_t, 3> rows[] = {{15, 3000, 240}, {16, 100'000, 0}, {17, 0, 16}, {1024, 3072, 0}};
  for (const auto& [packets, each, header] : rows) {
    SCOPED_TRACE(packets);
    const std::uint32_t table = packets * 16;
    const std::vector<std::uint32_t> lengths(packets, each);
    ASSERT_EQ(SubmitIso(0x81, lengths, table), 0);
    const std::string in = completions.done.Take().at(0).data.value();
    ASSERT_EQ(in.size(), header + packets * each);
    EXPECT_TRUE(each == 0 || static_cast<std::uint8_t>(in.back()) == 255 - (packets * each - 1) % 255);
    ASSERT_EQ(SubmitIso(0x01, lengths, table + 5), 0);
    const std::string out = completions.done.Take().at(0).data.value();
    ASSERT_EQ(out.size(), table + 5) << "OUT keeps its data";
    const auto last = LoadIsoRecord(reinterpret_cast<const std::uint8_t*>(out.data()), packets - 1);
    EXPECT_EQ(last.offset, table + (packets - 1) * each);
    EXPECT_EQ(last.actual_length, each);
    EXPECT_EQ(last.status, 0U);
  }
}

INSTANTIATE_TEST_SUITE_P(One, RawDevice, ::testing::Values(kRaw));

}  // namespace
}  // namespace vel
