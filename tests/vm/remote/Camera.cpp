// A UVC camera on this machine's bus, by its virtual host controller: what USB has of isochronous devices here.
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <deque>
#include <optional>
#include <vector>

#include "Checks.h"
#include "Commands.h"
#include "Pattern.h"
#include "far/UrbTable.h"
#include "far/Vhci.h"

namespace vel::vm {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kHighSpeed = 3;  // enum usb_device_speed of Linux
constexpr std::size_t kRow = 1280;       // 640 pixels
constexpr std::size_t kRows = 480;
constexpr std::chrono::nanoseconds kInterval{33'333'333};
constexpr std::size_t kPayload = 3072;

// Of UVC 1.0: camera, output terminal, a stream of YUYV 640x480 at 30 a second, three packets of 1024 a microframe.
// clang-format off
constexpr std::array<std::uint8_t, 18> kDevice = {
    18, 1, 0x00, 0x02, 0xEF, 2, 1, 64, 0x6B, 0x1D, 0x02, 0x01, 0, 1, 0, 0, 0, 1};
constexpr std::array<std::uint8_t, 162> kConfiguration = {
    9, 2, 162, 0, 2, 1, 0, 0x80, 250,
    8, 11, 0, 2, 14, 3, 0, 0,  // Both interfaces are one function.
    9, 4, 0, 0, 0, 14, 1, 0, 0,
    13, 0x24, 1, 0, 1, 40, 0, 0x80, 0xC3, 0xC9, 1, 1, 1,
    18, 0x24, 2, 1, 1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0,
    9, 0x24, 3, 2, 1, 1, 0, 1, 0,
    9, 4, 1, 0, 0, 14, 2, 0, 0,
    14, 0x24, 1, 1, 71, 0, 0x81, 0, 2, 0, 0, 0, 1, 0,
    27, 0x24, 4, 1, 1, 'Y', 'U', 'Y', '2', 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71, 16, 1, 0, 0, 0, 0,
    30, 0x24, 5, 1, 0, 0x80, 2, 0xE0, 1, 0, 0, 0x94, 0x11, 0, 0, 0x94, 0x11, 0, 0x60, 9, 0, 0x15, 0x16, 5, 0,
    1, 0x15, 0x16, 5, 0,
    9, 4, 1, 1, 1, 14, 2, 0, 0,
    7, 5, 0x81, 5, 0x00, 0x14, 1};
// Format 1, frame 1, 30 a second; 614400 bytes a picture, 3072 a payload.
constexpr std::array<std::uint8_t, 26> kProbe = {
    1, 0, 1, 1, 0x15, 0x16, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x60, 9, 0, 0, 0x0C, 0, 0};
// clang-format on

class Camera {
 public:
  Camera(std::size_t header, const std::string& controller)
      : mHeader(header),
        mKernel(Vhci(controller).Attach(kHighSpeed, mPort)),
        mStream(mKernel.Get(), mKernel.Get(), mNever) {
    for (unsigned n = 0; n < kGradients; ++n) {
      for (std::size_t at = 0; at < kRow * kRows; ++at) {
        mPictures[n].push_back(GradientByte(at % kRow, at / kRow, n));
      }
    }
  }

  // Until the kernel lets go.
  void Run() {
    UsbipReader reader;
    std::size_t count = 0;
    pollfd kernel{mKernel.Get(), POLLIN, 0};
    while (true) {
      if (poll(&kernel, 1, Show()) > 0) {
        if (mStream.Read(reader.Room(), count) != FdStream::Result::kOk) {
          return;
        }
        reader.Filled(count);
        Take(reader);
      }
    }
  }

 private:
  void Take(UsbipReader& reader) {
    Urb urb;
    UnlinkRequest unlink;
    for (auto got = reader.Next(urb, unlink); got != UsbipReader::Got::kNothing; got = reader.Next(urb, unlink)) {
      Require(got != UsbipReader::Got::kError, reader.Error());
      UrbInFlight added;
      added.seqnum = urb.seqnum;
      std::uint32_t unlinked = 0;
      if (got == UsbipReader::Got::kUnlink) {
        Unlink(unlink);
      } else if (mTable.Add(std::move(added), unlinked) == UrbTable::Added::kTakenBack) {
        Write(WriteUnlinkReply(unlinked, -ECONNRESET), {}, {});
      } else if (urb.endpoint == 0x81) {
        mReads.push_back(urb);
      } else {
        const auto answer = Control(urb.setup);
        const auto length = answer ? std::min<std::size_t>(answer->size(), urb.length) : 0;
        Answer({.seqnum = urb.seqnum,
                .status = answer ? 0 : -EPIPE,
                .actualLength = static_cast<std::uint32_t>(urb.IsIn() ? length : urb.length),
                .data = urb.IsIn() && answer ? std::span(*answer).first(length) : std::span<const std::uint8_t>()});
      }
    }
  }
  void Unlink(const UnlinkRequest& unlink) {
    const auto result = mTable.Unlink(unlink);
    if (result == UrbTable::Unlinked::kPending) {
      mTable.Remove(unlink.target);
      std::erase_if(mReads, [&](const Urb& read) { return read.seqnum == unlink.target; });
    }
    if (result != UrbTable::Unlinked::kEarly) {
      Write(WriteUnlinkReply(unlink.seqnum, result == UrbTable::Unlinked::kPending ? -ECONNRESET : 0), {}, {});
    }
  }

  // Nothing: a stall.
  std::optional<std::span<const std::uint8_t>> Control(const ControlSetup& setup) {
    static constexpr std::array<std::uint8_t, 2> kStatus{};
    static constexpr std::array<std::uint8_t, 2> kProbeLength = {kProbe.size(), 0};
    static constexpr std::array<std::uint8_t, 1> kInfo = {3};  // Can be got and set.
    const bool ofStream = setup.wIndex == 1;
    const unsigned descriptor = setup.wValue >> 8U;
    switch (setup.bmRequestType << 8U | setup.bRequest) {
      case 0x8006:
        return descriptor == 1   ? std::optional<std::span<const std::uint8_t>>(kDevice)
               : descriptor == 2 ? std::optional<std::span<const std::uint8_t>>(kConfiguration)
                                 : std::nullopt;
      case 0x010B:
        mStreams = ofStream && setup.wValue == 1;
        mDue = Clock::now();
        mRest = {};
        return kStatus;
      case 0xA185:
        return kProbeLength;
      case 0xA186:
        return kInfo;
      default:
        return (setup.bmRequestType & 0x80U) == 0 || !ofStream ? std::span<const std::uint8_t>(kStatus) : kProbe;
    }
  }

  // Fills the reads that wait; milliseconds until that has to be done again, or -1. A picture that nobody reads in time
  // waits, since the time of an emulated machine jumps: what is missing then was lost behind the bus.
  int Show() {
    while (mStreams && !mReads.empty()) {
      if (mRest.empty()) {
        const auto now = Clock::now();
        if (now < mDue) {
          return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(mDue - now).count());
        }
        mDue = std::max(mDue + kInterval, now + kInterval / 2);
        mRest = mPictures[++mShown % kGradients];
      }
      Fill(mReads.front());
      mReads.pop_front();
    }
    return -1;
  }
  void Fill(Urb& read) {
    mData.clear();
    for (UrbPacket& packet : read.packets) {
      const std::size_t before = mData.size();
      if (const std::size_t room = std::min<std::size_t>(packet.length, kPayload); !mRest.empty() && room > mHeader) {
        const auto piece = mRest.first(std::min(mRest.size(), room - mHeader));
        mRest = mRest.subspan(piece.size());
        // The frame's bit, its end, and which clocks follow: 4 bytes of one and 6 of the other.
        mData.push_back(static_cast<std::uint8_t>(mHeader));
        mData.push_back(static_cast<std::uint8_t>(0x80 | (mShown & 1) | (mRest.empty() ? 2 : 0) |
                                                  (mHeader == 12  ? 0x0C
                                                   : mHeader == 8 ? 0x08
                                                                  : 0)));
        mData.resize(before + mHeader);
        mData.insert(mData.end(), piece.begin(), piece.end());
      }
      packet.actualLength = static_cast<std::uint32_t>(mData.size() - before);
    }
    Answer({.seqnum = read.seqnum,
            .actualLength = static_cast<std::uint32_t>(mData.size()),
            .data = mData,
            .packets = read.packets});
  }

  void Answer(const UrbReply& reply) {
    mTable.Remove(reply.seqnum);
    Write(WriteUrbReply(reply), reply.data, reply.packets);
  }
  void Write(UsbipHeader header, std::span<const std::uint8_t> data, std::span<const UrbPacket> packets) {
    Bytes table;
    AppendPacketTable(table, packets);
    std::array<iovec, 3> pieces = {iovec{header.data(), header.size()},
                                   iovec{const_cast<std::uint8_t*>(data.data()), data.size()},
                                   iovec{table.data(), table.size()}};
    mStream.WriteAll(pieces);
  }

  const std::size_t mHeader;
  const StopSignal mNever;
  unsigned mPort = 0;
  const UniqueFd mKernel;
  FdStream mStream;
  std::array<Bytes, kGradients> mPictures;
  UrbTable mTable;
  std::deque<Urb> mReads;
  bool mStreams = false;
  Clock::time_point mDue;  // Of the next picture.
  unsigned mShown = 0;     // Number of the latest one, of which mRest is not sent yet.
  std::span<const std::uint8_t> mRest;
  Bytes mData;
};

}  // namespace

std::string ShowCamera(const std::string& header, Arguments arguments) {
  Camera(std::stoul(header), arguments[0]).Run();
  return "detached";
}

}  // namespace vel::vm
