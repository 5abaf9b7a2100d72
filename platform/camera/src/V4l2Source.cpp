#include "V4l2Source.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "CameraLog.h"

namespace oskelo {
namespace {

struct Size {
  std::uint32_t width;
  std::uint32_t height;
};

// Offered by a device that takes any size within limits.
constexpr std::array kUsualSizes = {Size{320, 240},  Size{640, 480},   Size{800, 600},
                                    Size{1280, 720}, Size{1920, 1080}, Size{3840, 2160}};
constexpr std::uint32_t kMostEntries = 256;  // Of one list of a device; ends a list without end.
constexpr std::uint32_t kPicturesPerSecond = 30;

bool IsReachable(std::uint32_t value, std::uint32_t least, std::uint32_t most, std::uint32_t step) {
  return value >= least && value <= most && (step == 0 || (value - least) % step == 0);
}

}  // namespace

std::unique_ptr<V4l2Source> V4l2Source::Create(std::string name, std::unique_ptr<V4l2Device> device) {
  std::unique_ptr<V4l2Source> source(new V4l2Source(std::move(name), std::move(device)));
  if (!Captures(*source->mDevice)) {
    CAMERA_ERROR(source->mName, "captures no pictures");
    return nullptr;
  }
  source->ListFormats();
  if (source->mParams.empty()) {
    CAMERA_ERROR(source->mName, "has neither YUYV nor MJPEG pictures");
    return nullptr;
  }
  return source->Select(source->mParams.front()) ? std::move(source) : nullptr;
}

bool V4l2Source::Captures(V4l2Device& device) {
  v4l2_capability capability{};
  if (device.Ioctl(VIDIOC_QUERYCAP, &capability) < 0) {
    return false;
  }
  const std::uint32_t can =
      (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps : capability.capabilities;
  return (can & V4L2_CAP_VIDEO_CAPTURE) != 0 && (can & V4L2_CAP_STREAMING) != 0;
}

void V4l2Source::ListFormats() {
  v4l2_fmtdesc format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  for (; format.index < kMostEntries && mDevice->Ioctl(VIDIOC_ENUM_FMT, &format) == 0; ++format.index) {
    if (format.pixelformat == V4L2_PIX_FMT_YUYV) {
      ListSizes(format.pixelformat, CAM_FORMAT_YUYV);
    } else if (format.pixelformat == V4L2_PIX_FMT_MJPEG || format.pixelformat == V4L2_PIX_FMT_JPEG) {
      ListSizes(format.pixelformat, CAM_FORMAT_MJPEG);
    }
  }
}

void V4l2Source::ListSizes(std::uint32_t fourcc, std::uint32_t pixelFormat) {
  v4l2_frmsizeenum entry{};
  entry.pixel_format = fourcc;
  for (; entry.index < kMostEntries && mDevice->Ioctl(VIDIOC_ENUM_FRAMESIZES, &entry) == 0; ++entry.index) {
    if (entry.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
      AddSize(entry.discrete.width, entry.discrete.height, pixelFormat);
      continue;
    }
    const v4l2_frmsize_stepwise& limits = entry.stepwise;
    for (const Size& size : kUsualSizes) {
      if (IsReachable(size.width, limits.min_width, limits.max_width, limits.step_width) &&
          IsReachable(size.height, limits.min_height, limits.max_height, limits.step_height)) {
        AddSize(size.width, size.height, pixelFormat);
      }
    }
    break;  // Limits are one entry for all sizes.
  }
}

void V4l2Source::AddSize(std::uint32_t width, std::uint32_t height, std::uint32_t pixelFormat) {
  if (width > 0 && width <= kMaxDimension && height > 0 && height <= kMaxDimension &&
      (width % 2 == 0 || pixelFormat == CAM_FORMAT_MJPEG)) {
    mParams.push_back({.width = width, .height = height, .pixelFormat = pixelFormat, .reserved = 0});
  }
}

bool V4l2Source::Select(const _CameraParam& param) {
  const bool mjpeg = param.pixelFormat == CAM_FORMAT_MJPEG;
  v4l2_format format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  format.fmt.pix.width = param.width;
  format.fmt.pix.height = param.height;
  format.fmt.pix.pixelformat = mjpeg ? V4L2_PIX_FMT_MJPEG : V4L2_PIX_FMT_YUYV;
  format.fmt.pix.field = V4L2_FIELD_ANY;
  int result = mDevice->Ioctl(VIDIOC_S_FMT, &format);
  if (result == 0 && mjpeg && format.fmt.pix.pixelformat != V4L2_PIX_FMT_MJPEG) {
    format.fmt.pix.pixelformat = V4L2_PIX_FMT_JPEG;
    result = mDevice->Ioctl(VIDIOC_S_FMT, &format);
  }
  if (result < 0) {
    return Fail("does not take the size", result);
  }
  const v4l2_pix_format& taken = format.fmt.pix;
  const bool formatTaken = mjpeg ? taken.pixelformat == V4L2_PIX_FMT_MJPEG || taken.pixelformat == V4L2_PIX_FMT_JPEG
                                 : taken.pixelformat == V4L2_PIX_FMT_YUYV;
  if (taken.width != param.width || taken.height != param.height || !formatTaken) {
    CAMERA_ERROR(mName, "took %ux%u instead of %ux%u", taken.width, taken.height, param.width, param.height);
    return false;
  }
  mSelected = param;
  mRowBytes = std::max(taken.bytesperline, 2 * param.width);
  v4l2_streamparm rate{};
  rate.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  rate.parm.capture.timeperframe = {1, kPicturesPerSecond};
  mDevice->Ioctl(VIDIOC_S_PARM, &rate);  // A device that has another rate keeps it.
  return true;
}

bool V4l2Source::Stream(PictureSink& sink) {
  V4l2Buffers buffers(*mDevice);
  const int result = buffers.Start();
  return result < 0 ? Fail("cannot start to capture", result) : Capture(buffers, sink);
}

bool V4l2Source::Capture(V4l2Buffers& buffers, PictureSink& sink) {
  while (mDevice->Wait() != V4l2Device::Event::kWoken) {
    V4l2Buffers::Filled filled;
    int result = buffers.Take(filled);
    if (result == 0) {
      if (!filled.broken) {
        Deliver(filled.bytes, sink);
      }
      result = buffers.Return(filled.index);
    }
    if (result < 0 && result != -EAGAIN) {
      return Fail("stopped capturing", result);
    }
  }
  return true;
}

void V4l2Source::Deliver(std::span<std::uint8_t> bytes, PictureSink& sink) {
  const std::size_t row = std::size_t{2} * mSelected.width;
  if (mSelected.pixelFormat == CAM_FORMAT_MJPEG) {
    if (!bytes.empty()) {
      sink.OnPicture(bytes);
    }
    return;
  }
  if (bytes.size() < (mSelected.height - 1) * std::size_t{mRowBytes} + row) {
    return;  // Cut short: the device lost a part of it.
  }
  if (mRowBytes == row) {
    sink.OnPicture(bytes.first(row * mSelected.height));
    return;
  }
  mUnpadded.resize(row * mSelected.height);
  for (std::size_t y = 0; y < mSelected.height; ++y) {
    std::memcpy(&mUnpadded[y * row], &bytes[y * mRowBytes], row);
  }
  sink.OnPicture(mUnpadded);
}

bool V4l2Source::Fail(const char* what, int result) const {
  CAMERA_ERROR(mName, "%s: %s", what,
               result == -ENODEV ? "it was unplugged" : std::generic_category().message(-result).c_str());
  return false;
}

}  // namespace oskelo
