#ifndef VIRTUSB_TESTS_SUPPORT_VS_BLOCK_H
#define VIRTUSB_TESTS_SUPPORT_VS_BLOCK_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace vel {

// A block of video-streaming descriptors from a text, a word for each descriptor behind the header:
//   yuyv, mjpeg, based   a format; numbered from 1, its count is that of its frames
//   480                  a frame of this height (and width 1000 more); numbered from 1 in its
//   format 480#7  480x6         the same with bFrameIndex 7; with 6 intervals still, color what may
//   follow the frames
struct VsBlock {
  using Bytes = std::vector<std::uint8_t>;

  explicit VsBlock(const std::string& text, std::uint8_t endpoint = 0x81) {
    Add(14, 1, {0, 0, 0, endpoint, 0, 5, 2, 0, 0, 1});
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      AddWord(word);
    }
    bytes[4] = static_cast<std::uint8_t>(bytes.size());
    bytes[5] = static_cast<std::uint8_t>(bytes.size() >> 8U);
  }

  Bytes bytes;
  std::vector<std::size_t> starts;  // Of each descriptor.

 private:
  void AddWord(const std::string& word) {
    if (word == "yuyv" || word == "mjpeg" || word == "based") {
      mFormat = bytes.size();
      Add(word == "yuyv" ? 27 : word == "mjpeg" ? 11 : 28, word == "yuyv" ? 4 : word == "mjpeg" ? 6 : 16, {++bytes[3]});
      bytes.back() = 0xFB;
      if (word == "yuyv") {
        std::ranges::copy(kYuy2, bytes.begin() + static_cast<std::ptrdiff_t>(mFormat) + 5);
      }
    } else if (word == "still") {
      Add(10, 3, {0, 1, 0x80, 2, 0xE0, 1});
    } else if (word == "color") {
      Add(6, 13, {1, 1, 4});
    } else {
      AddFrame(word);
    }
  }
  void AddFrame(const std::string& word) {
    const auto number = [&word](char mark, int otherwise) {
      const std::size_t at = word.find(mark);
      return at == std::string::npos ? otherwise : std::stoi(word.substr(at + 1));
    };
    const int height = std::stoi(word);
    const int intervals = number('x', 1);
    const int index = number('#', ++bytes[mFormat + 4]);
    const auto low = [](int value) { return static_cast<std::uint8_t>(value); };
    Add(26 + 4 * intervals, 5,
        {low(index), 0, low(height + 1000), low((height + 1000) >> 8), low(height), low(height >> 8)});
    bytes[starts.back() + 25] = low(intervals);
    bytes.back() = low(0xF0 + intervals);  // The last interval ends here.
  }
  void Add(int length, std::uint8_t subtype, const Bytes& rest) {
    starts.push_back(bytes.size());
    bytes.insert(bytes.end(), {static_cast<std::uint8_t>(length), 0x24, subtype});
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    bytes.resize(starts.back() + static_cast<std::size_t>(length));
  }

  static constexpr std::array<std::uint8_t, 16> kYuy2 = {'Y',  'U', 'Y', '2',  0, 0,    0x10, 0,
                                                         0x80, 0,   0,   0xAA, 0, 0x38, 0x9B, 0x71};

  std::size_t mFormat = 0;
};

}  // namespace vel

#endif
