#ifndef VIRTUSB_TESTS_PLATFORM_CAMERA_MEDIA_FILE_H
#define VIRTUSB_TESTS_PLATFORM_CAMERA_MEDIA_FILE_H

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace vel {

// A video made for one test, and deleted with it. Its pictures are 4:2:2 planar: the luma of
// picture n is n + 16 everywhere, the chroma 100 and 200.
class MediaFile {
 public:
  struct Kind {
    const char* name;  // The ending chooses the container.
    AVCodecID codec = AV_CODEC_ID_FFV1;
    AVPixelFormat format = AV_PIX_FMT_YUV422P;
    int width = 64;
    int height = 48;
    int pictures = 5;
    int perSecond = 50;
  };
  explicit MediaFile(const Kind& kind)
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
    Check(avformat_alloc_output_context2(&output, nullptr, nullptr, mPath.c_str()));
    const std::unique_ptr<AVFormatContext, decltype(&avformat_free_context)> owned(output, &avformat_free_context);
    if ((output->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
      encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    Check(avcodec_open2(encoder.get(), codec, nullptr));
    AVStream* stream = avformat_new_stream(output, nullptr);
    stream->time_base = encoder->time_base;
    stream->avg_frame_rate = encoder->framerate;
    Check(avcodec_parameters_from_context(stream->codecpar, encoder.get()));
    Check(avio_open(&output->pb, mPath.c_str(), AVIO_FLAG_WRITE));
    Check(avformat_write_header(output, nullptr));
    const auto freeFrame = [](AVFrame* freed) { av_frame_free(&freed); };
    const std::unique_ptr<AVFrame, decltype(freeFrame)> frame(av_frame_alloc(), freeFrame);
    const auto freePacket = [](AVPacket* freed) { av_packet_free(&freed); };
    const std::unique_ptr<AVPacket, decltype(freePacket)> packet(av_packet_alloc(), freePacket);
    frame->format = kind.format;
    frame->width = kind.width;
    frame->height = kind.height;
    Check(av_frame_get_buffer(frame.get(), 0));
    for (int n = 0; n <= kind.pictures; ++n) {
      const bool last = n == kind.pictures;
      if (!last) {
        Check(av_frame_make_writable(frame.get()));
        frame->pts = n;
        for (int plane = 0; plane < 3; ++plane) {
          const int rows = plane > 0 && kind.format == AV_PIX_FMT_YUV420P ? (kind.height + 1) / 2 : kind.height;
          std::memset(frame->data[plane], plane == 0 ? n + 16 : 100 * plane,
                      static_cast<std::size_t>(frame->linesize[plane]) * static_cast<std::size_t>(rows));
        }
      }
      Check(avcodec_send_frame(encoder.get(), last ? nullptr : frame.get()));
      while (avcodec_receive_packet(encoder.get(), packet.get()) == 0) {
        mPackets.emplace_back(packet->data, packet->data + packet->size);
        av_packet_rescale_ts(packet.get(), encoder->time_base, stream->time_base);
        packet->stream_index = 0;
        Check(av_interleaved_write_frame(output, packet.get()));
      }
    }
    Check(av_write_trailer(output));
    avio_closep(&output->pb);
  }
  MediaFile(const MediaFile&) = delete;
  MediaFile& operator=(const MediaFile&) = delete;
  ~MediaFile() { Remove(); }

  const std::string& Path() const { return mPath; }
  // The coded pictures.
  const std::vector<std::vector<std::uint8_t>>& Packets() const { return mPackets; }
  void Remove() const {
    std::error_code ignored;
    std::filesystem::remove(mPath, ignored);
  }
  // Overwrites what is left of a picture behind its first bytes with garbage.
  void SpoilPicture(std::size_t n) const {
    std::fstream file(mPath, std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), {});
    const std::string packet(mPackets.at(n).begin(), mPackets.at(n).end());
    constexpr std::size_t kKept = 4;
    const std::size_t start = bytes.find(packet) + kKept;
    for (std::size_t i = 0; i < packet.size() - kKept; ++i) {
      bytes.at(start + i) = static_cast<char>(i * 7919 >> 3U);
    }
    file.seekp(0).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

 private:
  static void Check(int result) {
    if (result < 0) {
      throw std::runtime_error("cannot make a video");
    }
  }

  const std::string mPath;
  std::vector<std::vector<std::uint8_t>> mPackets;
};

}  // namespace vel

#endif
