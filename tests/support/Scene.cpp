#include "support/Scene.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "codec/FfmpegPtr.h"
#include "codec/FrameBlocks.h"
#include "pixel/PixelConvert.h"

namespace vel::test {
namespace {

constexpr int kTextureSize = 1024;  // A power of two; the texture repeats.

std::size_t Index(int x, int y, int width) {
  return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
}

void Require(bool holds, const char* what) {
  if (!holds) {
    throw std::runtime_error(what);
  }
}

// Noise of several sizes, the smaller the weaker.
Bytes MakeTexture() {
  std::vector<float> sum(std::size_t{kTextureSize} * kTextureSize);
  std::mt19937 random(1);
  float amplitude = 44;
  for (int cell = 128; cell >= 4; cell /= 2, amplitude /= 1.7F) {
    const int cells = kTextureSize / cell;
    std::vector<float> grid(static_cast<std::size_t>(cells) * static_cast<std::size_t>(cells));
    for (float& value : grid) {
      value = amplitude * (static_cast<float>(random() % 2001) / 1000 - 1);
    }
    const auto at = [&](int x, int y) { return grid[Index(x % cells, y % cells, cells)]; };
    for (int y = 0; y < kTextureSize; ++y) {
      const float fy = static_cast<float>(y % cell) / static_cast<float>(cell);
      for (int x = 0; x < kTextureSize; ++x) {
        const float fx = static_cast<float>(x % cell) / static_cast<float>(cell);
        const float top = std::lerp(at(x / cell, y / cell), at(x / cell + 1, y / cell), fx);
        const float bottom = std::lerp(at(x / cell, y / cell + 1), at(x / cell + 1, y / cell + 1), fx);
        sum[Index(x, y, kTextureSize)] += std::lerp(top, bottom, fy);
      }
    }
  }
  Bytes texture(sum.size());
  std::transform(sum.begin(), sum.end(), texture.begin(),
                 [](float value) { return static_cast<std::uint8_t>(std::clamp(126 + value, 16.0F, 235.0F)); });
  return texture;
}

}  // namespace

Scene::Scene(int width, int height) : mWidth(width), mHeight(height), mTexture(MakeTexture()) {}

std::uint8_t Scene::Texture(int x, int y) const {
  constexpr int kMask = kTextureSize - 1;
  return mTexture[Index(x & kMask, y & kMask, kTextureSize)];
}

void Scene::Draw(int number, std::span<std::uint8_t> yuyv) const {
  std::minstd_rand noise(static_cast<std::uint32_t>(number) + 1);
  const int radius = mHeight / 6;
  const int reachX = mWidth / 3;
  const int reachY = mHeight / 4;
  const int centreX = mWidth / 2 + static_cast<int>(reachX * std::sin(number * 0.03));
  const int centreY = mHeight / 2 + static_cast<int>(reachY * std::cos(number * 0.02));
  std::uint8_t* out = yuyv.data();
  for (int y = 0; y < mHeight; ++y) {
    const int dy = y - centreY;
    std::uint32_t bits = static_cast<std::uint32_t>(noise());
    for (int x = 0; x < mWidth; ++x, out += 2) {
      const int dx = x - centreX;
      const bool object = dx * dx + dy * dy < radius * radius;
      // Large pictures show the same scene in more pixels.
      const int scale = mHeight < 600 ? 1 : 2;
      const int u = object ? dx / scale + 512 : x / scale + number / 2;
      const int v = object ? dy / scale + 512 : y / scale + number / 4;
      bits = bits * 1664525U + 1013904223U;
      out[0] = static_cast<std::uint8_t>(Texture(u, v) + (bits >> 30U) / 2);
      out[1] = static_cast<std::uint8_t>(96 + Texture(u / 4 + (x % 2) * 300, v / 4) / 4);
    }
  }
}

Bytes Scene::Draw(int number) const {
  Bytes yuyv(static_cast<std::size_t>(mWidth) * static_cast<std::size_t>(mHeight) * 2);
  Draw(number, yuyv);
  return yuyv;
}

UVCFramePtr MakeFrame(std::span<const std::uint8_t> bytes, std::uint32_t index) {
  HeapBlock block = FrameBlocks::Take(bytes.size());
  std::copy(bytes.begin(), bytes.end(), block.get());
  return MakeUvcFrame(std::move(block), static_cast<std::uint32_t>(bytes.size()), index);
}

double LumaPsnr(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
  Require(a.size() == b.size() && !a.empty(), "pictures of different sizes");
  double squares = 0;
  for (std::size_t i = 0; i < a.size(); i += 2) {
    const double difference = double{static_cast<double>(a[i])} - b[i];
    squares += difference * difference;
  }
  return squares == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * static_cast<double>(a.size()) / 2 / squares);
}

Bytes EncodeJpeg(std::span<const std::uint8_t> yuyv, int width, int height) {
  const CodecContextPtr context(avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_MJPEG)));
  context->width = width;
  context->height = height;
  context->pix_fmt = AV_PIX_FMT_YUVJ422P;
  context->time_base = {1, 25};
  context->flags |= AV_CODEC_FLAG_QSCALE;
  context->global_quality = 3 * FF_QP2LAMBDA;
  Require(avcodec_open2(context.get(), nullptr, nullptr) == 0, "no JPEG encoder");
  const FramePtr frame(av_frame_alloc());
  frame->format = context->pix_fmt;
  frame->width = width;
  frame->height = height;
  frame->quality = context->global_quality;
  Require(av_frame_get_buffer(frame.get(), 0) == 0, "no memory");
  for (std::ptrdiff_t y = 0; y < height; ++y) {
    const std::uint8_t* row = yuyv.data() + y * width * 2;
    kPixelRowsScalar.planar(row, frame->data[0] + y * frame->linesize[0], frame->data[1] + y * frame->linesize[1],
                            frame->data[2] + y * frame->linesize[2], static_cast<std::size_t>(width));
  }
  const PacketPtr packet(av_packet_alloc());
  Require(
      avcodec_send_frame(context.get(), frame.get()) == 0 && avcodec_receive_packet(context.get(), packet.get()) == 0,
      "JPEG encoder failed");
  return {packet->data, packet->data + packet->size};
}

}  // namespace vel::test
