// What the tests of the libusb backend share: the device-base object, the log, the records and their completions.
#ifndef TESTS_IO_LIBUSB_LIBUSB_IO_FIXTURE_H
#define TESTS_IO_LIBUSB_LIBUSB_IO_FIXTURE_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeLibusb.h"
#include "io/LibusbIo.h"
#include "protocol/IsoTable.h"
#include "support/CapturingLog.h"
#include "support/Collected.h"
#include "support/RecordingDeviceBase.h"

namespace vel {

using Bytes = std::vector<std::uint8_t>;

struct Completion {
  std::uint32_t streamId;
  std::int32_t status;
  std::optional<Bytes> data;  // None: the record had no block.
};

// Makes records, takes their completions, and knows which records were not completed, or twice.
class Recorder : public UsbIoTransferCallback {
 public:
  ~Recorder() override { EXPECT_EQ(Outstanding(), 0U) << "records without a completion"; }

  _UsbIoXferInfo* Make(std::uint32_t id, std::uint8_t endpoint, const Bytes& data) {
    _UsbIoXferInfo* info = MakeXfer().release();
    info->streamId = info->localXferId = id;
    info->epAddr = endpoint;
    info->length = static_cast<std::uint32_t>(data.size());
    info->data = static_cast<std::uint8_t*>(std::malloc(data.size() + 1));
    std::ranges::copy(data, info->data);
    info->callback = this;
    const MutexLock lock(mMutex);
    mOutstanding.insert(info);
    return info;
  }

  // A record whose table asks for these packets; `payload` lies behind the table.
  _UsbIoXferInfo* MakeIso(std::uint32_t id, std::uint8_t endpoint, const std::vector<std::uint32_t>& lengths,
                          const Bytes& payload = {}) {
    const std::size_t tableSize = lengths.size() * sizeof(IsoPacketRecord);
    Bytes data(tableSize);
    for (std::size_t i = 0; i < lengths.size(); ++i) {
      StoreIsoRecord(data.data(), i, {.offset = 0, .length = lengths[i], .actual_length = 0, .status = 0});
    }
    data.insert(data.end(), payload.begin(), payload.end());
    _UsbIoXferInfo* info = Make(id, endpoint, data);
    info->isoPacketNum = static_cast<std::uint32_t>(lengths.size());
    info->isoDescLen = static_cast<std::uint32_t>(tableSize);
    info->isoDescCopy = std::malloc(tableSize + 1);
    std::memcpy(info->isoDescCopy, data.data(), tableSize);
    return info;
  }

  // Runs in each completion, after it was noted.
  void OnCompletion(std::function<void(const Completion&)> hook) { mHook = std::move(hook); }

  void UsbIoXferCb(_UsbIoXferInfo* info) override {
    {
      const MutexLock lock(mMutex);
      EXPECT_EQ(mOutstanding.erase(info), 1U) << "completed twice";
    }
    Completion completion{info->streamId, info->status, std::nullopt};
    if (info->data != nullptr) {
      completion.data = Bytes(info->data, info->data + info->length);
    }
    FreeXfer(info);
    done.Add(completion);
    if (mHook) {
      mHook(completion);
    }
  }

  std::size_t Outstanding() {
    const MutexLock lock(mMutex);
    return mOutstanding.size();
  }

  Collected<Completion> done;

 private:
  Mutex mMutex;
  std::set<_UsbIoXferInfo*> mOutstanding VEL_GUARDED_BY(mMutex);
  std::function<void(const Completion&)> mHook;
};

// A backend over the fake, its device on the bus. Whatever a test does, all is given back at its end and the fake has
// nothing to complain about.
class LibusbIoTest : public testing::Test {
 protected:
  LibusbIoTest() {
    fake.Reset();
    device = &fake.devices.emplace_back();
    io = std::make_unique<LibusbIo>(&base);
  }

  void Open() {
    io->Init();
    ASSERT_EQ(io->OpenUsbDev(), 0);
  }

  void TearDown() override {
    io.reset();
    EXPECT_THAT(fake.Violations(), testing::IsEmpty());
  }

  // Waits for a close on another thread to have begun.
  void AwaitClosing() {
    while (io->GetIoHandler() != nullptr) {
      std::this_thread::yield();
    }
  }

  int ReadByte(std::uint8_t& byte) { return io->ControlTransfer(0xC0, 1, 0, 0, &byte, 1, 0); }

  FakeLibusb& fake = FakeLibusb::Get();
  libusb_device* device = nullptr;
  RecordingDeviceBase base{{.bus = 1, .address = 5, .vendorId = 0x1D6B, .productId = 0x0104}};
  CapturingLog log;
  Recorder records;
  std::unique_ptr<LibusbIo> io;
};

}  // namespace vel

#endif
