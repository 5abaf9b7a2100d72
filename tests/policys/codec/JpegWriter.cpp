#include "JpegWriter.h"

#include <bit>
#include <initializer_list>

namespace vel::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The standard's luminance tables (ITU-T T.81, K.3.1): DC whole, and of the AC one the counts and
// values.
constexpr std::array<std::uint8_t, 28> kDcTable = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0,  0,
                                                   0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr std::array<int, 12> kDcLength = {2, 3, 3, 3, 3, 3, 4, 5, 6, 7, 8, 9};
constexpr std::array<int, 12> kDcCode = {0, 2, 3, 4, 5, 6, 14, 30, 62, 126, 254, 510};
// An AC table with the end of block alone would do, but for pictures without tables it has the
// standard's code, 1010.
constexpr std::array<std::uint8_t, 20> kAcTable = {0, 2, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 0};
constexpr int kEndOfBlock = 0b1010;

class BitWriter {
 public:
  explicit BitWriter(Bytes& out) : mOut(out) {}
  void Put(int bits, int count) {
    for (int i = count - 1; i >= 0; --i) {
      mByte = mByte << 1U | (static_cast<unsigned>(bits) >> static_cast<unsigned>(i) & 1U);
      if (++mCount == 8) {
        mOut.push_back(static_cast<std::uint8_t>(mByte));
        if ((mByte & 0xFFU) == 0xFF) {
          mOut.push_back(0);
        }
        mCount = 0;
        mByte = 0;
      }
    }
  }
  void Flush() {
    while (mCount != 0) {
      Put(1, 1);
    }
  }

 private:
  Bytes& mOut;
  unsigned mByte = 0;
  int mCount = 0;
};

void Segment(Bytes& out, int marker, const Bytes& body) {
  const std::size_t length = body.size() + 2;
  out.insert(out.end(), {0xFF, static_cast<std::uint8_t>(marker), static_cast<std::uint8_t>(length >> 8U),
                         static_cast<std::uint8_t>(length)});
  out.insert(out.end(), body.begin(), body.end());
}

void PutBlock(BitWriter& bits, int difference) {
  const int size = static_cast<int>(std::bit_width(static_cast<unsigned>(difference < 0 ? -difference : difference)));
  bits.Put(kDcCode[static_cast<std::size_t>(size)], kDcLength[static_cast<std::size_t>(size)]);
  bits.Put(difference < 0 ? difference + (1 << size) - 1 : difference, size);
  bits.Put(kEndOfBlock, 4);
}

}  // namespace

Bytes JpegWriter::Write() const {
  const auto byte = [](int value) { return static_cast<std::uint8_t>(value); };
  const int components = grey ? 1 : 3;
  const std::array<int, 2> sampling = grey ? std::array{1, 1} : lumaSampling;
  Bytes out = {0xFF, 0xD8};
  // Every quantiser is 8: the coefficient of a flat block is its value - 128.
  Bytes quantisers(65, 8);
  quantisers[0] = 0;
  Segment(out, 0xDB, quantisers);
  Bytes frame = {8, byte(height >> 8), byte(height), byte(width >> 8), byte(width), byte(components)};
  Bytes scan = {byte(components)};
  for (int c = 0; c < components; ++c) {
    frame.insert(frame.end(), {byte(c + 1), byte(c == 0 ? sampling[0] * 16 + sampling[1] : 0x11), 0});
    scan.insert(scan.end(), {byte(c + 1), 0});
  }
  scan.insert(scan.end(), {0, 63, 0});
  Segment(out, 0xC0, frame);
  if (huffmanTables) {
    Bytes table = {0x00};
    table.insert(table.end(), kDcTable.begin(), kDcTable.end());
    Segment(out, 0xC4, table);
    table = {0x10};
    table.insert(table.end(), kAcTable.begin(), kAcTable.end());
    Segment(out, 0xC4, table);
  }
  if (restartInterval > 0) {
    Segment(out, 0xDD, {byte(restartInterval >> 8), byte(restartInterval)});
  }
  Segment(out, 0xDA, scan);
  BitWriter bits(out);
  std::array<int, 3> last{};
  int unit = 0;
  for (int y = 0; y * 8 * sampling[1] < height; ++y) {
    for (int x = 0; x * 8 * sampling[0] < width; ++x, ++unit) {
      if (restartInterval > 0 && unit > 0 && unit % restartInterval == 0) {
        bits.Flush();
        out.insert(out.end(), {0xFF, byte(0xD0 + (unit / restartInterval - 1) % 8)});
        last = {};
      }
      for (int c = 0; c < components; ++c) {
        const int across = c == 0 ? sampling[0] : 1;
        const int down = c == 0 ? sampling[1] : 1;
        for (int block = 0; block < across * down; ++block) {
          const int value = Value(c, x * across + block % across, y * down + block / across) - 128;
          auto& before = last[static_cast<std::size_t>(c)];
          PutBlock(bits, value - before);
          before = value;
        }
      }
    }
  }
  bits.Flush();
  out.insert(out.end(), {0xFF, 0xD9});
  return out;
}

Bytes JpegWriter::Yuyv() const {
  Bytes yuyv;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int pair = x / 2 * 2;
      yuyv.push_back(static_cast<std::uint8_t>(Value(0, x / 8, y / 8)));
      yuyv.push_back(
          static_cast<std::uint8_t>(Value(x % 2 == 0 ? 1 : 2, pair / lumaSampling[0] / 8, y / lumaSampling[1] / 8)));
    }
  }
  return yuyv;
}

}  // namespace vel::test
