// The camera pipeline beside what it cannot be cheaper than: a copy of the same bytes, FFmpeg's
// decoder and encoder alone. Each pair runs in turns; the figures are medians of processor time,
// which other load on the machine disturbs least, but for the latencies, which are wall time and
// want a quiet machine. `codec_bench [PART-OF-A-ROW'S-NAME]`.
#include <time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Percentile.h"
#include "codec/DecodedPicture.h"
#include "oskelo/log.h"
#include "pixel/PixelConvert.h"
#include "policys/Encoder/FFmpegEncoder.h"
#include "policys/UVCEncoder.h"
#include "policys/UVCFrameManager.h"
#include "support/Scene.h"
#include "vel/Mutex.h"

namespace vel::test {
namespace {

using bench::Percentile;

struct Size {
  int width;
  int height;
  std::size_t Pixels() const { return static_cast<std::size_t>(width) * static_cast<std::size_t>(height); }
  std::string Name() const { return std::to_string(width) + "x" + std::to_string(height); }
};
constexpr Size kSizes[] = {{640, 480}, {1280, 720}, {1920, 1080}};

double CpuMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

double WallMicroseconds() {
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Only rows with this in their name; all when it is empty.
std::string gOnly;

bool IsWanted(const std::string& name) {
  return name.find(gOnly) != std::string::npos;
}

using Work = std::function<void()>;

struct Contender {
  std::string name;
  Work work;
  std::vector<double> microseconds{};
};

constexpr double kNearTheBest = 1.05;

// Runs all in turns, the yardstick behind each, and prints their rows. Of several, what is near the best has met its
// goal, too.
void Compare(double goal, int rounds, std::vector<Contender> ours, const Work& yardstick) {
  std::erase_if(ours, [](const Contender& one) { return !IsWanted(one.name); });
  std::vector<double> yardstickTimes;
  for (int i = -1; i < rounds; ++i) {
    for (Contender& one : ours) {
      const double begin = CpuMicroseconds();
      one.work();
      const double middle = CpuMicroseconds();
      yardstick();
      const double end = CpuMicroseconds();
      if (i >= 0) {  // The first round warms up.
        one.microseconds.push_back(middle - begin);
        yardstickTimes.push_back(end - middle);
      }
    }
  }
  std::vector<double> medians;
  medians.reserve(ours.size());
  for (const Contender& one : ours) {
    medians.push_back(Percentile(one.microseconds, 0.5));
  }
  for (std::size_t i = 0; i < ours.size(); ++i) {
    const double ratio = medians[i] / Percentile(yardstickTimes, 0.5);
    const double toBest = medians[i] / *std::min_element(medians.begin(), medians.end());
    const bool several = ours.size() > 1;
    char best[16] = "";
    if (several) {
      static_cast<void>(std::snprintf(best, sizeof(best), "%.2f", toBest));
    }
    std::printf("| %s | %.0f | %.0f | %.2f | %s | %.2f | %s |\n", ours[i].name.c_str(), medians[i],
                Percentile(yardstickTimes, 0.5), ratio, best, goal,
                ratio <= goal || (several && toBest <= kNearTheBest) ? "yes" : "NO");
  }
  static_cast<void>(std::fflush(stdout));
}

// Blocks that together are far larger than the caches, used in turn.
class ColdBlocks {
 public:
  explicit ColdBlocks(std::size_t bytes)
      : mBytes(bytes), mCount(std::max<std::size_t>(kTotal / bytes, 2)), mMemory(mBytes * mCount / sizeof(Line) + 1) {}
  std::uint8_t* Next() { return mMemory.front().bytes.data() + mBytes * (mNext++ % mCount); }

 private:
  // Aligned as FFmpeg's and large malloc blocks' lines are.
  struct alignas(64) Line {
    std::array<std::uint8_t, 64> bytes{};
  };
  static constexpr std::size_t kTotal = std::size_t{160} << 20U;
  const std::size_t mBytes;
  const std::size_t mCount;
  std::size_t mNext = 0;
  std::vector<Line> mMemory;
};

constexpr int kFramesInRound = 8;

void Repeat(const Work& work) {
  for (int i = 0; i < kFramesInRound; ++i) {
    work();
  }
}

// In every version that this processor has; without its name the one in use.
void BenchUnpacking(const Size& size) {
  const std::size_t pixels = size.Pixels();
  ColdBlocks packed(pixels * 2);
  ColdBlocks planar(pixels * 2);
  const auto unpack = [&](const PixelRows& rows) {
    return [&] {
      Repeat([&] {
        std::uint8_t* const y = planar.Next();
        const std::ptrdiff_t stride = size.width / 2;
        YuyvToPlanar(packed.Next(), {y, size.width}, {y + pixels, stride}, {y + pixels * 5 / 4, stride}, size.width,
                     size.height, rows);
      });
    };
  };
  const std::string name = "YUYV to planar, " + size.Name();
  std::vector<Contender> contenders{{name, unpack(BestPixelRows())}};
  const PixelRowsChoice choice = AvailablePixelRows();
  for (std::size_t i = 0; i + 1 < choice.count; ++i) {
    contenders.push_back({name + ", by " + choice.versions[i]->name, unpack(*choice.versions[i])});
  }
  Compare(0.65, 40, std::move(contenders),
          [&] { Repeat([&] { std::memcpy(planar.Next(), packed.Next(), pixels * 2); }); });
}

void BenchPacking(const char* name, ChromaLayout layout, std::size_t chromaWidth, std::size_t chromaHeight) {
  constexpr Size kSize{1280, 720};
  const std::size_t pixels = kSize.Pixels();
  const std::size_t chroma = chromaWidth * chromaHeight;
  const std::size_t planarBytes = pixels + 2 * chroma;
  ColdBlocks planar(planarBytes);
  ColdBlocks packed(pixels * 2);
  // A copy of n bytes moves 2 * n.
  const std::size_t moved = (planarBytes + pixels * 2) / 2;
  ColdBlocks from(moved);
  ColdBlocks to(moved);
  const auto stride = static_cast<std::ptrdiff_t>(chromaWidth);
  const Work pack = [&] {
    Repeat([&] {
      const std::uint8_t* y = planar.Next();
      PlanarToYuyv(layout, {y, kSize.width}, {y + pixels, stride}, {y + pixels + chroma, stride}, packed.Next(),
                   kSize.width, kSize.height);
    });
  };
  Compare(1.2, 40, {{std::string("planar ") + name + " to YUYV, " + kSize.Name(), pack}},
          [&] { Repeat([&] { std::memcpy(to.Next(), from.Next(), moved); }); });
}

EncoderParam ParamOf(const Size& size) {
  EncoderParam param;
  param.width = size.width;
  param.height = size.height;
  param.bitRate = size.height <= 480 ? 800000 : size.height < 1080 ? 1000000 : 1500000;
  param.gopSize = size.height <= 480 ? 5 : 25;
  param.timeBase = {1, size.height <= 480 ? 15 : 25};
  param.frameRate = {size.height <= 480 ? 15 : 25, 1};
  return param;
}

// The encoder alone on planar pictures, with the pipeline's settings.
class PlainEncoder {
 public:
  PlainEncoder(const Size& size, const std::vector<Bytes>& pictures) {
    mEncoder.open(ParamOf(size));
    for (const Bytes& picture : pictures) {
      FramePtr frame(av_frame_alloc());
      frame->format = AV_PIX_FMT_YUV420P;
      frame->width = size.width;
      frame->height = size.height;
      av_frame_get_buffer(frame.get(), 0);
      YuyvToPlanar(picture.data(), {frame->data[0], frame->linesize[0]}, {frame->data[1], frame->linesize[1]},
                   {frame->data[2], frame->linesize[2]}, size.width, size.height);
      mFrames.push_back(std::move(frame));
    }
  }
  void Encode(std::size_t picture) {
    AVFrame* const frame = mFrames[picture].get();
    frame->pts = mPts++;
    mEncoder.encode(frame, mPacket.get());
    av_packet_unref(mPacket.get());
  }

 private:
  FFmpegEncoder mEncoder{false};
  PacketPtr mPacket{av_packet_alloc()};
  std::vector<FramePtr> mFrames;
  std::int64_t mPts = 0;
};

class PlainDecoder {
 public:
  explicit PlainDecoder(const std::vector<Bytes>& jpegs)
      : mContext(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_MJPEG))) {
    avcodec_open2(mContext.get(), nullptr, nullptr);
    for (const Bytes& jpeg : jpegs) {
      PacketPtr packet(av_packet_alloc());
      av_new_packet(packet.get(), static_cast<int>(jpeg.size()));
      std::memcpy(packet->data, jpeg.data(), jpeg.size());
      mPackets.push_back(std::move(packet));
    }
  }
  void Decode(std::size_t picture) {
    Decode(mPackets[picture]);
    av_frame_unref(mFrame.get());
  }
  // What the pipeline's encoder gets of these pictures, which is not what was compressed.
  std::vector<Bytes> DecodedAsYuyv() {
    std::vector<Bytes> pictures;
    for (const PacketPtr& packet : mPackets) {
      Decode(packet);
      const DecodedPicture picture(*mFrame, UVC_DECODER_TYPE_MJPEG, UVC_DECODER_OUTPUT_YUYV);
      pictures.emplace_back(picture.BlockBytes());
      picture.Convert(pictures.back().data());
      av_frame_unref(mFrame.get());
    }
    return pictures;
  }

 private:
  void Decode(const PacketPtr& packet) {
    avcodec_send_packet(mContext.get(), packet.get());
    avcodec_receive_frame(mContext.get(), mFrame.get());
  }

  CodecContextPtr mContext;
  FramePtr mFrame{av_frame_alloc()};
  std::vector<PacketPtr> mPackets;
};

// The producer's part, which both sides of a comparison pay.
UVCFramePtr Produce(const Bytes& bytes) {
  return MakeFrame(bytes, 0);
}

// Each frame through the manager, taken before the next goes in.
void PassAll(UVCFrameManager& manager, const std::vector<Bytes>& frames) {
  for (const Bytes& bytes : frames) {
    manager.EnqueueFrame(Produce(bytes).release());
    const UVCFramePtr out(manager.DequeueFrame(10000));
  }
}

void BenchPipeline(const Size& size) {
  const Scene scene(size.width, size.height);
  std::vector<Bytes> pictures;
  std::vector<Bytes> jpegs;
  for (int i = 0; i < 25; ++i) {
    pictures.push_back(scene.Draw(i));
    jpegs.push_back(EncodeJpeg(pictures.back(), size.width, size.height));
  }
  const auto width = static_cast<std::uint16_t>(size.width);
  const auto height = static_cast<std::uint16_t>(size.height);
  PlainEncoder encoder(size, pictures);
  PlainDecoder decoder(jpegs);
  UVCFrameManager raw(UVC_FRAME_TYPE_YUYV, UVC_FRAME_TYPE_H264);
  raw.Init(width, height, UVC_FRAME_TYPE_YUYV, UVC_FRAME_TYPE_H264, nullptr);
  Compare(1.15, 21, {{"YUYV frame to access unit, " + size.Name() + " (25 frames)", [&] { PassAll(raw, pictures); }}},
          [&] {
            for (std::size_t i = 0; i < pictures.size(); ++i) {
              Produce(pictures[i]);
              encoder.Encode(i);
            }
          });
  PlainEncoder decodedEncoder(size, decoder.DecodedAsYuyv());
  UVCFrameManager mjpeg(UVC_FRAME_TYPE_MJPEG, UVC_FRAME_TYPE_H264);
  mjpeg.Init(width, height, UVC_FRAME_TYPE_MJPEG, UVC_FRAME_TYPE_H264, nullptr);
  Compare(
      1.15, 21, {{"MJPEG frame to access unit, " + size.Name() + " (25 frames)", [&] { PassAll(mjpeg, jpegs); }}}, [&] {
        for (std::size_t i = 0; i < jpegs.size(); ++i) {  // In turns, so that each finds the caches as in a pipeline.
          Produce(jpegs[i]);
          decoder.Decode(i);
          decodedEncoder.Encode(i);
        }
      });
}

void PrintLatency(const char* name, const std::vector<double>& microseconds) {
  std::printf("| %s | %.0f | %.0f |\n", name, Percentile(microseconds, 0.5), Percentile(microseconds, 0.99));
}

// A consumer that waits in DequeueFrame, in turns with the encoder on the caller's thread, which is
// the codec's own time.
void BenchLatency() {
  constexpr Size kSize{320, 240};
  const Scene scene(kSize.width, kSize.height);
  const Bytes picture = scene.Draw(0);
  for (const auto out : {UVC_FRAME_TYPE_YUYV, UVC_FRAME_TYPE_H264}) {
    UVCFrameManager manager(UVC_FRAME_TYPE_YUYV, out);
    manager.Init(kSize.width, kSize.height, UVC_FRAME_TYPE_YUYV, out, nullptr);
    UVCEncoder alone;
    alone.Init(UVC_ENCODER_TYPE_H264, kSize.width, kSize.height, nullptr, nullptr);
    Mutex mutex;
    CondVar changed;
    double cameOut = 0;
    std::thread consumer([&] {
      while (const UVCFramePtr frame{manager.DequeueFrame(60000)}) {
        const MutexLock lock(mutex);
        cameOut = WallMicroseconds();
        changed.NotifyOne();
      }
    });
    std::vector<double> latencies;
    Bytes unit(picture.size());
    for (int i = 0; i < 1500; ++i) {
      double own = 0;
      if (out == UVC_FRAME_TYPE_H264) {
        std::uint32_t size = 0;
        const double begin = WallMicroseconds();
        alone.Encode(picture.data(), static_cast<std::uint32_t>(picture.size()), unit.data(), &size);
        own = WallMicroseconds() - begin;
      }
      UVCFramePtr frame = MakeFrame(picture, 0);
      const double begin = WallMicroseconds();
      manager.EnqueueFrame(frame.release());
      MutexLock lock(mutex);
      while (cameOut == 0) {
        changed.Wait(lock);
      }
      latencies.push_back(cameOut - begin - own);
      cameOut = 0;
    }
    manager.Release();
    consumer.join();
    PrintLatency(out == UVC_FRAME_TYPE_H264 ? "encoded, beyond the encoder's own time" : "passed through", latencies);
  }
}

void Run(const char* only) {
  gOnly = only;
  std::printf("| what | us | yardstick us | ratio | x best | goal | met |\n|---|---|---|---|---|---|---|\n");
  for (const Size& size : kSizes) {
    BenchUnpacking(size);
  }
  BenchPacking("4:2:0", ChromaLayout::k420, 640, 360);
  BenchPacking("4:2:2", ChromaLayout::k422, 640, 720);
  BenchPacking("4:4:4", ChromaLayout::k444, 1280, 720);
  for (const Size& size : kSizes) {
    BenchPipeline(size);
  }
  if (IsWanted("EnqueueFrame to available")) {
    std::printf("\n| EnqueueFrame to available | p50 us | p99 us |\n|---|---|---|\n");
    BenchLatency();
  }
}

}  // namespace
}  // namespace vel::test

int main(int argc, char** argv) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  av_log_set_level(AV_LOG_QUIET);
  vel::test::Run(argc > 1 ? argv[1] : "");
  return 0;
}
