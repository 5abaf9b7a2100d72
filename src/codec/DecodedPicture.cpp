#include "codec/DecodedPicture.h"

#include <cstring>
#include <optional>

#include "base/VelLog.h"
#include "pixel/PixelConvert.h"

namespace vel {
namespace {

PlaneIn Plane(const AVFrame& picture, int plane) {
  return {picture.data[plane], picture.linesize[plane]};
}

// Planes by FFmpeg's format; the ones of MJPEG are the full-range twins.
std::optional<ChromaLayout> LayoutOf(const AVFrame& picture, _UVC_DECODER_TYPE type) {
  switch (picture.format) {
    case AV_PIX_FMT_YUV420P:
      return type == UVC_DECODER_TYPE_H264 ? std::optional(ChromaLayout::k420) : std::nullopt;
    case AV_PIX_FMT_YUVJ420P:
      return ChromaLayout::k420;
    case AV_PIX_FMT_YUVJ422P:
      return type == UVC_DECODER_TYPE_MJPEG ? std::optional(ChromaLayout::k422) : std::nullopt;
    case AV_PIX_FMT_YUVJ444P:
      return type == UVC_DECODER_TYPE_MJPEG ? std::optional(ChromaLayout::k444) : std::nullopt;
    default:
      return std::nullopt;
  }
}

void CopyPlane(PlaneIn from, std::uint8_t* to, std::size_t width, std::size_t height) {
  for (std::size_t row = 0; row < height; ++row) {
    std::memcpy(to + row * width, from.data + static_cast<std::ptrdiff_t>(row) * from.stride, width);
  }
}

void CopyToPlanar(const AVFrame& picture, std::uint8_t* out) {
  const auto width = static_cast<std::size_t>(picture.width);
  const auto height = static_cast<std::size_t>(picture.height);
  const std::size_t pixels = width * height;
  CopyPlane(Plane(picture, 0), out, width, height);
  CopyPlane(Plane(picture, 1), out + pixels, width / 2, height / 2);
  CopyPlane(Plane(picture, 2), out + pixels * 5 / 4, width / 2, height / 2);
}

}  // namespace

std::size_t DecodedPicture::BlockBytes() const {
  return static_cast<std::size_t>(mFrame.width) * static_cast<std::size_t>(mFrame.height) * 2;
}

std::uint32_t DecodedPicture::Bytes() const {
  const auto block = static_cast<std::uint32_t>(BlockBytes());
  switch (mFormat) {
    case UVC_DECODER_OUTPUT_YUYV:
      return block;
    case UVC_DECODER_OUTPUT_I420:
      return mType == UVC_DECODER_TYPE_H264 ? block * 3 / 4 : 0;
  }
  return 0;
}

void DecodedPicture::LogFormat() const {
  if (Bytes() == 0) {
    if (mFormat == UVC_DECODER_OUTPUT_I420) {
      VEL_ERROR("Unsupport yuv format when use this codec");
    } else {
      VEL_ERROR("Unknow yuv format.");
    }
  } else if (mType == UVC_DECODER_TYPE_MJPEG) {
    VEL_DEBUG("mjpeg decoder  format = %d \n", mFrame.format);
    if (!LayoutOf(mFrame, mType)) {
      VEL_ERROR("mjpeg decoder  unknow format = %d \n", mFrame.format);
    }
  } else if (!LayoutOf(mFrame, mType)) {
    VEL_ERROR("h264 decoder unknown format = %d", mFrame.format);
  }
}

void DecodedPicture::Convert(std::uint8_t* out) const {
  const std::optional<ChromaLayout> layout = LayoutOf(mFrame, mType);
  if (!layout) {
    return;
  }
  if (mFormat == UVC_DECODER_OUTPUT_YUYV) {
    PlanarToYuyv(*layout, Plane(mFrame, 0), Plane(mFrame, 1), Plane(mFrame, 2), out, mFrame.width, mFrame.height);
  } else if (mFormat == UVC_DECODER_OUTPUT_I420 && mType == UVC_DECODER_TYPE_H264) {
    CopyToPlanar(mFrame, out);
  }
}

void DecodedPicture::FillUnknownWithBlack(std::uint8_t* out) const {
  constexpr std::uint8_t kBlackLuma = 16;  // Limited range, as receivers take YUYV to be (ITU-R BT.601).
  constexpr std::uint8_t kNoColour = 128;
  if (LayoutOf(mFrame, mType)) {
    return;
  }
  const std::size_t bytes = BlockBytes();
  if (mFormat == UVC_DECODER_OUTPUT_YUYV) {
    for (std::size_t i = 0; i < bytes; i += 2) {
      out[i] = kBlackLuma;
      out[i + 1] = kNoColour;
    }
  } else {
    std::memset(out, kBlackLuma, bytes / 2);
    std::memset(out + bytes / 2, kNoColour, bytes / 2);
  }
}

HeapBlock DecodedPicture::ToBlock() const {
  HeapBlock block = FrameBlocks::Take(BlockBytes());
  if (block == nullptr) {
    VEL_ERROR("no memory for a picture of %dx%d", mFrame.width, mFrame.height);
    return nullptr;
  }
  FillUnknownWithBlack(block.get());
  Convert(block.get());
  return block;
}

FramePtr DecodedPicture::AsPlanar420() const {
  const std::optional<ChromaLayout> layout = LayoutOf(mFrame, mType);
  if (!layout || *layout == ChromaLayout::k444 || mFrame.width % 2 != 0 || mFrame.height % 2 != 0) {
    return nullptr;
  }
  FramePtr view(av_frame_alloc());
  if (view == nullptr) {
    return nullptr;
  }
  view->format = AV_PIX_FMT_YUV420P;
  view->width = mFrame.width;
  view->height = mFrame.height;
  for (int i = 0; i < AV_NUM_DATA_POINTERS && mFrame.buf[i] != nullptr; ++i) {
    view->buf[i] = av_buffer_ref(mFrame.buf[i]);
    if (view->buf[i] == nullptr) {
      return nullptr;
    }
  }
  view->data[0] = mFrame.data[0];
  view->linesize[0] = mFrame.linesize[0];
  // Chroma of every row: that of the odd ones.
  const bool everyRow = *layout == ChromaLayout::k422;
  for (int plane = 1; plane <= 2; ++plane) {
    view->data[plane] = mFrame.data[plane] + (everyRow ? mFrame.linesize[plane] : 0);
    view->linesize[plane] = mFrame.linesize[plane] * (everyRow ? 2 : 1);
  }
  return view;
}

}  // namespace vel
