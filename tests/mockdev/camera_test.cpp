// A UVC camera read through the real libusb, on a mocked kernel. Its payloads are whole: what goes wrong with them is
// in the tests of frame assembly and of the stream.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <utility>

#include <gmock/gmock.h>

#include "io/UsbIoXferInfo.h"
#include "mockdev/MockUsb.h"
#include "policys/stream/CameraGuest.h"
#include "support/CommandProcess.h"
#include "support/VsBlock.h"

namespace vel {
namespace {

using test::CameraGuest;
using testing::Each;
using testing::SizeIs;

constexpr std::uint8_t kEndpoint = 0x81;
constexpr std::uint32_t kPayload = 3060;       // Isochronous, header included.
constexpr std::uint32_t kBulkPayload = 16384;  // The same of bulk.
constexpr std::uint8_t kYuyv = 1;
constexpr std::uint8_t kMjpeg = 2;

// Of a raw picture, bytes: frame 1 is 1048x48, frame 2 1064x64.
constexpr std::uint32_t RawSize(std::uint8_t frame) {
  const std::uint32_t height = 32U + 16U * frame;
  return 2 * height * (1000 + height);
}

Bytes Configuration(bool bulk) {
  VsBlock block("yuyv 48 64 color mjpeg 48 64 color");
  block.bytes[block.starts[1] + 21] = 16;  // Bits for each pixel.
  Bytes bytes = {9, 2, 0,  0,    2, 1, 0, 0x80, 250, 8, 11, 0, 2, 14, 3, 0, 0, 9, 4, 0,    0,  0, 14, 1,
                 0, 0, 13, 0x24, 1, 0, 1, 13,   0,   0, 0,  0, 0, 1,  1, 9, 4, 1, 0, bulk, 14, 2, 0,  0};
  bytes.insert(bytes.end(), block.bytes.begin(), block.bytes.end());
  // Isochronous: 3 packets of 1024 bytes in a microframe.
  const Bytes end = bulk ? Bytes{7, 5, kEndpoint, 2, 0x00, 0x02, 0}
                         : Bytes{9, 4, 1, 1, 1, 14, 2, 0, 0, 7, 5, kEndpoint, 5, 0x00, 0x14, 1};
  bytes.insert(bytes.end(), end.begin(), end.end());
  bytes[2] = static_cast<std::uint8_t>(bytes.size());
  bytes[3] = static_cast<std::uint8_t>(bytes.size() >> 8U);
  return bytes;
}

// Interface 1 streams: isochronous from setting 1, or bulk from its only setting. Transfers wait while no frame is
// allowed, and move at once otherwise.
class MockCamera final : public MockUsb {
 public:
  static constexpr std::uint16_t kProduct = 0x0002;

  explicit MockCamera(bool bulk)
      : MockUsb({.product = kProduct,
                 .usbClass = 0xEF,
                 .config = Configuration(bulk),
                 .endpoint = kEndpoint & 0x0FU,
                 .lastSetting = bulk ? 0U : 1U}),
        mBulk(bulk) {
    Plug();
  }
  ~MockCamera() override { static_cast<void>(AwaitClosed()); }

  // From the first of these on, again and again.
  void Show(std::vector<Bytes> pictures) VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    mPictures = std::move(pictures);
    mNext = mOffset = 0;
    mAllowed = 0;
  }
  // Of its isochronous packets, one in so many is lost.
  void Lose(unsigned oneIn) VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    mLosesOneIn = oneIn;
  }
  void Allow(int frames) VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    mAllowed += frames;
    while (mAllowed > 0 && !mPending.empty()) {
      Fill(mPending.front());
      mDone.splice(mDone.end(), mPending, mPending.begin());
    }
    Changed();
  }

 private:
  bool Serve(Urb& urb, Bytes /*out*/) override VEL_REQUIRES(mMutex) {
    const bool moves = mAllowed > 0;
    if (moves) {
      Fill(urb);
    }
    return moves;
  }
  // Probe and commit control: what the guest asks for, with its sizes (UVC 1.1, table 4-47).
  bool ServeRequest(Urb& urb, std::span<const std::uint8_t> setup, Bytes out, Bytes& answer) override
      VEL_REQUIRES(mMutex) {
    if (setup[0] == 0xA1 && setup[4] == 1) {
      answer = mControl;
    } else if (setup[0] == 0x21 && setup[4] == 1 && out.size() <= mControl.size()) {
      std::ranges::copy(out, mControl.begin());
      const std::uint32_t size = RawSize(mControl[3]);
      std::memcpy(&mControl[18], &size, sizeof size);
      std::memcpy(&mControl[22], mBulk ? &kBulkPayload : &kPayload, sizeof kPayload);
    } else {
      urb.status = -EPIPE;
    }
    return true;
  }
  void Fill(Urb& urb) VEL_REQUIRES(mMutex) {
    urb.in.resize(urb.length);
    if (mBulk) {
      urb.moved = WritePayload(urb.in);
      urb.in.resize(urb.moved);
      return;
    }
    std::size_t place = 0;
    for (usbdevfs_iso_packet_desc& packet : urb.Packets()) {
      packet.status = 0;
      packet.actual_length = static_cast<unsigned>(WritePayload(std::span(urb.in).subspan(place, packet.length)));
      place += packet.length;
    }
  }
  // The size of the next one; 0 while no frame is allowed.
  std::size_t WritePayload(std::span<std::uint8_t> room) VEL_REQUIRES(mMutex) {
    constexpr std::size_t kHeader = 12;
    if (mAllowed == 0) {
      return 0;
    }
    const Bytes& picture = mPictures[mNext % mPictures.size()];
    const std::size_t count = std::min(room.size() - kHeader, picture.size() - mOffset);
    std::ranges::fill(room.first(kHeader), std::uint8_t{0xEE});
    room[0] = kHeader;
    room[1] = mFid | 0x80U;
    std::copy_n(picture.begin() + static_cast<std::ptrdiff_t>(mOffset), count, room.begin() + kHeader);
    mOffset += count;
    if (mOffset == picture.size()) {
      room[1] |= 2U;  // The frame's end.
      mFid ^= 1U;
      mOffset = 0;
      ++mNext;
      --mAllowed;
    }
    return mLosesOneIn != 0 && ++mPayloads % mLosesOneIn == 0 ? 0 : kHeader + count;
  }

  const bool mBulk;
  Bytes mControl VEL_GUARDED_BY(mMutex) = Bytes(34);
  std::vector<Bytes> mPictures VEL_GUARDED_BY(mMutex);
  int mAllowed VEL_GUARDED_BY(mMutex) = 0;
  unsigned mLosesOneIn VEL_GUARDED_BY(mMutex) = 0;
  unsigned mPayloads VEL_GUARDED_BY(mMutex) = 0;
  std::size_t mNext VEL_GUARDED_BY(mMutex) = 0;
  std::size_t mOffset VEL_GUARDED_BY(mMutex) = 0;  // In the picture.
  std::uint8_t mFid VEL_GUARDED_BY(mMutex) = 0;
};

// A guest at a camera that is streaming.
struct Streaming {
  explicit Streaming(bool bulkOnly, std::uint8_t format = kYuyv, bool transcode = false)
      : bulk(bulkOnly), camera(std::make_unique<MockCamera>(bulkOnly)) {
    if (transcode) {
      guest.AllowTranscoding();
    }
    guest.Open();
    Start(format, 1);
  }
  ~Streaming() { EXPECT_EQ(guest.Remote().Status(Command::kCloseUsbDev), 0); }
  Streaming(const Streaming&) = delete;
  Streaming& operator=(const Streaming&) = delete;

  void Start(std::uint8_t format, std::uint8_t frame) {
    pictures.clear();
    for (std::size_t number = 0; number < 5; ++number) {
      Bytes& picture = pictures.emplace_back(format == kYuyv ? RawSize(frame) : 20011 + 3000 * number);
      for (std::size_t i = 0; i < picture.size(); ++i) {
        picture[i] = static_cast<std::uint8_t>(i * 7 + i / 256 + number * 11);
      }
    }
    camera->Show(pictures);
    const std::uint32_t agreed = guest.Negotiate(format, frame).dwMaxVideoFrameSize;  // Copied: the record is packed.
    EXPECT_EQ(agreed, RawSize(frame));
    // A camera that streams over bulk has no such setting, and the stream starts all the same.
    EXPECT_EQ(guest.Remote().SetInterfaceAltSetting(1, 1) == 0, !bulk);
  }
  // Frames one by one: while no read waits, one may, and however slow this is none gives way to a newer one.
  std::vector<Bytes> Receive(int count) {
    std::vector<Bytes> received;
    camera->Allow(std::min(count, 1));
    for (int i = 0; i < count && !testing::Test::HasFailure(); ++i) {
      received.push_back(guest.Picture());
      camera->Allow(i + 1 < count ? 1 : 0);
    }
    return received;
  }

  const bool bulk;
  std::vector<Bytes> pictures;
  std::unique_ptr<MockCamera> camera;
  CameraGuest guest{{MockCamera::kBus, camera->Address(), MockCamera::kVendor, MockCamera::kProduct, ""}};
};

TEST(RealCamera, PicturesComeOutBitExact) {
  for (const bool bulk : {false, true}) {
    for (const auto& [format, transcode] : {std::pair{kYuyv, false}, {kMjpeg, false}, {kMjpeg, true}}) {
      SCOPED_TRACE(testing::Message() << "format " << +format << ", bulk " << bulk << ", transcode " << transcode);
      Streaming stream(bulk, format, transcode);
      const std::vector<Bytes> received = stream.Receive(12);
      ASSERT_THAT(received, SizeIs(12));
      for (std::size_t i = 0; i < received.size(); ++i) {
        EXPECT_TRUE(received[i] == stream.pictures[i % stream.pictures.size()]) << i;
      }
    }
  }
}

TEST(RealCamera, StopsStartsAgainAndChangesItsSizeAndFormat) {
  Streaming stream(false);
  for (int i = 0; i < 50 && !HasFailure(); ++i) {
    const int frames = i % 3;  // Also without one.
    for (const Bytes& picture : stream.Receive(frames)) {
      EXPECT_TRUE(picture == stream.pictures[0] || picture == stream.pictures[1]);
    }
    for (int read = 0; read < i % 4; ++read) {
      stream.guest.Read();
    }
    stream.camera->Allow(i % 2);  // In the middle of one.
    stream.guest.Stop();
    stream.guest.Rest();
    EXPECT_EQ(stream.camera->Look().pending, 0U);
    stream.Start(i % 5 == 0 ? kMjpeg : kYuyv, static_cast<std::uint8_t>(1 + i % 2));
  }
  EXPECT_THAT(stream.Receive(3), SizeIs(3));
}

TEST(RealCamera, UnpluggedInMidStreamLeavesNothing) {
  for (const bool bulk : {false, true}) {
    for (const bool stops : {false, true}) {
      Streaming stream(bulk);
      EXPECT_THAT(stream.Receive(1), SizeIs(1));
      stream.camera->Allow(1);
      stream.guest.Read();
      stream.camera->Unplug();
      if (stops) {
        EXPECT_NE(stream.guest.Remote().SetInterfaceAltSetting(1, 0), 0);
      }
      EXPECT_THAT(stream.guest.Rest(),
                  Each(testing::Field(&TransferReply::status, testing::AnyOf(kXferCompleted, kXferTimedOut))));
    }
  }
}

TEST(RealCamera, OneThatNeverShowsAWholePictureFailsTheStream) {
  for (const bool transcode : {false, true}) {
    MockCamera camera(false);
    camera.Show({Bytes(RawSize(1))});
    camera.Lose(10);
    camera.Allow(INT_MAX);
    std::vector<std::string> words = {VIRTUSB,     "--module", VIRTUSB_MODULE, "--log",     "off", "stream",
                                      "1209:0002", "--size",   "1048x48",      "--silence", "0.5"};
    if (!transcode) {
      words.emplace_back("--no-transcode");
    }
    const auto ending = CommandProcess(words, kDeadline).Await();
    EXPECT_EQ(ending.status, 1);
    EXPECT_THAT(ending.messages, testing::HasSubstr("virtusb: the camera has sent no picture for 0.5 seconds: "));
  }
}

}  // namespace
}  // namespace vel
