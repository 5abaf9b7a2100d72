// Which backend a device gets, and what the emulated ones owe their submitter and a remote side cannot see.
#include <array>
#include <limits>
#include <memory>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "support/Completions.h"
#include "io/DummyUsbIo/DummyUsbCdcCH340.h"
#include "io/DummyUsbIo/DummyUsbCdcCH9102.h"
#include "io/DummyUsbIo/DummyUsbKeyboard.h"
#include "io/DummyUsbIo/DummyUsbPrinter.h"
#include "io/DummyUsbIo/DummyUsbRawIo.h"
#include "io/DummyUsbIo/DummyUsbWinusb.h"
#include "io/DummyUsbIo/DummyUvcIo.h"
#include "io/IVirtUsbIoFactory.h"
#include "io/LibusbIo.h"
#include "protocol/IsoTable.h"
#include "support/CapturingLog.h"
#include "support/RecordingDeviceBase.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;
using Done = Completions::Done;

constexpr std::uint16_t kKeyboard = 0xFF01;
constexpr std::uint16_t kCh9102 = 0xFF04;
constexpr std::uint16_t kRaw = 0xFF06;

class EmulatedDevice : public ::testing::TestWithParam<std::uint16_t> {
 protected:
  EmulatedDevice() : remote({.productId = GetParam()}), io(CreateUsbIo(1, &remote)) { io->Init(); }

  bool IsSilent() const { return remote.GetProductId() == kKeyboard || remote.GetProductId() == kCh9102; }
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
  EXPECT_EQ(io->GetStringDescriptor(1, 0, nullptr, 255), 0);
  EXPECT_EQ(io->ControlTransfer(0x80, 6, 0x0300, 0, nullptr, 0, 0), 0);
}

TEST_P(EmulatedDevice, CompletesEachRecordOnceWithOrWithoutData) {
  std::uint32_t id = 0;
  for (const std::uint8_t epAddr : {std::uint8_t{0x81}, std::uint8_t{0x01}}) {
    for (const std::optional<std::uint32_t> size : {std::optional<std::uint32_t>{}, {0U}, {40U}}) {
      EXPECT_EQ(io->BulkTransfer(completions.Record(epAddr, ++id, size)), 0);
      EXPECT_EQ(completions.done.Take().at(0).status, kXferCompleted);
      EXPECT_EQ(io->InterruptTransfer(completions.Record(epAddr, ++id, size)), 0);
      EXPECT_THAT(completions.done.Take(), SizeIs(IsSilent() ? 0 : 1));
      EXPECT_EQ(io->IsochTransfer(completions.Record(epAddr, ++id, size)) < 0, !size.has_value());
      EXPECT_EQ(completions.done.Take().at(0).status, size ? kXferCompleted : kXferError);
    }
  }
  io.reset();
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
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_THAT(completions.done.Take(), ElementsAre(Done{1, kXferCancelled}, Done{2, kXferCancelled}));
  SubmitInterrupt(3);  // There is no open state.
  io.reset();
  EXPECT_THAT(completions.done.Take(), ElementsAre(Done{3, kXferCancelled}));
}

TEST_P(SilentEndpoint, CancellingFromOtherThreadsCompletesEachOnce) {
  constexpr std::uint32_t kTransfers = 2000;
  const auto cancelAll = [this] {
    for (std::uint32_t id = 0; id < kTransfers; ++id) {
      io->CancelTransfer(id);
    }
  };
  std::thread first(cancelAll);
  std::thread second([this, &cancelAll] {
    cancelAll();
    io->CloseUsbDev();
  });
  for (std::uint32_t id = 0; id < kTransfers; ++id) {
    SubmitInterrupt(id);
  }
  first.join();
  second.join();
  io->CloseUsbDev();
  EXPECT_EQ(completions.done.Count(), kTransfers);
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

TEST_P(RawDevice, RefusesAnIsochronousTableThatDoesNotFit) {
  constexpr std::uint32_t kHuge = std::numeric_limits<std::int32_t>::max();
  const std::pair<std::vector<std::uint32_t>, std::uint32_t> rows[] = {
      {{4}, 15}, {{4, 4}, 31}, {{kHuge}, 16}, {{kHuge / 2, kHuge / 2, 2}, 48}, {{0xFFFFFFFF, 0xFFFFFFFF}, 32}};
  for (const auto& [lengths, size] : rows) {
    SCOPED_TRACE(::testing::PrintToString(lengths));
    EXPECT_LT(SubmitIso(0x81, lengths, size), 0);
    const std::vector<Done> done = completions.done.Take();
    EXPECT_EQ(done.at(0).status, kXferError);
    EXPECT_EQ(done.at(0).data.value().size(), size);
  }
}

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

TEST(Factory, ChoosesByTypeVendorAndProduct) {
  struct Row {
    std::uint32_t type;
    std::uint16_t vendorId;
    std::uint16_t productId;
    const std::type_info& backend;
    std::uint8_t address = 0x85;
  };
  for (const Row& row :
       {Row{1, 0xFF00, 0xFF01, typeid(DummyUsbKeyboard)}, Row{1, 0xFF00, 0xFF02, typeid(DummyUsbPrinter)},
        Row{1, 0xFF00, 0xFF03, typeid(DummyUsbCdcCH340)}, Row{1, 0xFF00, 0xFF04, typeid(DummyUsbCdcCH9102)},
        Row{1, 0xFF00, 0xFF05, typeid(DummyUsbWinusb)}, Row{1, 0xFF01, 0xFF01, typeid(DummyUsbRawIo)},
        Row{1, 0x1234, 0x0001, typeid(DummyUsbRawIo)}, Row{2, 0xFF00, 0xFF01, typeid(LibusbIo)},
        Row{1, 0x1234, 0xFFFE, typeid(DummyUvcIo)}, Row{1, 0xFF00, 0xFF01, typeid(DummyUvcIo), 0x80},
        Row{1, 1, 2, typeid(DummyUvcIo), 0x81}, Row{1, 0xFF00, 0xFF01, typeid(DummyUsbKeyboard), 0x82}}) {
    SCOPED_TRACE(row.productId);
    RecordingDeviceBase device({.address = row.address, .vendorId = row.vendorId, .productId = row.productId});
    const std::unique_ptr<IUsbIo> io(CreateUsbIo(row.type, &device));
    ASSERT_NE(io, nullptr);
    const IUsbIo& backend = *io;
    EXPECT_EQ(typeid(backend), row.backend);
    EXPECT_EQ(io->GetIoType(), row.type);
  }
}

TEST(Factory, KnowsNoOtherTypeAndLogsTheDeviceAsData) {
  RecordingDeviceBase device({.bus = 3, .address = 0x85, .args = "source=a\nb"});
  const CapturingLog log;
  EXPECT_EQ(CreateUsbIo(0xFFFFFFFFU, &device), nullptr);
  EXPECT_THAT(log.Messages("CreateUsbIo"),
              ElementsAre("Debug:UsbIo type[-1], bus[0x3], addr[0x85], vid[0xff00], pid[0xff06], args[source=a\\x0ab]",
                          "Error:Unknow USB IO type[-1]!"));
}

}  // namespace
}  // namespace vel
