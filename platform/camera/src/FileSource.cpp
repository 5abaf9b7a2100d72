#include "FileSource.h"

#include "CameraLog.h"

namespace oskelo {
namespace {

constexpr std::chrono::milliseconds kOpenLimit(2500);  // Below the 3000 ms that a camera has to open.
constexpr std::chrono::milliseconds kReadLimit(5000);  // For one picture of a source that is live.

}  // namespace

std::unique_ptr<FileSource> FileSource::Open(const std::string& name, const std::atomic<bool>& cancelled) {
  std::unique_ptr<FileSource> source(new FileSource(name));
  source->mLimit.isEnded = [&cancelled] { return cancelled.load(); };
  if (!source->BeginRound(kOpenLimit)) {
    return nullptr;
  }
  source->mLimit.isEnded = [stop = &source->mPacer] { return stop->IsStopped(); };
  const MediaPass& pass = *source->mPass;
  const auto width = static_cast<std::uint32_t>(pass.IsMjpeg() ? pass.Width() : pass.Width() & ~1);
  const auto height = static_cast<std::uint32_t>(pass.Height());
  if (pass.Width() <= 0 || pass.Height() <= 0 || width == 0 || width > kMaxDimension || height > kMaxDimension) {
    CAMERA_ERROR(name, "has pictures of %dx%d, which are not supported", pass.Width(), pass.Height());
    return nullptr;
  }
  const std::uint32_t format = pass.IsMjpeg() ? CAM_FORMAT_MJPEG : CAM_FORMAT_YUYV;
  source->mParams = {{.width = width, .height = height, .pixelFormat = format, .reserved = 0}};
  return source;
}

bool FileSource::Select(const _CameraParam& /*param*/) {
  return true;
}

bool FileSource::BeginRound(std::chrono::milliseconds limit) {
  mLimit.deadline = std::chrono::steady_clock::now() + limit;
  std::string error;
  mPass = MediaPass::Open(mName, mLimit, error);
  if (mPass != nullptr && !mPass->Next()) {
    error = "has no picture that can be read";
  }
  if (!error.empty()) {
    mPass.reset();
    if (!mPacer.IsStopped()) {
      CAMERA_ERROR(mName, "%s", error.c_str());
    }
    return false;
  }
  return true;
}

bool FileSource::Stream(PictureSink& sink) {
  mPacer.Start();
  while (!mPacer.IsStopped()) {
    if (mPass == nullptr && !BeginRound(kReadLimit)) {
      break;
    }
    const std::size_t pictures = PlayRound(sink);
    mPass.reset();
    if (pictures == 0 && !mPacer.IsStopped()) {
      CAMERA_ERROR(mName, "has pictures that cannot be converted");
      break;
    }
  }
  return mPacer.IsStopped();
}

std::size_t FileSource::PlayRound(PictureSink& sink) {
  const auto width = static_cast<int>(mParams.front().width);
  const auto height = static_cast<int>(mParams.front().height);
  std::size_t pictures = 0;
  bool more = true;
  while (more) {
    const std::span<std::uint8_t> picture = mPass->Picture(width, height);
    if (!mPacer.WaitUntilDue()) {
      break;
    }
    if (!picture.empty()) {
      sink.OnPicture(picture);
      ++pictures;
    }
    mLimit.deadline = std::chrono::steady_clock::now() + kReadLimit;
    more = mPass->Next();
    mPacer.Advance(mPass->Interval());
  }
  return pictures;
}

}  // namespace oskelo
