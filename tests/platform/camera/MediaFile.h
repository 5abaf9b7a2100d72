#ifndef VIRTUSB_TESTS_PLATFORM_CAMERA_MEDIA_FILE_H
#define VIRTUSB_TESTS_PLATFORM_CAMERA_MEDIA_FILE_H

#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
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
  explicit MediaFile(const Kind& kind);
  MediaFile(const MediaFile&) = delete;
  MediaFile& operator=(const MediaFile&) = delete;
  ~MediaFile();

  const std::string& Path() const { return mPath; }
  // The coded pictures.
  const std::vector<std::vector<std::uint8_t>>& Packets() const { return mPackets; }
  void Remove() const;
  // Overwrites bytes, or what is left of a picture behind its first bytes, with garbage.
  void Spoil(std::size_t start, std::size_t length) const;
  void SpoilPicture(std::size_t n) const;

 private:
  const std::string mPath;
  std::vector<std::vector<std::uint8_t>> mPackets;
};

}  // namespace vel

#endif
