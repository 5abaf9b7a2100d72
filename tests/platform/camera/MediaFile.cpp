#include "MediaFile.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>

extern "C" {
#include <libavformat/avformat.h>
}

namespace vel {
namespace {

void Check(int result, const char* what) {
  if (result < 0) {
    throw std::runtime_error(std::string("cannot make a video: ") + what);
  }
}

}  // namespace

MediaFile::MediaFile(const Kind& kind)
    : mPath(std::filesystem::temp_directory_path() /
            ("capture_test_" + std::to_string(std::random_device()()) + "_" + kind.name)) {
  const AVCodec* codec = avcodec_find_encoder(kind.codec);
  const auto freeCodec = [](AVCodecContext* context) { avcodec_free_context(&context); };
  const std::unique_ptr<AVCodecContext, decltype(freeCodec)> encoder(avcodec_alloc_context3(codec), freeCodec);
  encoder->width = kind.width;
  encoder->height = kind.height;
  encoder->pix_fmt = kind.format;
  encoder->time_base = {1, kind.perSecond};
  encoder->framerate = {kind.perSecond, 1};
  encoder->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;
  AVFormatContext* output = nullptr;
  Check(avformat_alloc_output_context2(&output, nullptr, nullptr, mPath.c_str()), "container");
  const std::unique_ptr<AVFormatContext, decltype(&avformat_free_context)> owned(output, &avformat_free_context);
  if ((output->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
    encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  }
  Check(avcodec_open2(encoder.get(), codec, nullptr), "encoder");
  AVStream* stream = avformat_new_stream(output, nullptr);
  stream->time_base = encoder->time_base;
  stream->avg_frame_rate = encoder->framerate;
  Check(avcodec_parameters_from_context(stream->codecpar, encoder.get()), "stream");
  Check(avio_open(&output->pb, mPath.c_str(), AVIO_FLAG_WRITE), "file");
  Check(avformat_write_header(output, nullptr), "header");
  const auto freeFrame = [](AVFrame* freed) { av_frame_free(&freed); };
  const std::unique_ptr<AVFrame, decltype(freeFrame)> frame(av_frame_alloc(), freeFrame);
  const auto freePacket = [](AVPacket* freed) { av_packet_free(&freed); };
  const std::unique_ptr<AVPacket, decltype(freePacket)> packet(av_packet_alloc(), freePacket);
  frame->format = kind.format;
  frame->width = kind.width;
  frame->height = kind.height;
  Check(av_frame_get_buffer(frame.get(), 0), "picture");
  for (int n = 0; n <= kind.pictures; ++n) {
    const bool last = n == kind.pictures;
    if (!last) {
      Check(av_frame_make_writable(frame.get()), "picture");
      frame->pts = n;
      for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane > 0 && kind.format == AV_PIX_FMT_YUV420P ? (kind.height + 1) / 2 : kind.height;
        std::memset(frame->data[plane], plane == 0 ? n + 16 : 100 * plane,
                    static_cast<std::size_t>(frame->linesize[plane]) * static_cast<std::size_t>(rows));
      }
    }
    Check(avcodec_send_frame(encoder.get(), last ? nullptr : frame.get()), "encode");
    while (avcodec_receive_packet(encoder.get(), packet.get()) == 0) {
      mPackets.emplace_back(packet->data, packet->data + packet->size);
      av_packet_rescale_ts(packet.get(), encoder->time_base, stream->time_base);
      packet->stream_index = 0;
      Check(av_interleaved_write_frame(output, packet.get()), "write");
    }
  }
  Check(av_write_trailer(output), "end");
  avio_closep(&output->pb);
}

MediaFile::~MediaFile() {
  Remove();
}

void MediaFile::Remove() const {
  std::error_code ignored;
  std::filesystem::remove(mPath, ignored);
}

void MediaFile::SpoilPicture(std::size_t n) const {
  std::ifstream file(mPath, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), {});
  const std::vector<std::uint8_t>& packet = mPackets.at(n);
  const auto found = std::search(bytes.begin(), bytes.end(), packet.begin(), packet.end(),
                                 [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
  constexpr std::size_t kKept = 4;
  Spoil(static_cast<std::size_t>(found - bytes.begin()) + kKept, packet.size() - kKept);
}

void MediaFile::Spoil(std::size_t start, std::size_t length) const {
  std::fstream file(mPath, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(start));
  for (std::size_t i = 0; i < length; ++i) {
    file.put(static_cast<char>(i * 7919 >> 3U));
  }
}

}  // namespace vel
