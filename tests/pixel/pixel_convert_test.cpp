#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include "pixel/PixelConvert.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kUntouched = 0xEE;

Bytes RandomBytes(std::size_t count) {
  static std::mt19937 random(7);
  Bytes bytes(count);
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(random());
  }
  return bytes;
}

struct alignas(64) Line {
  std::array<std::uint8_t, 64> bytes;
  bool operator==(const Line&) const = default;
};

// A plane, aligned as a codec's is, with room behind each row, in which every byte that is not written keeps its mark.
struct Plane {
  Plane(int planeWidth, int planeHeight, int gap) : stride(planeWidth + gap) {
    Line marks;
    marks.bytes.fill(kUntouched);
    lines.resize(static_cast<std::size_t>(stride * planeHeight) / sizeof(Line) + 1, marks);
  }
  std::uint8_t* Data() { return lines.front().bytes.data(); }
  PlaneOut Out() { return {Data(), stride}; }
  PlaneIn In() { return {Data(), stride}; }
  std::uint8_t& At(int x, int y) { return Data()[y * stride + x]; }
  void Randomise() {
    const Bytes random = RandomBytes(lines.size() * sizeof(Line));
    std::copy(random.begin(), random.end(), Data());
  }
  bool operator==(const Plane&) const = default;

  int stride;
  std::vector<Line> lines;
};

class PixelConversion : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    const PixelRowsChoice choice = AvailablePixelRows();
    const auto* const end = choice.versions + choice.count;
    const auto* const found =
        std::find_if(choice.versions, end, [](const PixelRows* rows) { return rows->name == GetParam(); });
    if (found == end) {
      GTEST_SKIP() << "not for this processor";
    }
    mRows = *found;
  }

  // Every size and both kinds of stride, and some long rows for the widest steps and their rests.
  template <class Check>
  static void ForEverySize(Check check) {
    for (int gap : {0, 5}) {
      for (int height = 1; height <= 65; ++height) {
        for (int width = 1; width <= 65; ++width) {
          check(width, height, gap);
          if (HasFailure()) {
            FAIL() << width << "x" << height << ", stride + " << gap;
          }
        }
      }
      for (const int width : {127, 128, 190, 255, 256, 640, 704, 719, 1280, 1334}) {
        check(width, 5, gap);
      }
    }
  }

  const PixelRows* mRows = nullptr;
};

TEST_P(PixelConversion, PackedToPlanarTakesChromaOfOddRowsAndToSemiPlanarOfEvenOnes) {
  ForEverySize([this](int width, int height, int gap) {
    const Bytes packed =
        RandomBytes(std::size_t{2} * static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    const auto at = [&](int x, int row, int byte) {
      return *(packed.begin() + (std::ptrdiff_t{row} * width + x) * 2 + byte);
    };
    Plane y(width, height, gap), u(width / 2, height / 2, gap), v(width / 2, height / 2, gap);
    Plane uv(width / 2 * 2, height / 2, gap);
    Plane wantY = y, wantU = u, wantV = v, wantUv = uv;
    for (int row = 0; row < height; ++row) {
      for (int x = 0; x < width; ++x) {
        wantY.At(x, row) = at(x, row, 0);
      }
    }
    for (int row = 0; row < height / 2; ++row) {
      for (int x = 0; x < width / 2; ++x) {
        wantU.At(x, row) = at(2 * x, 2 * row + 1, 1);
        wantV.At(x, row) = at(2 * x + 1, 2 * row + 1, 1);
        wantUv.At(2 * x, row) = at(2 * x, 2 * row, 1);
        wantUv.At(2 * x + 1, row) = at(2 * x + 1, 2 * row, 1);
      }
    }
    YuyvToPlanar(packed.data(), y.Out(), u.Out(), v.Out(), width, height, *mRows);
    EXPECT_TRUE(y == wantY && u == wantU && v == wantV);
    y = Plane(width, height, gap);
    YuyvToSemiPlanar(packed.data(), y.Out(), uv.Out(), width, height, *mRows);
    EXPECT_TRUE(y == wantY && uv == wantUv);
  });
}

TEST_P(PixelConversion, PlanarToPackedOfEachLayout) {
  struct Layout {
    ChromaLayout layout;
    int across;  // Pixels for each chroma sample.
    int down;
  };
  for (const Layout& layout :
       {Layout{ChromaLayout::k420, 2, 2}, {ChromaLayout::k422, 2, 1}, {ChromaLayout::k444, 1, 1}}) {
    ForEverySize([this, &layout](int width, int height, int gap) {
      const int chromaWidth = (width + layout.across - 1) / layout.across;
      const int chromaHeight = (height + layout.down - 1) / layout.down;
      Plane y(width, height, gap), u(chromaWidth, chromaHeight, gap), v(chromaWidth, chromaHeight, gap);
      for (Plane* plane : {&y, &u, &v}) {
        plane->Randomise();
      }
      Bytes want;
      for (int row = 0; row < height; ++row) {
        for (int x = 0; x < width; ++x) {
          Plane& chroma = x % 2 == 0 ? u : v;
          want.push_back(y.At(x, row));
          want.push_back(chroma.At(x / 2 * 2 / layout.across, row / layout.down));
        }
      }
      // The last marks show that nothing is written behind the picture.
      Bytes packed(want.size() + 64, kUntouched);
      want.resize(packed.size(), kUntouched);
      PlanarToYuyv(layout.layout, y.In(), u.In(), v.In(), packed.data(), width, height, *mRows);
      EXPECT_TRUE(packed == want);
    });
  }
}

INSTANTIATE_TEST_SUITE_P(EveryVersion, PixelConversion, testing::Values("Scalar", "Sse2", "Avx2", "Avx512"),
                         [](const auto& version) { return version.param; });

}  // namespace
}  // namespace vel
