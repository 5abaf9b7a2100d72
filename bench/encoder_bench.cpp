// What threads bring and cost the encoder in large pictures: the time of a picture, the rate, and what is left of the
// picture. All encode the same pictures, in turns; the times are wall time and want a quiet machine.
// `encoder_bench [PICTURES]`.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <vector>

#include "Percentile.h"
#include "oskelo/log.h"
#include "pixel/PixelConvert.h"
#include "policys/Encoder/FFmpegEncoder.h"
#include "policys/UVCDecoder.h"
#include "support/Scene.h"

namespace vel::test {
namespace {

constexpr int kPicturesPerSecond = 25;
constexpr int kBitRate = 1500000;

// The mean structural similarity of the luma of two YUYV pictures, over blocks of 8 by 8 pixels (Wang et al., 2004).
double LumaSsim(const Bytes& a, const Bytes& b, int width, int height) {
  constexpr int kSide = 8;
  constexpr double kCount = kSide * kSide;
  constexpr double kC1 = 0.01 * 255 * 0.01 * 255;
  constexpr double kC2 = 0.03 * 255 * 0.03 * 255;
  double sum = 0;
  int blocks = 0;
  for (int top = 0; top + kSide <= height; top += kSide) {
    for (int left = 0; left + kSide <= width; left += kSide, ++blocks) {
      int sumA = 0, sumB = 0, sumAa = 0, sumBb = 0, sumAb = 0;
      for (int y = top; y < top + kSide; ++y) {
        for (int x = left; x < left + kSide; ++x) {
          const std::size_t at =
              2 * (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x));
          sumA += a[at];
          sumB += b[at];
          sumAa += a[at] * a[at];
          sumBb += b[at] * b[at];
          sumAb += a[at] * b[at];
        }
      }
      const double meanA = sumA / kCount, meanB = sumB / kCount;
      const double varA = sumAa / kCount - meanA * meanA, varB = sumBb / kCount - meanB * meanB;
      const double both = sumAb / kCount - meanA * meanB;
      sum +=
          (2 * meanA * meanB + kC1) * (2 * both + kC2) / ((meanA * meanA + meanB * meanB + kC1) * (varA + varB + kC2));
    }
  }
  return sum / blocks;
}

FramePtr MakePlanar(int width, int height) {
  FramePtr frame(av_frame_alloc());
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = width;
  frame->height = height;
  av_frame_get_buffer(frame.get(), 0);
  return frame;
}

// An encoder with some threads, and who looks at what it made.
class Way {
 public:
  Way(int width, int height, int threads) : mWidth(width), mHeight(height), mThreads(threads) {
    const EncoderParam param{.width = width,
                             .height = height,
                             .bitRate = kBitRate,
                             .gopSize = kPicturesPerSecond,
                             .timeBase = {1, kPicturesPerSecond},
                             .frameRate = {kPicturesPerSecond, 1},
                             .threads = threads};
    if (mEncoder.open(param) != 0 ||
        mDecoder.Init(UVC_DECODER_TYPE_H264, UVC_DECODER_OUTPUT_YUYV, width, height, nullptr) != 0) {
      std::exit(1);
    }
  }

  void Encode(const Bytes& picture, const AVFrame& planes) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const int result = mEncoder.encode(&planes, mPacket.get());
    mTimes.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    Bytes decoded(picture.size());
    std::uint32_t size = 0;
    if (result != 0 ||
        mDecoder.Decode(mPacket->data, static_cast<std::uint32_t>(mPacket->size), decoded.data(), &size) != 1) {
      static_cast<void>(std::fprintf(stderr, "encoder_bench: a picture was held back\n"));
      std::exit(1);
    }
    mBytes += mPacket->size;
    mPsnr += LumaPsnr(picture, decoded);
    mSsim += LumaSsim(picture, decoded, mWidth, mHeight);
    av_packet_unref(mPacket.get());
  }

  void Print() const {
    const auto count = static_cast<double>(mTimes.size());
    std::printf("| %dx%d, %d threads, %s | %.1f / %.1f | %.2f | %.2f | %.4f |\n", mWidth, mHeight, mThreads,
                mEncoder.Name().c_str(), bench::Percentile(mTimes, 0.5), bench::Percentile(mTimes, 0.99),
                8 * mBytes * kPicturesPerSecond / count / kBitRate, mPsnr / count, mSsim / count);
    static_cast<void>(std::fflush(stdout));
  }

 private:
  const int mWidth;
  const int mHeight;
  const int mThreads;
  FFmpegEncoder mEncoder{false};
  UVCDecoder mDecoder;
  PacketPtr mPacket{av_packet_alloc()};
  std::vector<double> mTimes;
  double mBytes = 0;
  double mPsnr = 0;
  double mSsim = 0;
};

void Measure(int width, int height, int pictures) {
  const Scene scene(width, height);
  std::deque<Way> ways;
  for (const int threads : {1, 2, 4}) {
    ways.emplace_back(width, height, threads);
  }
  Bytes picture(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2);
  for (int i = 0; i < pictures; ++i) {
    scene.Draw(i, picture);
    const FramePtr planes = MakePlanar(width, height);  // An encoder may keep it.
    YuyvToPlanar(picture.data(), {planes->data[0], planes->linesize[0]}, {planes->data[1], planes->linesize[1]},
                 {planes->data[2], planes->linesize[2]}, width, height);
    planes->pts = i;
    for (Way& way : ways) {
      way.Encode(picture, *planes);
    }
  }
  for (const Way& way : ways) {
    way.Print();
  }
}

}  // namespace
}  // namespace vel::test

int main(int argc, char** argv) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  const int pictures = std::max(argc > 1 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : 100, 1);
  std::printf("| encoder | ms a picture, p50 / p99 | of the bit rate | PSNR, dB | SSIM |\n|---|---|---|---|---|\n");
  for (const auto& [width, height] : {std::array{1920, 1080}, std::array{3840, 2160}}) {
    vel::test::Measure(width, height, pictures);
  }
  return 0;
}
