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
#include "mockdev/WaitingUsb.h"
#include "protocol/IsoTable.h"
#include "support/CapturingLog.h"
#include "support/Completions.h"
#include "support/RecordingDeviceBase.h"

namespace vel {

using Done = Completions::Done;

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
