#ifndef VEL_POLICYS_STREAM_UVC_STREAM_H
#define VEL_POLICYS_STREAM_UVC_STREAM_H

#include <cstdint>

#include "base/LockOrder.h"
#include "io/IUsbIo.h"
#include "policys/UVCFrameManager.h"
#include "policys/stream/UVCCameraReader.h"
#include "policys/stream/UVCFrameIntake.h"
#include "policys/stream/UVCReadAnswerer.h"
#include "policys/stream/UVCStreamTally.h"

namespace vel {

// One stream from its start to its stop: reads the camera, makes frames, answers the remote side's reads with them.
// Another stream is another object.
class UVCStream : private UsbIoTransferCallback {
 public:
  struct Format {
    std::uint16_t width;  // Pixels.
    std::uint16_t height;
    _UVC_FRAME_TYPE in;
    _UVC_FRAME_TYPE out;
  };

  // `io` outlives the stream.
  UVCStream(IUsbIo& io, const Format& format, const UVCCameraReader::Source& source);
  UVCStream(const UVCStream&) = delete;
  UVCStream& operator=(const UVCStream&) = delete;
  ~UVCStream() override;

  // False when frames of this format cannot be handled. Once, before Start.
  bool Init();

  // Returns the result of the last submission. The stream has begun whatever it is: what could not be submitted is
  // tried again. Once.
  int Start() { return mReader.Start(); }

  // Ends every transfer of the camera and completes every read. Not from a completion. Repeating it does nothing.
  void Stop();

  // See UVCReadAnswerer. Any thread.
  bool Answer(_UsbIoXferInfo* read) { return mAnswerer.Answer(read); }
  bool Cancel(std::uint32_t localXferId) { return mAnswerer.Cancel(localXferId); }

 private:
  // Completion thread of the backend.
  void UsbIoXferCb(_UsbIoXferInfo* info) override { FrameRequestCB(XferPtr(info)); }
  void FrameRequestCB(XferPtr record);
  void TakeIn(_UsbIoXferInfo& record);

  const Format mFormat;
  const UVCCameraReader::Source mSource;
  UVCFrameManager mFrames;
  UVCStreamTally mTally;
  Mutex mIntakeMutex VEL_LOCK_LEVEL(Intake);
  UVCFrameIntake mIntake VEL_GUARDED_BY(mIntakeMutex);
  UVCReadAnswerer mAnswerer;
  UVCCameraReader mReader;
};

}  // namespace vel

#endif
