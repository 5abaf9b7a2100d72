#include "FrameSource.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "codec/FrameBlocks.h"

namespace vel {
namespace {

void Check(int result, const std::string& what) {
  if (result < 0) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> reason{};
    av_strerror(result, reason.data(), reason.size());
    throw std::runtime_error(what + ": " + reason.data());
  }
}

}  // namespace

FrameSource::FrameSource(const std::string& path, const std::string& size) : mPath(path) {
  AVDictionary* options = nullptr;
  const AVInputFormat* format = nullptr;
  if (!size.empty()) {
    format = av_find_input_format("rawvideo");
    av_dict_set(&options, "pixel_format", "yuyv422", 0);
    av_dict_set(&options, "video_size", size.c_str(), 0);
  }
  AVFormatContext* input = nullptr;
  const int opened = avformat_open_input(&input, path.c_str(), format, &options);
  av_dict_free(&options);
  Check(opened, "cannot read " + path);
  mInput.reset(input);
  Check(avformat_find_stream_info(input, nullptr), "cannot read " + path);
  const int number = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  Check(number, path + " has no video");
  mStream = input->streams[number];
  const AVCodecParameters& codec = *mStream->codecpar;
  if (codec.codec_id == AV_CODEC_ID_RAWVIDEO && codec.format == AV_PIX_FMT_YUYV422) {
    mType = UVC_FRAME_TYPE_YUYV;
  } else if (codec.codec_id != AV_CODEC_ID_MJPEG) {
    throw std::runtime_error(path + " is " + avcodec_get_name(codec.codec_id) +
                             ", not MJPEG or raw YUYV (for a raw file without header give --size)");
  }
  if (Width() <= 0 || Height() <= 0 || Width() > 0xFFFF || Height() > 0xFFFF) {
    throw std::runtime_error(path + " does not say how large its pictures are");
  }
}

UVCFramePtr FrameSource::Next() {
  while (true) {
    av_packet_unref(mPacket.get());
    const int result = av_read_frame(mInput.get(), mPacket.get());
    if (result == AVERROR_EOF) {
      return nullptr;
    }
    Check(result, "cannot read on in " + mPath);
    if (mPacket->stream_index == mStream->index && mPacket->size > 0) {
      break;
    }
  }
  const auto size = static_cast<std::uint32_t>(mPacket->size);
  HeapBlock data = FrameBlocks::Take(size);
  if (data == nullptr) {
    throw std::runtime_error("no memory for a frame of " + std::to_string(size) + " bytes");
  }
  std::memcpy(data.get(), mPacket->data, size);
  return MakeUvcFrame(std::move(data), size, mNext++);
}

int FrameSource::Width() const {
  return mStream->codecpar->width;
}
int FrameSource::Height() const {
  return mStream->codecpar->height;
}

double FrameSource::Rate() const {
  const double rate = av_q2d(mStream->avg_frame_rate.num > 0 ? mStream->avg_frame_rate : mStream->r_frame_rate);
  return rate > 0 ? rate : 25;
}

}  // namespace vel
