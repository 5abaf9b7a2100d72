#include "policys/stream/UVCCameraReader.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <utility>

#include "base/VelLog.h"
#include "protocol/IsoTable.h"
#include "uvc/UVCStreamCtrl.h"

namespace vel {
namespace {

// Between a failure and the next try: about a picture's time at first, doubled with each failure that follows.
constexpr std::chrono::milliseconds kRetryPause{33};
constexpr std::chrono::milliseconds kLongestPause{1000};

constexpr std::uint32_t kTableSize = UVCCameraReader::kPackets * sizeof(IsoPacketRecord);

std::uint32_t InFlight(UVCCameraReader::Kind kind) {
  switch (kind) {
    case UVCCameraReader::Kind::kWholeFrame:
      return 1;
    case UVCCameraReader::Kind::kIsochronous:
      return UVCCameraReader::kIsoInFlight;
    case UVCCameraReader::Kind::kBulk:
      return UVCCameraReader::kBulkInFlight;
  }
  return 0;
}

}  // namespace

// Stop waits until nobody is inside.
class UVCCameraReader::Use {
 public:
  explicit Use(UVCCameraReader& reader) : mReader(reader) {
    const MutexLock lock(reader.mMutex);
    ++reader.mUses;
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  ~Use() {
    const MutexLock lock(mReader.mMutex);
    --mReader.mUses;
    mReader.mChanged.NotifyAll();
  }

 private:
  UVCCameraReader& mReader;
};

UVCCameraReader::UVCCameraReader(IUsbIo& io, UsbIoTransferCallback& callback, const Source& source)
    : mIo(io), mCallback(callback), mSource(source) {}

bool UVCCameraReader::IsUsable(const Source& source) {
  switch (source.kind) {
    case Kind::kWholeFrame:
      return true;
    case Kind::kIsochronous:
      return source.payloadSize > 0 && source.payloadSize <= kMaxVideoFrameSize / kPackets;
    case Kind::kBulk:
      return source.payloadSize > 0 && source.payloadSize <= kMaxVideoFrameSize;
  }
  return false;
}

bool UVCCameraReader::IsActive() const {
  const MutexLock lock(mMutex);
  return mActive;
}

int UVCCameraReader::Start() {
  const Use use(*this);
  const std::uint32_t count = InFlight(mSource.kind);
  {
    const MutexLock lock(mMutex);
    mActive = true;
    mAside.reserve(count);
  }
  try {
    std::vector<XferPtr> failed;
    failed.reserve(count);  // The thread has to do without more memory.
    mThread = std::thread(&UVCCameraReader::FrameManagerThread, this, std::move(failed));
  } catch (const std::exception& error) {
    VEL_WARN("no thread for failed camera transfers: %s", error.what());
  }
  int result = LIBUSB_ERROR_NO_MEM;
  for (std::uint32_t number = 0; number < count; ++number) {
    XferPtr record = MakeRecord(number);
    if (record == nullptr) {
      return LIBUSB_ERROR_NO_MEM;
    }
    {
      const MutexLock lock(mMutex);
      ++mOut;
    }
    result = Submit(std::move(record));
  }
  return result;
}

XferPtr UVCCameraReader::MakeRecord(std::uint32_t number) const {
  XferPtr record = MakeXfer();
  if (record != nullptr) {
    const bool bulk = mSource.kind == Kind::kBulk;
    record->xferType = bulk ? kXferBulk : kXferIsochronous;
    record->reserved = kModuleIds;
    record->streamId = record->localXferId = number;
    record->epAddr = mSource.endpoint;
    record->isoPacketNum = bulk ? 0 : kPackets;
    record->callback = &mCallback;
    VEL_DEBUG("maxvideosize = %d", static_cast<int>(mSource.frameSize));
  }
  return record;
}

// Makes the record what it was before its last completion: a backend may replace the data of an isochronous transfer by
// a block of its result's length, and takes that of a failed one away. A bulk transfer's block stays.
bool UVCCameraReader::Prepare(_UsbIoXferInfo& info) const {
  const std::uint32_t bytes = mSource.kind == Kind::kWholeFrame    ? mSource.frameSize
                              : mSource.kind == Kind::kIsochronous ? kTableSize
                                                                   : mSource.payloadSize;
  const bool reusable = mSource.kind == Kind::kBulk || info.length >= bytes;
  if (info.data == nullptr || !reusable) {
    auto* block = static_cast<std::uint8_t*>(std::malloc(bytes));
    if (block == nullptr) {
      return false;
    }
    ReplaceXferData(info, block, bytes);
  }
  info.status = kXferCompleted;
  info.length = bytes;
  for (std::uint32_t i = 0; mSource.kind == Kind::kIsochronous && i < kPackets; ++i) {
    StoreIsoRecord(info.data, i, {.offset = 0, .length = mSource.payloadSize, .actual_length = 0, .status = 0});
  }
  return true;
}

int UVCCameraReader::Submit(XferPtr record) {
  if (!Prepare(*record)) {
    record->status = kXferError;
    mCallback.UsbIoXferCb(record.release());
    return LIBUSB_ERROR_NO_MEM;
  }
  const int result =
      mSource.kind == Kind::kBulk ? mIo.BulkTransfer(record.release()) : mIo.IsochTransfer(record.release());
  if (result < 0) {
    const MutexLock lock(mMutex);
    mGone = mGone || result == LIBUSB_ERROR_NO_DEVICE;
    if (const std::uint32_t count = mSubmitFailures.Count(); count == 1) {
      VEL_ERROR("Submit transfer error[%d]", result);
    } else if (count > 1) {
      VEL_ERROR("Submit transfer error[%d], %u of them", result, count);
    }
  } else if (!IsActive()) {
    mIo.CancelOwnTransfers(&mCallback);  // Stop may have looked for it before it was there.
  }
  return result;
}

void UVCCameraReader::Resubmit(XferPtr record) {
  const Use use(*this);
  {
    const MutexLock lock(mMutex);
    const bool completed = record->status == kXferCompleted;
    if (completed) {
      mPause = {};
    } else if (const std::uint32_t count = mTransferFailures.Count(); count == 1) {
      VEL_ERROR("Error submitting transfer, %d", record->status);
    } else if (count > 1) {
      VEL_ERROR("Error submitting transfer, %d, %u of them", record->status, count);
    }
    if (!mActive) {
      VEL_DEBUG("Stop request frame %d\n", static_cast<int>(++mStopped));
    }
    if (!mActive || !completed) {
      --mOut;
      mGone = mGone || record->status == LIBUSB_TRANSFER_NO_DEVICE;
      if (mActive && !mGone) {
        mAside.push_back(std::move(record));
      }
      mChanged.NotifyAll();
      return;
    }
    if (!mAside.empty()) {
      mChanged.NotifyAll();  // The others need not wait any longer.
    }
  }
  Submit(std::move(record));
}

bool UVCCameraReader::AwaitFailed(std::vector<XferPtr>& failed) {
  MutexLock lock(mMutex);
  while (mActive && mAside.empty()) {
    mChanged.Wait(lock);
  }
  const auto begin = std::chrono::steady_clock::now();
  mPause = mPause == std::chrono::milliseconds::zero() ? kRetryPause : std::min(mPause * 2, kLongestPause);
  const bool again = mPause > kRetryPause;
  const auto due = [this, begin]() VEL_REQUIRES(mMutex) { return begin + std::max(mPause, kRetryPause); };
  while (mActive && std::chrono::steady_clock::now() < due()) {
    mChanged.WaitUntil(lock, due());
  }
  if (!mActive || mGone) {
    return false;
  }
  const bool probes = again && mPause > std::chrono::milliseconds::zero();
  const auto end = mAside.begin() + (probes ? 1 : static_cast<std::ptrdiff_t>(mAside.size()));
  failed.assign(std::move_iterator(mAside.begin()), std::move_iterator(end));
  mAside.erase(mAside.begin(), end);
  mOut += static_cast<std::uint32_t>(failed.size());
  return true;
}

void UVCCameraReader::FrameManagerThread(std::vector<XferPtr> failed) {
  while (AwaitFailed(failed)) {
    const auto stalled = [](const XferPtr& record) { return record->status == LIBUSB_TRANSFER_STALL; };
    if (std::ranges::any_of(failed, stalled)) {
      const int result = mIo.ClearHalt(mSource.endpoint);
      VEL_DEBUG("endpoint 0x%x halted, cleared: %d", unsigned{mSource.endpoint}, result);
    }
    for (XferPtr& record : failed) {
      Submit(std::move(record));
    }
  }
}

void UVCCameraReader::Stop() {
  {
    const MutexLock lock(mMutex);
    mActive = false;
    mChanged.NotifyAll();
  }
  if (mThread.joinable()) {
    VEL_DEBUG("wait finish[%d]", 0);
    mThread.join();
  }
  std::uint32_t out = 0;
  {
    const MutexLock lock(mMutex);
    mAside.clear();
    out = mOut;
  }
  if (out > 0) {
    mIo.CancelOwnTransfers(&mCallback);
    const int result = mIo.IsochTransfer(nullptr);
    if (result < 0) {
      VEL_ERROR("Submit transfer error[%d]", result);
    }
  }
  MutexLock lock(mMutex);
  while (mOut > 0 || mUses > 0) {
    mChanged.Wait(lock);
  }
}

}  // namespace vel
