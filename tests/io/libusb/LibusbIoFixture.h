#ifndef TESTS_IO_LIBUSB_LIBUSB_IO_FIXTURE_H
#define TESTS_IO_LIBUSB_LIBUSB_IO_FIXTURE_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LibusbSeam.h"
#include "io/LibusbIo.h"
#include "mockdev/MockUsb.h"
#include "protocol/IsoTable.h"
#include "support/CapturingLog.h"
#include "support/Completions.h"
#include "support/RecordingDeviceBase.h"

namespace vel {

using Done = Completions::Done;

// How a transfer ends. Of an OUT transfer all bytes are moved.
struct UsbResult {
  Bytes bytes{};
  int status = 0;                                   // As the kernel has it: a negated errno.
  std::vector<std::pair<unsigned, int>> packets{};  // Isochronous: bytes moved, status.
};

// A mocked device whose transfers end when the test says so. 0x83 and 0x04 are isochronous. Configuration 1 has both
// interfaces, 2 only the second.
class WaitingUsb final : public MockUsb {
 public:
  static constexpr std::uint8_t kAny = 0xFF;

  WaitingUsb()
      : MockUsb({.product = 1,
                 .usbClass = 0,
                 .config = {9,  2, 34, 0, 2, 1,    0,  0x80, 50, 9, 4, 0,    0,   0,  255, 0, 0, 0,
                            9,  4, 1,  0, 0, 255,  0,  0,    0,  7, 5, 0x83, 1,   64, 0,   1, 9, 2,
                            18, 0, 1,  2, 0, 0x80, 50, 9,    4,  1, 0, 0,    255, 0,  0,   0},
                 .configurations = 2,
                 .endpoint = 3,
                 .lastSetting = 1}) {
    Plug();
  }
  ~WaitingUsb() override { static_cast<void>(AwaitClosed()); }

  // The oldest transfer that waits on this endpoint (0: control) ends so. False when there is none.
  bool Complete(std::uint8_t endpoint, const UsbResult& result = {}) {
    const MutexLock lock(mMutex);
    const auto urb = Fill(endpoint, result);
    if (urb == mPending.end()) {
      return false;
    }
    urb->status = result.status;
    mDone.splice(mDone.end(), mPending, urb);
    Changed();
    return true;
  }
  // It has moved this, and goes on waiting.
  void MovePart(std::uint8_t endpoint, const UsbResult& result) {
    const MutexLock lock(mMutex);
    Fill(endpoint, result);
  }
  Bytes LastSent() {
    const MutexLock lock(mMutex);
    return mSent;
  }

 private:
  bool Serve(Urb& /*urb*/, Bytes out) override VEL_REQUIRES(mMutex) {
    mSent = std::move(out);
    return false;
  }
  bool ServeRequest(Urb& /*urb*/, std::span<const std::uint8_t> /*setup*/, Bytes /*out*/, Bytes& /*answer*/) override
      VEL_REQUIRES(mMutex) {
    return false;
  }
  std::list<Urb>::iterator Fill(std::uint8_t endpoint, const UsbResult& result) VEL_REQUIRES(mMutex) {
    const auto urb =
        std::ranges::find_if(mPending, [&](const Urb& each) { return endpoint == kAny || each.endpoint == endpoint; });
    if (urb == mPending.end()) {
      return urb;
    }
    const bool isIso = urb->type == USBDEVFS_URB_TYPE_ISO;
    urb->moved = isIso ? 0 : urb->IsIn() || urb->endpoint == 0 ? result.bytes.size() : urb->length;
    urb->in = urb->endpoint == 0 ? Bytes(8) : Bytes();  // A request's setup comes first.
    if (urb->IsIn() || urb->endpoint == 0) {
      urb->in.insert(urb->in.end(), result.bytes.begin(), result.bytes.end());
    }
    for (std::size_t i = 0; isIso && i < urb->Packets().size(); ++i) {
      usbdevfs_iso_packet_desc& packet = urb->Packets()[i];
      packet.actual_length = i < result.packets.size() ? result.packets[i].first : packet.length;
      packet.status = static_cast<unsigned>(i < result.packets.size() ? result.packets[i].second : 0);
    }
    return urb;
  }

  Bytes mSent VEL_GUARDED_BY(mMutex);
};

// Where a thread of the module is held until the test opens it; for one passage.
struct Gate {
  void Pass() {
    arrived.set_value();
    opened.get_future().wait();
  }
  void AwaitArrival() { arrived.get_future().wait(); }
  void Open() { opened.set_value(); }

  std::promise<void> arrived;
  std::promise<void> opened;
};

// A backend over libusb on a mocked kernel. Every record is completed by the end of a test.
class LibusbIoTest : public testing::Test {
 protected:
  LibusbIoTest() { seam.Reset(); }

  // Ready for transfers of all kinds.
  void Open() {
    io->Init();
    ASSERT_EQ(io->OpenUsbDev(), 0);
    ASSERT_EQ(io->DetachKernelDriver(), 0);
    ASSERT_EQ(io->ClaimAllInterface(), 0);
    ASSERT_EQ(io->SetInterfaceAltSetting(1, 1), 0);
  }

  // Submits a transfer of 4 bytes.
  int Bulk(std::uint32_t id, std::uint8_t endpoint = 0x81) { return io->BulkTransfer(records.Record(endpoint, id, 4)); }
  // A record whose table asks for these packets; `payload` lies behind the table.
  _UsbIoXferInfo* MakeIso(std::uint32_t id, std::uint8_t endpoint, const std::vector<std::uint32_t>& lengths,
                          const std::string& payload = {}) {
    const std::size_t tableSize = lengths.size() * sizeof(IsoPacketRecord);
    _UsbIoXferInfo* info = records.RecordOf(endpoint, id, std::string(tableSize, '\0') + payload);
    for (std::size_t i = 0; i < lengths.size(); ++i) {
      StoreIsoRecord(info->data, i, {.offset = 0, .length = lengths[i], .actual_length = 0, .status = 0});
    }
    info->isoPacketNum = static_cast<std::uint32_t>(lengths.size());
    info->isoDescLen = static_cast<std::uint32_t>(tableSize);
    info->isoDescCopy = std::malloc(tableSize + 1);
    std::memcpy(info->isoDescCopy, info->data, tableSize);
    return info;
  }

  int ReadByte(std::uint8_t& byte) { return io->ControlTransfer(0xC0, 1, 0, 0, &byte, 1, 0); }

  // The next wait for events that begins is this.
  void OnEvents(LibusbSeam::Hook hook) {
    seam.Instead("handle_events", std::move(hook));
    seam.Interrupt();
  }
  // The event thread waits in the gate; when it is let on, event handling has this result, once.
  void HoldEvents(Gate& gate, int result = 0) {
    OnEvents([this, &gate, result](const LibusbSeam::Call&) {
      seam.Instead("handle_events", nullptr);
      gate.Pass();
      return result;
    });
    gate.AwaitArrival();
  }

  // Waits for a close on another thread to have begun.
  void AwaitClosing() {
    while (io->GetIoHandler() != nullptr) {
      std::this_thread::yield();
    }
  }

  LibusbSeam& seam = LibusbSeam::Get();
  WaitingUsb device;
  RecordingDeviceBase base{
      {.bus = MockUsb::kBus, .address = device.Address(), .vendorId = 0x1D6B, .productId = 0x0104}};
  CapturingLog log;
  Completions records;
  std::unique_ptr<LibusbIo> io = std::make_unique<LibusbIo>(&base);
};

}  // namespace vel

#endif
