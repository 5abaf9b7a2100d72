// What the emulated devices owe their submitter and a remote side cannot see.
#include <array>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <thread>
#include <typeinfo>
#include <vector>

#include <gmock/gmock.h>

#include "io/IVirtUsbIoFactory.h"
#include "protocol/IsoTable.h"
#include "support/RecordingDeviceBase.h"
#include "vel/Mutex.h"

namespace vel {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Bytes = std::vector<std::uint8_t>;

// Keeps what was completed and frees the record.
class Completions final : public UsbIoTransferCallback {
 public:
  struct Done {
    std::uint32_t streamId;
    std::int32_t status;
    std::optional<Bytes> data;
  };

  void UsbIoXferCb(_UsbIoXferInfo* info) override {
    const XferPtr owned(info);
    Done done{info->streamId, info->status, std::nullopt};
    if (info->data != nullptr) {
      done.data.emplace(info->data, info->data + info->length);
    }
    const MutexLock lock(mMutex);
    mDone.push_back(std::move(done));
  }

  std::vector<Done> Take() {
    const MutexLock lock(mMutex);
    return std::exchange(mDone, {});
  }

  // A record with `size` bytes of 0xEE, or with none.
  _UsbIoXferInfo* Record(std::uint8_t epAddr, std::uint32_t streamId, std::optional<std::uint32_t> size,
                         std::uint32_t isoPackets = 0) {
    XferPtr info = MakeXfer();
    info->epAddr = epAddr;
    info->streamId = info->localXferId = streamId;
    info->isoPacketNum = isoPackets;
    info->callback = this;
    info->length = size.value_or(40);
    if (size) {
      info->data = static_cast<std::uint8_t*>(std::malloc(std::max(*size, 1U)));
      std::fill_n(info->data, *size, std::uint8_t{0xEE});
    }
    return info.release();
  }

  // As it is, with a table of packets of these lengths at the start of its `size` bytes.
  _UsbIoXferInfo* IsoRecord(std::uint8_t epAddr, const std::vector<std::uint32_t>& lengths, std::uint32_t size) {
    _UsbIoXferInfo* info = Record(epAddr, 1, size, static_cast<std::uint32_t>(lengths.size()));
    for (std::size_t i = 0; i < lengths.size() && (i + 1) * sizeof(IsoPacketRecord) <= size; ++i) {
      StoreIsoRecord(info->data, i, {.offset = 0xDEAD, .length = lengths[i], .actual_length = 0, .status = 7});
    }
    return info;
  }

 private:
  Mutex mMutex;
  std::vector<Done> mDone VEL_GUARDED_BY(mMutex);
};

auto IsCancelled(std::uint32_t streamId) {
  return AllOf(Field(&Completions::Done::streamId, streamId), Field(&Completions::Done::status, kXferCancelled),
               Field(&Completions::Done::data, std::nullopt));
}

constexpr std::uint16_t kKeyboard = 0xFF01;
constexpr std::uint16_t kCh9102 = 0xFF04;
constexpr std::uint16_t kRaw = 0xFF06;

class EmulatedDevice : public ::testing::TestWithParam<std::uint16_t> {
 protected:
  EmulatedDevice() : EmulatedDevice(GetParam()) {}
  explicit EmulatedDevice(std::uint16_t productId) : remote({.productId = productId}), io(CreateUsbIo(1, &remote)) {}

  bool IsSilent() const { return remote.GetProductId() == kKeyboard || remote.GetProductId() == kCh9102; }

  RecordingDeviceBase remote;
  Completions completions;
  std::unique_ptr<IUsbIo> io;
};

TEST_P(EmulatedDevice, HasItsDescriptorsFromInitOn) {
  EXPECT_EQ(io->GetDeviceDesc(), nullptr);
  EXPECT_EQ(io->GetConfigDesc(), nullptr);
  io->Init();
  ASSERT_NE(io->GetDeviceDesc(), nullptr);
  ASSERT_NE(io->GetConfigDesc(), nullptr);
  EXPECT_EQ(io->GetConfigDesc(), io->GetConfigDesc());
  EXPECT_EQ(io->GetIoType(), 1);
  EXPECT_EQ(io->GetIoCapability(), 0U);
  EXPECT_EQ(io->GetIoHandler(), nullptr);
  EXPECT_EQ(io->SetIoHandler(&remote), nullptr);
  EXPECT_EQ(io->GetDeviceAddress(), 0x85);
  EXPECT_EQ(io->GetBusNumber(), 3);
}

TEST_P(EmulatedDevice, TakesANullRecordAndANullBuffer) {
  io->Init();
  EXPECT_EQ(io->BulkTransfer(nullptr), 0);
  EXPECT_EQ(io->InterruptTransfer(nullptr), 0);
  EXPECT_EQ(io->IsochTransfer(nullptr), 0);
  EXPECT_EQ(io->GetStringDescriptor(1, 0, nullptr, 255), 0);
  EXPECT_EQ(io->ControlTransfer(0x80, 6, 0x0300, 0, nullptr, 0, 0), 0);
  EXPECT_THAT(completions.Take(), IsEmpty());
  io.reset();
  EXPECT_THAT(completions.Take(), IsEmpty());
}

TEST_P(EmulatedDevice, CompletesEachRecordOnceWithOrWithoutData) {
  io->Init();
  for (const std::uint8_t epAddr : {std::uint8_t{0x81}, std::uint8_t{0x01}}) {
    for (const std::optional<std::uint32_t> size : {std::optional<std::uint32_t>{}, {0U}, {40U}}) {
      _UsbIoXferInfo* bulk = completions.Record(epAddr, 1, size);
      EXPECT_EQ(io->BulkTransfer(bulk), 0);
      EXPECT_THAT(completions.Take(), ElementsAre(Field(&Completions::Done::status, kXferCompleted)));
      EXPECT_EQ(io->InterruptTransfer(completions.Record(epAddr, 2, size)), 0);
      EXPECT_THAT(completions.Take(), SizeIs(IsSilent() ? 0 : 1));
      const int iso = io->IsochTransfer(completions.Record(epAddr, 3, size));
      EXPECT_THAT(completions.Take(),
                  ElementsAre(Field(&Completions::Done::status, size ? kXferCompleted : kXferError)));
      EXPECT_EQ(iso < 0, !size.has_value());
    }
  }
  io.reset();
  EXPECT_THAT(completions.Take(), AllOf(SizeIs(IsSilent() ? 6 : 0), Each(IsCancelled(2))));
}

TEST_P(EmulatedDevice, WithoutACallbackFreesTheRecord) {
  io->Init();
  for (const auto transfer : {&IUsbIo::BulkTransfer, &IUsbIo::InterruptTransfer, &IUsbIo::IsochTransfer}) {
    _UsbIoXferInfo* info = completions.Record(0x81, 1, 32);
    info->callback = nullptr;
    (io.get()->*transfer)(info);
  }
}

INSTANTIATE_TEST_SUITE_P(All, EmulatedDevice, ::testing::Values(0xFF01, 0xFF02, 0xFF03, 0xFF04, 0xFF05, 0xFF06));

class SilentEndpoint : public EmulatedDevice {
 protected:
  SilentEndpoint() { io->Init(); }

  void Submit(std::uint32_t streamId) { EXPECT_EQ(io->InterruptTransfer(completions.Record(0x81, streamId, 8)), 0); }
};

TEST_P(SilentEndpoint, CancelsTheLatestOfATransferAndLeavesTheOthers) {
  Submit(1);
  _UsbIoXferInfo* latest = completions.Record(0x81, 7, 8);
  Submit(7);
  latest->streamId = 70;  // Tells the two apart; the id for cancelling is the same.
  io->InterruptTransfer(latest);
  Submit(2);
  EXPECT_EQ(io->CancelTransfer(99), 0);
  EXPECT_THAT(completions.Take(), IsEmpty());
  EXPECT_EQ(io->CancelTransfer(7), 0);
  EXPECT_THAT(completions.Take(), ElementsAre(IsCancelled(70)));
  io->CancelTransfer(7);
  io->CancelTransfer(7);
  EXPECT_THAT(completions.Take(), ElementsAre(IsCancelled(7)));
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_THAT(completions.Take(), ElementsAre(IsCancelled(1), IsCancelled(2)));
  Submit(3);  // There is no open state.
  io.reset();
  EXPECT_THAT(completions.Take(), ElementsAre(IsCancelled(3)));
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
    Submit(id);
  }
  first.join();
  second.join();
  io->CloseUsbDev();
  std::vector<bool> seen(kTransfers);
  const std::vector<Completions::Done> all = completions.Take();
  EXPECT_EQ(all.size(), kTransfers);
  for (const Completions::Done& done : all) {
    EXPECT_FALSE(seen.at(done.streamId));
    seen[done.streamId] = true;
  }
}

INSTANTIATE_TEST_SUITE_P(Both, SilentEndpoint, ::testing::Values(kKeyboard, kCh9102));

class RawDevice : public EmulatedDevice {
 protected:
  RawDevice() { io->Init(); }
};

TEST_P(RawDevice, RefusesAnIsochronousTableThatDoesNotFit) {
  constexpr std::uint32_t kHuge = std::numeric_limits<std::int32_t>::max();
  struct Row {
    std::vector<std::uint32_t> lengths;
    std::uint32_t size;
  };
  for (const Row& row : {Row{{4}, 15}, Row{{4, 4}, 31}, Row{{kHuge}, 16}, Row{{kHuge / 2, kHuge / 2, 2}, 48},
                         Row{{0xFFFFFFFF, 0xFFFFFFFF}, 32}}) {
    SCOPED_TRACE(::testing::PrintToString(row.lengths));
    EXPECT_LT(io->IsochTransfer(completions.IsoRecord(0x81, row.lengths, row.size)), 0);
    EXPECT_THAT(completions.Take(),
                ElementsAre(AllOf(Field(&Completions::Done::status, kXferError),
                                  Field(&Completions::Done::data, ::testing::Optional(SizeIs(row.size))))));
  }
}

TEST_P(RawDevice, AnswersLargeIsochronousTransfersWithinTheBlock) {
  struct Row {
    std::uint32_t packets;
    std::uint32_t each;
    std::uint32_t header;  // Of 8 bits.
  };
  for (const Row& row : {Row{15, 3000, 240}, Row{16, 1, 0}, Row{16, 100'000, 0}, Row{17, 0, 16}, Row{1024, 0, 0},
                         Row{1024, 1, 0}, Row{1024, 3072, 0}, Row{4096, 2, 0}}) {
    SCOPED_TRACE(row.packets);
    const std::uint32_t table = row.packets * 16;
    const std::vector<std::uint32_t> lengths(row.packets, row.each);
    ASSERT_EQ(io->IsochTransfer(completions.IsoRecord(0x81, lengths, table)), 0);
    std::vector<Completions::Done> in = completions.Take();
    ASSERT_EQ(in.size(), 1U);
    const Bytes& data = in[0].data.value();
    ASSERT_EQ(data.size(), row.header + row.packets * row.each);
    if (row.each > 0) {
      EXPECT_EQ(data[row.header], 0xFF);
      EXPECT_EQ(data.back(), 255 - (row.packets * row.each - 1) % 255);
    }
    ASSERT_EQ(io->IsochTransfer(completions.IsoRecord(0x01, lengths, table + 5)), 0);
    std::vector<Completions::Done> out = completions.Take();
    ASSERT_EQ(out.size(), 1U);
    ASSERT_EQ(out[0].data.value().size(), table + 5) << "OUT keeps its data";
    const IsoPacketRecord last = LoadIsoRecord(out[0].data->data(), row.packets - 1);
    EXPECT_EQ(last.offset, table + (row.packets - 1) * row.each);
    EXPECT_EQ(last.actual_length, row.each);
    EXPECT_EQ(last.status, 0U);
  }
}

INSTANTIATE_TEST_SUITE_P(One, RawDevice, ::testing::Values(kRaw));

}  // namespace
}  // namespace vel
