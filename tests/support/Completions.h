#ifndef VIRTUSB_TESTS_SUPPORT_COMPLETIONS_H
#define VIRTUSB_TESTS_SUPPORT_COMPLETIONS_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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
  ~Completions() override {
    const MutexLock lock(mMutex);
    for (const auto& [id, open] : mOpen) {
      EXPECT_EQ(open, 0) << "completions of transfer " << id << " are missing";
    }
  }

  // A record with `size` bytes of 0xEE, or with no block.
  _UsbIoXferInfo* Record(std::uint8_t epAddr, std::uint32_t streamId, std::optional<std::uint32_t> size) {
    XferPtr info = MakeXfer();
    info->xferType = kXferIsochronous;
    info->epAddr = epAddr;
    info->streamId = info->localXferId = streamId;
    info->callback = this;
    info->length = size.value_or(40);
    if (size) {
      info->data = static_cast<std::uint8_t*>(std::malloc(std::max(*size, 1U)));
      std::fill_n(info->data, *size, std::uint8_t{0xEE});
    }
    const MutexLock lock(mMutex);
    ++mOpen[streamId];
    return info.release();
  }

  Collected<Done> done;

 private:
  void UsbIoXferCb(_UsbIoXferInfo* info) override {
    const XferPtr owned(info);
    {
      const MutexLock lock(mMutex);
      EXPECT_GE(--mOpen[info->localXferId], 0) << "transfer " << info->localXferId << " was completed twice";
    }
    done.Add(
        {info->streamId, info->status,
         info->data == nullptr ? std::nullopt : std::optional<std::string>({info->data, info->data + info->length})});
  }

  Mutex mMutex;
  std::map<std::uint32_t, int> mOpen VEL_GUARDED_BY(mMutex);  // By the id for cancelling.
};

}  // namespace vel

#endif
