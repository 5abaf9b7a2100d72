#ifndef VEL_POLICYS_STREAM_UVC_CAMERA_READER_H
#define VEL_POLICYS_STREAM_UVC_CAMERA_READER_H

#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "base/LockOrder.h"
#include "io/IUsbIo.h"
#include "policys/stream/FailureLine.h"

namespace vel {

// Keeps transfers of a camera's streaming endpoint in flight. Every record is submitted again from its own completion;
// one that failed goes to a thread, which waits a moment, clears a halt and submits it again, unless the device is
// gone. While everything fails it waits longer and longer, and tries with one record alone. Several are in flight at
// once, since with a single one the camera's data is lost between a completion and the next submission.
class UVCCameraReader {
 public:
  enum class Kind : std::uint8_t {
    kWholeFrame,   // Emulated: a transfer is a picture.
    kIsochronous,  // 32 packets a transfer.
    kBulk,         // A transfer is a payload, ended by a short packet or by its largest size.
  };
  struct Source {
    Kind kind;
    std::uint8_t endpoint;
    std::uint32_t frameSize;          // Bytes, dwMaxVideoFrameSize.
    std::uint32_t payloadSize;        // Bytes, as much as a packet or a bulk transfer may carry.
    std::uint32_t pictureSize = 0;    // Bytes of each whole picture; 0 where they differ.
    bool headerLengthCounts = false;  // See UVCPayloadHeader::SizeOf.
    bool newestPictures = false;      // See UVCStreamTally.
  };
  static constexpr std::uint32_t kPackets = 32;
  // Isochronous transfers in flight. At 8000 packets a second five are 20 ms, which is how long the thread that handles
  // events may be kept from running.
  static constexpr std::uint32_t kIsoInFlight = 5;
  static constexpr std::uint32_t kBulkInFlight = 3;

  // `callback` takes each completed record and gives it to Resubmit. Both outlive this object.
  UVCCameraReader(IUsbIo& io, UsbIoTransferCallback& callback, const Source& source);
  UVCCameraReader(const UVCCameraReader&) = delete;
  UVCCameraReader& operator=(const UVCCameraReader&) = delete;
  ~UVCCameraReader() = default;  // Stop comes first.

  // False when the sizes make no transfer that can be submitted.
  static bool IsUsable(const Source& source);

  // Submits the transfers, once. Returns the result of the last submission, negative when it failed. Loop thread.
  int Start();

  // Ends every transfer and waits until the callback has given each of them back, which the backend sees to after a
  // cancel. Not from the callback. Repeating it does nothing.
  void Stop();

  // Takes a completed record: submits it again, puts it aside when it failed, frees it when stopping. Completion
  // thread, last in the callback.
  void Resubmit(XferPtr record);

  bool IsActive() const;

 private:
  // A thread between a submission and its last look at this object.
  class Use;

  XferPtr MakeRecord(std::uint32_t number) const;
  bool Prepare(_UsbIoXferInfo& info) const;
  int Submit(XferPtr record);
  void FrameManagerThread(std::vector<XferPtr> failed);
  // Takes what failed and is to be submitted now, after its pause; false at the end.
  bool AwaitFailed(std::vector<XferPtr>& failed);

  IUsbIo& mIo;
  UsbIoTransferCallback& mCallback;
  const Source mSource;

  mutable Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  CondVar mChanged;
  bool mActive VEL_GUARDED_BY(mMutex) = false;
  bool mGone VEL_GUARDED_BY(mMutex) = false;      // Unplugged: nothing is tried again.
  std::uint32_t mOut VEL_GUARDED_BY(mMutex) = 0;  // Records with the backend or the callback.
  std::uint32_t mUses VEL_GUARDED_BY(mMutex) = 0;
  std::uint32_t mStopped VEL_GUARDED_BY(mMutex) = 0;
  std::vector<XferPtr> mAside VEL_GUARDED_BY(mMutex);         // Failed, for the thread.
  std::chrono::milliseconds mPause VEL_GUARDED_BY(mMutex){};  // Before the next try; none since the last success.
  FailureLine mSubmitFailures VEL_GUARDED_BY(mMutex);
  FailureLine mTransferFailures VEL_GUARDED_BY(mMutex);
  std::thread mThread;
};

}  // namespace vel

#endif
