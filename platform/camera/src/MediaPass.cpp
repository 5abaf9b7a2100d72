#include "MediaPass.h"

#include <array>
#include <filesystem>
#include <system_error>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include "CameraSource.h"

namespace oskelo {
namespace {

constexpr std::chrono::nanoseconds kSecond(1'000'000'000);
constexpr std::chrono::nanoseconds kLongestInterval = 2 * kSecond;  // Beyond it a timestamp is taken for broken.
constexpr double kUsualRate = 25;                                   // Pictures per second, where a source has no rate.
constexpr double kHighestRate = 1000;
constexpr int kQuiet = AV_LOG_DEBUG - AV_LOG_ERROR;  // Broken pictures are no news for the log.
constexpr std::size_t kScalerSlack = 64;             // Bytes that the scaler may write behind the last row.

int IsExpired(void* context) {
  const auto& limit = *static_cast<const ReadLimit*>(context);
  return limit.isEnded() || std::chrono::steady_clock::now() >= limit.deadline ? 1 : 0;
}

std::string ErrorText(int error, const ReadLimit& limit) {
  if (error == AVERROR_EXIT) {
    return limit.isEnded() ? "closed while it was being opened" : "gave nothing in time";
  }
  if (error == AVERROR_EOF) {
    return "is empty or cut short";
  }
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  return av_strerror(error, text.data(), text.size()) == 0 ? text.data() : "unknown error";
}

// What FFmpeg is to open, or "" with the reason in `error`. A path is only read when it is a file:
// opening a pipe or a device may wait without end.
std::string Address(const std::string& name, std::string& error) {
  constexpr std::string_view kFile = "file:";
  const std::string path = name.starts_with(kFile) ? name.substr(kFile.size()) : name;
  std::error_code failed;
  const auto status = std::filesystem::status(path, failed);
  if (std::filesystem::is_regular_file(status)) {
    return std::string(kFile) + path;
  }
  if (std::filesystem::exists(status)) {
    error = "is not a file";
    return {};
  }
  const char* protocol = avio_find_protocol_name(name.c_str());
  const bool isPath =
      protocol == nullptr ? name.find("://") == std::string::npos : std::string_view(protocol) == kFile.substr(0, 4);
  if (isPath) {
    error = failed.message();
    return {};
  }
  return name;
}

bool IsFullRange(const AVFrame& frame) {
  return frame.color_range == AVCOL_RANGE_JPEG || frame.format == AV_PIX_FMT_YUVJ420P ||
         frame.format == AV_PIX_FMT_YUVJ422P || frame.format == AV_PIX_FMT_YUVJ444P;
}

// The same planes under the name that does not imply a range, which the scaler is told apart.
AVPixelFormat WithoutRange(int format) {
  switch (format) {
    case AV_PIX_FMT_YUVJ420P:
      return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P:
      return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P:
      return AV_PIX_FMT_YUV444P;
    default:
      return static_cast<AVPixelFormat>(format);
  }
}

}  // namespace

std::unique_ptr<MediaPass> MediaPass::Open(const std::string& name, const ReadLimit& limit, std::string& error) {
  const std::string address = Address(name, error);
  if (address.empty()) {
    return nullptr;
  }
  std::unique_ptr<MediaPass> pass(new MediaPass);
  AVFormatContext* input = avformat_alloc_context();
  if (input == nullptr || pass->mPacket == nullptr || pass->mFrame == nullptr) {
    avformat_free_context(input);
    error = "no memory";
    return nullptr;
  }
  input->interrupt_callback = {&IsExpired, const_cast<ReadLimit*>(&limit)};
  int result = avformat_open_input(&input, address.c_str(), nullptr,
                                   nullptr);  // Frees the input when it fails.
  if (result == 0) {
    pass->mInput.reset(input);
    result = avformat_find_stream_info(input, nullptr);
  }
  error = result < 0 ? ErrorText(result, limit) : pass->FindVideo();
  return error.empty() ? std::move(pass) : nullptr;
}

// Empty, or what is wrong.
std::string MediaPass::FindVideo() {
  const int index = av_find_best_stream(mInput.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (index < 0) {
    return "has no video";
  }
  mStream = mInput->streams[index];
  for (unsigned i = 0; i < mInput->nb_streams; ++i) {
    mInput->streams[i]->discard = mInput->streams[i] == mStream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  }
  double rate = av_q2d(av_guess_frame_rate(mInput.get(), mStream, nullptr));
  rate = rate > 0 && rate <= kHighestRate ? rate : kUsualRate;
  mNominal = std::chrono::nanoseconds(static_cast<std::int64_t>(1e9 / rate));
  const AVCodecParameters& coded = *mStream->codecpar;
  if (coded.codec_id == AV_CODEC_ID_MJPEG) {
    return {};
  }
  const AVCodec* codec = avcodec_find_decoder(coded.codec_id);
  mDecoder.reset(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
  if (mDecoder == nullptr || avcodec_parameters_to_context(mDecoder.get(), &coded) < 0) {
    return std::string("has video that cannot be decoded: ") + avcodec_get_name(coded.codec_id);
  }
  mDecoder->log_level_offset = kQuiet;
  mDecoder->pkt_timebase = mStream->time_base;
  if (avcodec_open2(mDecoder.get(), codec, nullptr) < 0) {
    return std::string("has video that cannot be decoded: ") + avcodec_get_name(coded.codec_id);
  }
  return {};
}

bool MediaPass::Next() {
  if (!IsMjpeg()) {
    return DecodeFrame();
  }
  while (ReadPacket()) {
    if (mPacket->size > 0) {
      TakeTimestamp(mPacket->pts != AV_NOPTS_VALUE ? mPacket->pts : mPacket->dts);
      return true;
    }
  }
  return false;
}

// The next packet of the video. False at the end.
bool MediaPass::ReadPacket() {
  do {
    av_packet_unref(mPacket.get());
    if (av_read_frame(mInput.get(), mPacket.get()) < 0) {
      return false;
    }
  } while (mPacket->stream_index != mStream->index);
  return true;
}

bool MediaPass::DecodeFrame() {
  while (true) {
    const int result = avcodec_receive_frame(mDecoder.get(), mFrame.get());
    if (result == 0) {
      if (mFrame->width > 0 && mFrame->width <= static_cast<int>(kMaxDimension) && mFrame->height > 0 &&
          mFrame->height <= static_cast<int>(kMaxDimension)) {
        TakeTimestamp(mFrame->best_effort_timestamp);
        return true;
      }
      continue;
    }
    if (mDrained) {
      return false;
    }
    // A refused packet costs the picture in it. The null packet makes the decoder give out what it
    // holds.
    mDrained = !ReadPacket();
    avcodec_send_packet(mDecoder.get(), mDrained ? nullptr : mPacket.get());
  }
}

void MediaPass::TakeTimestamp(std::int64_t timestamp) {
  mInterval = mNominal;
  if (timestamp != AV_NOPTS_VALUE && mTimestamp != AV_NOPTS_VALUE) {
    const std::chrono::nanoseconds passed(
        av_rescale_q(timestamp - mTimestamp, mStream->time_base, AVRational{1, 1'000'000'000}));
    if (passed.count() > 0 && passed <= kLongestInterval) {
      mInterval = passed;
    }
  }
  mTimestamp = timestamp;
}

int MediaPass::Width() const {
  return IsMjpeg() ? mStream->codecpar->width : mFrame->width;
}

int MediaPass::Height() const {
  return IsMjpeg() ? mStream->codecpar->height : mFrame->height;
}

std::span<std::uint8_t> MediaPass::Picture(int width, int height) {
  if (IsMjpeg()) {
    return {mPacket->data, static_cast<std::size_t>(mPacket->size)};
  }
  SwsContext* scaler = ScalerTo(width, height);
  const std::size_t size = std::size_t{2} * static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  mYuyv.resize(size + kScalerSlack);
  const std::array<std::uint8_t*, 4> planes = {mYuyv.data(), nullptr, nullptr, nullptr};
  const std::array<int, 4> strides = {2 * width, 0, 0, 0};
  if (scaler == nullptr ||
      sws_scale(scaler, mFrame->data, mFrame->linesize, 0, mFrame->height, planes.data(), strides.data()) != height) {
    return {};
  }
  return std::span(mYuyv).first(size);
}

// A source may change its size and format from picture to picture; what is delivered does not.
SwsContext* MediaPass::ScalerTo(int width, int height) {
  if (mScaler != nullptr && mScaledFormat == mFrame->format && mScaledWidth == mFrame->width &&
      mScaledHeight == mFrame->height) {
    return mScaler.get();
  }
  mScaledFormat = mFrame->format;
  mScaledWidth = mFrame->width;
  mScaledHeight = mFrame->height;
  mScaler.reset(sws_getContext(mFrame->width, mFrame->height, WithoutRange(mFrame->format), width, height,
                               AV_PIX_FMT_YUYV422, SWS_BILINEAR, nullptr, nullptr, nullptr));
  if (mScaler != nullptr && IsFullRange(*mFrame)) {
    const int* coefficients = sws_getCoefficients(SWS_CS_ITU601);
    sws_setColorspaceDetails(mScaler.get(), coefficients, 1, coefficients, 0, 0, 1 << 16, 1 << 16);
  }
  return mScaler.get();
}

}  // namespace oskelo
