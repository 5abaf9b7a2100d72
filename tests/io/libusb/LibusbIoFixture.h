// What the tests of the libusb backend share: the device-base object, the log, the records and
// their completions.
#ifndef TESTS_IO_LIBUSB_LIBUSB_IO_FIXTURE_H
#define TESTS_IO_LIBUSB_LIBUSB_IO_FIXTURE_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeLibusb.h"
#include "VelLog.h"
#include "io/LibusbIo.h"
#include "protocol/IsoTable.h"
#include "protocol/VelPacket.h"

namespace vel {

class TestDeviceBase : public VelDeviceBase {
 public:
  std::uint8_t GetBusNumber() const override { return 1; }
  std::uint8_t GetDeviceAddress() const override { return 5; }
  int IsRedirected() const override { return 1; }
  std::uint32_t GetDevId() const override { return 9; }
  std::uint32_t GetChannelId() const override { return 0; }
  std::uint16_t GetVendorId() const override { return 0x1D6B; }
  std::uint16_t GetProductId() const override { return 0x0104; }
  const char* GetArgs() const override { return ""; }
  std::uint8_t TakeReplyReqId(std::uint16_t, std::uint32_t) override { return 0; }
  int Send(std::unique_ptr<VelPacket>, std::uint32_t) override { return 0; }
  void Trace(std::uint64_t, const char*, const VelTraceAttribute*, std::size_t) override {}
};

// All lines of the log, from Debug on.
class LogCapture {
 public:
  LogCapture() {
    oskeloLogSetLevel(OSKELO_LOG_DEBUG);
    oskeloLogSetSink(&LogCapture::Take, this);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { oskeloLogSetSink(nullptr, nullptr); }

  // "file function: text" of each line, without the line number.
  std::vector<std::string> Lines() {
    const std::lock_guard lock(mMutex);
    return mLines;
  }
  bool Has(const std::string& line) { return testing::Value(Lines(), testing::Contains(line)); }
  void Clear() {
    const std::lock_guard lock(mMutex);
    mLines.clear();
  }

 private:
  static void Take(void* context, int, const char*, const char* text) {
    auto* self = static_cast<LogCapture*>(context);
    std::string line = text;
    const std::size_t open = line.find('(');
    line.erase(open, line.find(')', open) - open + 1);
    const std::lock_guard lock(self->mMutex);
    self->mLines.push_back(line);
  }

  std::mutex mMutex;
  std::vector<std::string> mLines;
};

struct Completion {
  std::uint32_t streamId;
  std::int32_t status;
  std::uint32_t length;
  bool hasData;
  std::vector<std::uint8_t> data;
  std::thread::id thread;
};

// Makes records, takes their completions, and knows which records were not completed, or twice.
class Recorder : public UsbIoTransferCallback {
 public:
  ~Recorder() override { EXPECT_EQ(Outstanding(), 0U) << "records without a completion"; }

  _UsbIoXferInfo* Make(std::uint32_t id, std::uint8_t endpoint, std::vector<std::uint8_t> data) {
    _UsbIoXferInfo* info = MakeXfer().release();
    info->streamId = info->localXferId = id;
    info->epAddr = endpoint;
    info->length = static_cast<std::uint32_t>(data.size());
    info->data = static_cast<std::uint8_t*>(std::malloc(data.size() + 1));
    std::copy(data.begin(), data.end(), info->data);
    info->reqBuf = std::malloc(8);
    info->callback = this;
    const std::lock_guard lock(mMutex);
    mOutstanding.insert(info);
    return info;
  }

  // A record whose table asks for these packets; `payload` lies behind the table.
  _UsbIoXferInfo* MakeIso(std::uint32_t id, std::uint8_t endpoint, const std::vector<std::uint32_t>& lengths,
                          const std::vector<std::uint8_t>& payload = {}) {
    std::vector<std::uint8_t> data(lengths.size() * sizeof(IsoPacketRecord));
    for (std::size_t i = 0; i < lengths.size(); ++i) {
      StoreIsoRecord(data.data(), i, {.offset = 0, .length = lengths[i], .actual_length = 0, .status = 0});
    }
    const std::size_t tableSize = data.size();
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
    Completion completion{info->streamId,        info->status, info->length,
                          info->data != nullptr, {},           std::this_thread::get_id()};
    if (info->data != nullptr) {
      completion.data.assign(info->data, info->data + info->length);
    }
    {
      const std::lock_guard lock(mMutex);
      EXPECT_EQ(mOutstanding.erase(info), 1U) << "completed twice";
      mCompletions.push_back(completion);
    }
    FreeXfer(info);
    mChanged.notify_all();
    if (mHook) {
      mHook(completion);
    }
  }

  // The completions so far, at least `count` of them.
  std::vector<Completion> Await(std::size_t count) {
    std::unique_lock lock(mMutex);
    EXPECT_TRUE(mChanged.wait_for(lock, std::chrono::seconds(20), [&] { return mCompletions.size() >= count; }));
    std::vector<Completion> all = mCompletions;
    all.resize(std::max(count, all.size()));
    return all;
  }

  std::size_t Outstanding() {
    const std::lock_guard lock(mMutex);
    return mOutstanding.size();
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::set<_UsbIoXferInfo*> mOutstanding;
  std::vector<Completion> mCompletions;
  std::function<void(const Completion&)> mHook;
};

// A backend over the fake, its device on the bus. Whatever a test does, all is given back at its
// end and the fake has nothing to complain about.
class LibusbIoTest : public testing::Test {
 protected:
  LibusbIoTest() {
    fake.Reset();
    device = &fake.AddDevice({});
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

  FakeLibusb& fake = FakeLibusb::Get();
  libusb_device* device = nullptr;
  TestDeviceBase base;
  LogCapture log;
  Recorder records;
  std::unique_ptr<LibusbIo> io;
};

}  // namespace vel

#endif
