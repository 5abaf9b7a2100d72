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

std::uint32_t ConvertToYuyv(const AVFrame& picture, _UVC_DECODER_TYPE type, std::uint8_t* out) {
  const auto bytes = static_cast<std::uint32_t>(DecodedPictureBytes(picture));
  const std::optional<ChromaLayout> layout = LayoutOf(picture, type);
  if (type == UVC_DECODER_TYPE_MJPEG) {
    VEL_DEBUG("mjpeg decoder  format = %d \n", picture.format);
  }
  if (!layout) {
    if (type == UVC_DECODER_TYPE_MJPEG) {
      VEL_ERROR("mjpeg decoder  unknow format = %d \n", picture.format);
    } else {
      VEL_ERROR("h264 decoder unknown format = %d", picture.format);
    }
    return bytes;
  }
  PlanarToYuyv(*layout, Plane(picture, 0), Plane(picture, 1), Plane(picture, 2), out, picture.width, picture.height);
  return bytes;
}

void CopyPlane(PlaneIn from, std::uint8_t* to, std::size_t width, std::size_t height) {
  for (std::size_t row = 0; row < height; ++row) {
    std::memcpy(to + row * width, from.data + static_cast<std::ptrdiff_t>(row) * from.stride, width);
  }
}

std::uint32_t CopyToPlanar(const AVFrame& picture, std::uint8_t* out) {
  const auto width = static_cast<std::size_t>(picture.width);
  const auto height = static_cast<std::size_t>(picture.height);
  const std::size_t pixels = width * height;
  if (!LayoutOf(picture, UVC_DECODER_TYPE_H264)) {
    VEL_ERROR("h264 decoder unknown format = %d", picture.format);
  } else {
    CopyPlane(Plane(picture, 0), out, width, height);
    CopyPlane(Plane(picture, 1), out + pixels, width / 2, height / 2);
    CopyPlane(Plane(picture, 2), out + pixels * 5 / 4, width / 2, height / 2);
  }
  return static_cast<std::uint32_t>(pixels * 3 / 2);
}

}  // namespace

FramePtr ViewAsPlanar420(const AVFrame& picture, _UVC_DECODER_TYPE type) {
  const std::optional<ChromaLayout> layout = LayoutOf(picture, type);
  if (!layout || *layout == ChromaLayout::k444 || picture.width % 2 != 0 || picture.height % 2 != 0) {
    return nullptr;
  }
  FramePtr view(av_frame_alloc());
  if (view == nullptr) {
    return nullptr;
  }
  view->format = AV_PIX_FMT_YUV420P;
  view->width = picture.width;
  view->height = picture.height;
  for (int i = 0; i < AV_NUM_DATA_POINTERS && picture.buf[i] != nullptr; ++i) {
    view->buf[i] = av_buffer_ref(picture.buf[i]);
    if (view->buf[i] == nullptr) {
      return nullptr;
    }
  }
  view->data[0] = picture.data[0];
  view->linesize[0] = picture.linesize[0];
  // Chroma of every row: that of the odd ones.
  const bool everyRow = *layout == ChromaLayout::k422;
  for (int plane = 1; plane <= 2; ++plane) {
    view->data[plane] = picture.data[plane] + (everyRow ? picture.linesize[plane] : 0);
    view->linesize[plane] = picture.linesize[plane] * (everyRow ? 2 : 1);
  }
  return view;
}

std::size_t DecodedPictureBytes(const AVFrame& picture) {
  return static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height) * 2;
}

std::uint32_t ConvertDecodedPicture(const AVFrame& picture, _UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format,
                                    std::uint8_t* out) {
  switch (format) {
    case UVC_DECODER_OUTPUT_YUYV:
      return ConvertToYuyv(picture, type, out);
    case UVC_DECODER_OUTPUT_I420:
      if (type == UVC_DECODER_TYPE_H264) {
        return CopyToPlanar(picture, out);
      }
      VEL_ERROR("Unsupport yuv format when use this codec");
      return 0;
  }
  VEL_ERROR("Unknow yuv format.");
  return 0;
}

void FillUnknownWithBlack(const AVFrame& picture, _UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format,
                          std::uint8_t* out) {
  constexpr std::uint8_t kBlackLuma = 16;  // Limited range, as receivers take YUYV to be (ITU-R BT.601).
  constexpr std::uint8_t kNoColour = 128;
  if (LayoutOf(picture, type)) {
    return;
  }
  const std::size_t bytes = DecodedPictureBytes(picture);
  if (format == UVC_DECODER_OUTPUT_YUYV) {
    for (std::size_t i = 0; i < bytes; i += 2) {
      out[i] = kBlackLuma;
      out[i + 1] = kNoColour;
    }
  } else {
    std::memset(out, kBlackLuma, bytes / 2);
    std::memset(out + bytes / 2, kNoColour, bytes / 2);
  }
}

}  // namespace vel
