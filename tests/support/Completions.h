#ifndef VIRTUSB_TESTS_SUPPORT_COMPLETIONS_H
#define VIRTUSB_TESTS_SUPPORT_COMPLETIONS_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "io/UsbIoXferInfo.h"
#include "support/Collected.h"

namespace vel {

// The submitter of transfers: makes their records and takes their completions down. One that does not come, or comes
// twice, fails the test. Any thread.
class Completions final : public UsbIoTransferCallback {
 public:
  struct Done {
    std::uint32_t streamId = 0;
    std::int32_t status = 0;
    std::optional<std::string> data = std::nullopt;  // None: the record had no block.
    bool operator==(const Done&) const = default;
  };

  Completions() = default;
  Completions(const Completions&) = delete;
  Completions& operator=(const Completions&) = delete;
  ~Completions() override { EXPECT_EQ(Outstanding(), 0) << "completions are missing"; }

  // A record with these bytes.
  _UsbIoXferInfo* RecordOf(std::uint8_t epAddr, std::uint32_t streamId, std::string_view bytes) {
    XferPtr info = MakeXfer();
    info->xferType = kXferIsochronous;
    info->epAddr = epAddr;
    info->streamId = info->localXferId = streamId;
    info->callback = this;
    info->length = static_cast<std::uint32_t>(bytes.size());
    info->data = static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(bytes.size(), 1)));
    std::ranges::copy(bytes, info->data);
    const MutexLock lock(mMutex);
    ++mOpen[streamId];
    return info.release();
  }
  // A record with `size` bytes of 0xEE, or with no block.
  _UsbIoXferInfo* Record(std::uint8_t epAddr, std::uint32_t streamId, std::optional<std::uint32_t> size) {
    _UsbIoXferInfo* info = RecordOf(epAddr, streamId, std::string(size.value_or(40), '\xEE'));
    if (!size) {
      std::free(std::exchange(info->data, nullptr));
    }
    return info;
  }

  // Runs in each completion that comes from now on, after it was noted.
  void OnDone(std::function<void(const _UsbIoXferInfo&)> hook) {
    const MutexLock lock(mMutex);
    mHook = std::move(hook);
  }
  // How many have not come yet.
  int Outstanding() {
    const MutexLock lock(mMutex);
    int count = 0;
    for (const auto& [id, open] : mOpen) {
      count += open;
    }
    return count;
  }

  Collected<Done> done;

 private:
  void UsbIoXferCb(_UsbIoXferInfo* info) override {
    const XferPtr owned(info);
    std::function<void(const _UsbIoXferInfo&)> hook;
    {
      const MutexLock lock(mMutex);
      hook = mHook;
      EXPECT_GE(--mOpen[info->localXferId], 0) << "transfer " << info->localXferId << " was completed twice";
    }
    done.Add(
        {info->streamId, info->status,
         info->data == nullptr ? std::nullopt : std::optional<std::string>({info->data, info->data + info->length})});
    if (hook) {
      hook(*info);
    }
  }

  Mutex mMutex;
  std::function<void(const _UsbIoXferInfo&)> mHook VEL_GUARDED_BY(mMutex);
  std::map<std::uint32_t, int> mOpen VEL_GUARDED_BY(mMutex);  // By the id for cancelling.
};

}  // namespace vel

#endif
