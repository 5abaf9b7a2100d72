#include "remote/ByteStream.h"

namespace vel {

std::span<IoPiece> Behind(std::span<IoPiece> pieces, std::size_t count) {
  while (!pieces.empty() && count >= pieces.front().iov_len) {
    count -= pieces.front().iov_len;
    pieces = pieces.subspan(1);
  }
  if (!pieces.empty()) {
    pieces.front().iov_base = static_cast<std::uint8_t*>(pieces.front().iov_base) + count;
    pieces.front().iov_len -= count;
  }
  return pieces;
}

bool ByteStream::WaitFor(RawFd fd, short events, std::chrono::milliseconds limit) const {
  return WaitForFirst({PollFd{fd, events, 0}, PollFd{mStop == nullptr ? kNoFd : mStop->Fd(), kReadable, 0},
                       PollFd{mAbort.Fd(), kReadable, 0}},
                      limit);
}

bool ByteStream::WaitWhileOpen(RawFd fd, short events) const {
  return WaitForFirst({PollFd{fd, events, 0}, PollFd{mStop == nullptr ? kNoFd : mStop->Fd(), kReadable, 0},
                       PollFd{mIn, kOtherSideEnded, 0}},
                      std::chrono::milliseconds(-1));
}

ByteStream::Result ByteStream::Read(std::span<std::uint8_t> buffer, std::size_t& count) {
  const IoPiece piece{buffer.data(), buffer.size()};
  return Read({&piece, 1}, count);
}

ByteStream::Result ByteStream::WriteAll(std::span<const std::uint8_t> bytes) {
  IoPiece piece = PieceOf(bytes);
  return WriteAll({&piece, 1});
}

ByteStream::Result ByteStream::WriteAll(std::span<IoPiece> pieces) {
  const MutexLock lock(mWriteMutex);
  Result result = mBroken ? Result::kFailed : Result::kOk;
  for (bool more = !pieces.empty(); more && result == Result::kOk;) {
    switch (WriteSome(pieces)) {
      case Progress::kAll:
        more = false;
        break;
      case Progress::kSome:
        break;
      case Progress::kNone:
        result = AwaitRoom();
        break;
      case Progress::kFailed:
        result = Result::kFailed;
        break;
    }
  }
  mBroken = result != Result::kOk;  // Half a packet may be out: nothing can follow it.
  return result;
}

ByteStream::Result ByteStream::AwaitRoom() {
  while (!WaitFor(mOut, kWritable, mPatience.limit)) {
    if (mAbort.IsRaised() || (mStop != nullptr && mStop->IsRaised())) {
      return Result::kStopped;
    }
    if (mPatience.othersWait && mPatience.othersWait()) {
      mLostPatience = true;
      return Result::kFailed;
    }
  }
  return Result::kOk;
}

}  // namespace vel
