#include "far/FarCamera.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "far/PayloadCutter.h"
#include "far/ReadWindow.h"
#include "picture/YuyvDecoder.h"

namespace vel {
namespace {

// A stream that could not start answers reads at once, and without a picture.
constexpr std::chrono::milliseconds kRetryTime{100};

// UVC 1.5, tables and 4-75.
constexpr std::uint8_t kSetClassInterface = 0x21;
constexpr std::uint8_t kSetCur = 0x01;
constexpr std::uint16_t kCommit = 0x0200;
constexpr std::size_t kFormatIndex = 2;
constexpr std::size_t kFrameIndex = 3;
constexpr std::size_t kMaxPayloadTransferSize = 22;
constexpr std::size_t kShortestControl = 26;

bool IsSetInterface(const ControlSetup& setup, std::uint8_t interfaceNumber) {
  return setup.bmRequestType == LIBUSB_RECIPIENT_INTERFACE && setup.bRequest == LIBUSB_REQUEST_SET_INTERFACE &&
         setup.wIndex == interfaceNumber;
}

bool IsJpeg(std::span<const std::uint8_t> picture) {
  return picture.size() > 2 && picture[0] == 0xFF && picture[1] == 0xD8 && picture[2] == 0xFF;
}

}  // namespace

// The newest picture of a stream that no URB has seen, as the guest's driver is to get it. The stream's thread.
class FarCamera::Pictures {
 public:
  explicit Pictures(const CameraMode& mode) : mMode(mode) {}

  // One that cannot be decoded changes nothing. Throws std::runtime_error where this machine has no decoder.
  void Take(Arrival& arrival) {
    const std::span<const std::uint8_t> bytes = arrival.answer.data;
    const std::size_t raw = std::size_t{2} * mMode.width * mMode.height;
    if (mMode.format != PictureFormat::kYuyv || bytes.size() == raw) {
      mRaw = std::move(arrival);
      mWaits = Waits::kRaw;
      return;
    }
    // A camera of raw pictures that sends others: they were encoded on the way, or its source has nothing else.
    const PictureFormat format = IsJpeg(bytes) ? PictureFormat::kMjpeg : PictureFormat::kH264;
    if (!mDecoder || format != mDecoded) {
      mDecoder.reset();
      mDecoder.emplace(format, mMode.width, mMode.height);
      mDecoded = format;
    }
    mWaits = mDecoder->Take(bytes) ? Waits::kDecoded : mWaits;
  }

  bool HasNext() const { return mWaits != Waits::kNothing; }

  // The picture that waits, valid until the next call; empty when there is none.
  std::span<const std::uint8_t> Next() {
    switch (std::exchange(mWaits, Waits::kNothing)) {
      case Waits::kNothing:
        return {};
      case Waits::kRaw:
        mShown = std::move(mRaw);
        return mShown.answer.data;
      case Waits::kDecoded:
        return mDecoder->Write(mYuyv) ? std::span<const std::uint8_t>(mYuyv) : std::span<const std::uint8_t>();
    }
    return {};
  }

 private:
  enum class Waits : std::uint8_t { kNothing, kRaw, kDecoded };

  const CameraMode mMode;
  Waits mWaits = Waits::kNothing;
  Arrival mRaw;
  Arrival mShown;
  PictureFormat mDecoded = PictureFormat::kOther;
  std::optional<YuyvDecoder> mDecoder;
  std::vector<std::uint8_t> mYuyv;
};

void FarCamera::BeforeRequest(const ControlSetup& setup, std::span<const std::uint8_t> data) {
  if (setup.bmRequestType == kSetClassInterface && setup.bRequest == kSetCur && setup.wValue == kCommit &&
      (setup.wIndex & 0xFFU) == mModel.interfaceNumber && data.size() >= kShortestControl) {
    const std::uint8_t* size = data.data() + kMaxPayloadTransferSize;
    mAgreed = {.formatIndex = data[kFormatIndex],
               .frameIndex = data[kFrameIndex],
               .payloadBytes = size[0] | (std::uint32_t{size[1]} << 8U) | (std::uint32_t{size[2]} << 16U) |
                               (std::uint32_t{size[3]} << 24U)};
  }
  const bool configures =
      setup.bmRequestType == LIBUSB_RECIPIENT_DEVICE && setup.bRequest == LIBUSB_REQUEST_SET_CONFIGURATION;
  const bool endsBulk = IsBulk() && setup.bmRequestType == LIBUSB_RECIPIENT_ENDPOINT &&
                        setup.bRequest == LIBUSB_REQUEST_CLEAR_FEATURE && setup.wIndex == mModel.endpoint;
  if (configures || endsBulk || IsSetInterface(setup, mModel.interfaceNumber)) {
    Stop();
  }
}

void FarCamera::AfterRequest(const ControlSetup& setup) {
  if (IsSetInterface(setup, mModel.interfaceNumber) && setup.wValue != 0) {
    Start();
  }
}

void FarCamera::OnUrb() {
  if (IsBulk()) {
    Start();  // Nothing but its reads starts such a camera.
  }
  const MutexLock lock(mMutex);
  mUrbCame = true;
  if (mWantsUrb) {
    mChanged.NotifyAll();
  }
}

void FarCamera::Start() {
  const auto mode = std::ranges::find_if(mModel.modes, [this](const CameraMode& each) {
    return each.formatIndex == mAgreed.formatIndex && each.frameIndex == mAgreed.frameIndex;
  });
  if (mode == mModel.modes.end() || mThread.joinable()) {
    return;  // Nothing was agreed on: its URBs wait until they are taken back.
  }
  {
    const MutexLock lock(mMutex);
    mStopped = false;
    mUrbCame = false;
  }
  if (IsBulk()) {
    mPort.SendSetting(mModel.interfaceNumber, 1);  // Which the camera refuses; the module wants to be told.
  }
  ReadUpTo(ReadWindow::kFirst);
  mThread = std::thread([this, mode = *mode] { Run(mode); });
}

void FarCamera::Stop() {
  if (!mThread.joinable()) {
    return;
  }
  {
    const MutexLock lock(mMutex);
    mStopped = true;
    mChanged.NotifyAll();
  }
  mThread.join();
  std::set<std::uint32_t> reads;
  {
    const MutexLock lock(mMutex);
    reads.swap(mReads);
    mArrivals.clear();
    mRetries.clear();
  }
  // The latest first, so that no other takes a picture meanwhile.
  std::for_each(reads.rbegin(), reads.rend(), [this](std::uint32_t streamId) { mPort.CancelRead(streamId); });
  if (IsBulk()) {
    mPort.SendSetting(mModel.interfaceNumber, 0);
  }
}

void FarCamera::Read() {
  const std::uint32_t streamId = mPort.NewStreamId();
  {
    const MutexLock lock(mMutex);
    mReads.insert(streamId);
  }
  mPort.SendRead(mModel.endpoint, streamId, mAgreed.payloadBytes);
}

void FarCamera::ReadUpTo(int count) {
  int missing = count;
  {
    const MutexLock lock(mMutex);
    missing -= static_cast<int>(mReads.size() + mRetries.size() + mArrivals.size());
  }
  for (; missing > 0; --missing) {
    Read();
  }
}

bool FarCamera::TakeReply(const TransferAnswer& answer, std::unique_ptr<VelPacket>& packet) {
  const MutexLock lock(mMutex);
  if (mReads.erase(answer.streamId) == 0) {
    return false;
  }
  if (answer.status == LIBUSB_TRANSFER_COMPLETED && !answer.data.empty()) {
    mArrivals.push_back({std::move(packet), answer});
  } else {
    mRetries.push_back(Clock::now() + kRetryTime);
  }
  mChanged.NotifyAll();
  return true;
}

bool FarCamera::Await(bool wantsUrb, std::deque<Arrival>& arrivals) {
  int due = 0;
  {
    MutexLock lock(mMutex);
    mWantsUrb = wantsUrb;
    while (!mStopped && mArrivals.empty() && !(wantsUrb && mUrbCame) &&
           (mRetries.empty() || mRetries.front() > Clock::now())) {
      if (mRetries.empty()) {
        mChanged.Wait(lock);
      } else {
        mChanged.WaitUntil(lock, mRetries.front());
      }
    }
    if (mStopped) {
      return false;
    }
    mUrbCame = false;
    arrivals.swap(mArrivals);
    for (; !mRetries.empty() && mRetries.front() <= Clock::now(); ++due) {
      mRetries.pop_front();
    }
  }
  for (; due > 0; --due) {
    Read();
  }
  return true;
}

void FarCamera::Run(const CameraMode& mode) {
  Pictures pictures(mode);
  PayloadCutter cutter;
  ReadWindow window;
  std::deque<Arrival> arrivals;
  const Fill fill = [&cutter](std::span<UrbPacket> packets, std::uint32_t length) {
    return packets.empty() ? cutter.CutBulk(length) : cutter.Cut(packets);
  };
  while (Await(cutter.HasRest(), arrivals)) {
    for (; !arrivals.empty(); arrivals.pop_front()) {
      if (pictures.HasNext()) {
        mPort.OnLatePicture();
      }
      try {
        pictures.Take(arrivals.front());
      } catch (const std::runtime_error& error) {
        mPort.Note(error.what());
        return;
      }
      window.Arrived(Clock::now());
      const auto untaken = static_cast<int>(arrivals.size()) - 1;
      ReadUpTo(window.Wanted(mPort.LeastRoundTrip()) - untaken);
    }
    bool waiting = true;
    while (waiting) {
      if (!cutter.HasRest() || cutter.IsUncut()) {  // One that no URB has seen gives way to a newer one.
        const auto picture = pictures.Next();
        if (!picture.empty()) {
          if (cutter.HasRest()) {
            mPort.OnLatePicture();
          }
          cutter.Begin(picture);
        }
      }
      waiting = cutter.HasRest() && mPort.AnswerHeld(fill);
    }
  }
}

}  // namespace vel
