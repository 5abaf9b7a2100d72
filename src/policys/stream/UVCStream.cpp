#include "policys/stream/UVCStream.h"

#include <utility>

#include "base/VelLog.h"

namespace vel {

UVCStream::UVCStream(IUsbIo& io, const Format& format, const UVCCameraReader::Source& source)
    : mFormat(format),
      mSource(source),
      mFrames(format.in, format.out),
      mTally(source.newestPictures),
      mIntake(mFrames, mTally, source),
      mAnswerer(mFrames, mTally),
      mReader(io, *this, source) {}

UVCStream::~UVCStream() {
  Stop();
}

void UVCStream::Stop() {
  mReader.Stop();
  mAnswerer.Stop();
  mFrames.Release();
}

bool UVCStream::Init() {
  if (mFormat.in == mFormat.out) {  // Untouched frames are made ready on the thread that reads the camera.
    mFrames.SetFrameListener([this] { mAnswerer.FrameReady(); });
  } else {
    mFrames.SetFrameListener([this] { mAnswerer.AnswerHere(); });
  }
  return mAnswerer.Start() && mFrames.Init(mFormat.width, mFormat.height, mFormat.in, mFormat.out, nullptr) == 0;
}

void UVCStream::FrameRequestCB(XferPtr record) {
  if (record->status == kXferCompleted && mReader.IsActive()) {
    TakeIn(*record);
  } else if (record->status == LIBUSB_TRANSFER_NO_DEVICE) {
    mAnswerer.GiveUpWaiting();
  }
  mReader.Resubmit(std::move(record));  // The last that is touched: Stop may be waiting for it.
}

void UVCStream::TakeIn(_UsbIoXferInfo& record) {
  const MutexLock lock(mIntakeMutex);
  switch (mSource.kind) {
    case UVCCameraReader::Kind::kWholeFrame:
      mIntake.TakeWholeFrame(record);
      break;
    case UVCCameraReader::Kind::kIsochronous:
      mIntake.TakePackets(record);
      break;
    case UVCCameraReader::Kind::kBulk:
      mIntake.TakePayload(record);
      break;
  }
}

}  // namespace vel
