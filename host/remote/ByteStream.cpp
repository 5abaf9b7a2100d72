#include "remote/ByteStream.h"

#include <poll.h>

namespace vel {

std::span<iovec> Behind(std::span<iovec> pieces, std::size_t count) {
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

bool ByteStream::WaitFor(int fd, short events, std::chrono::milliseconds limit) const {
  return WaitForFirst(
      {pollfd{fd, events, 0}, pollfd{mStop == nullptr ? -1 : mStop->Fd(), POLLIN, 0}, pollfd{mAbort.Fd(), POLLIN, 0}},
      limit);
}

bool ByteStream::WaitWhileOpen(int fd, short events) const {
  return WaitForFirst(
      {pollfd{fd, events, 0}, pollfd{mStop == nullptr ? -1 : mStop->Fd(), POLLIN, 0}, pollfd{mIn, POLLRDHUP, 0}},
      std::chrono::milliseconds(-1));
}

ByteStream::Result ByteStream::Read(std::span<std::uint8_t> buffer, std::size_t& count) {
  const iovec piece{buffer.data(), buffer.size()};
  return Read({&piece, 1}, count);
}

ByteStream::Result ByteStream::WriteAll(std::span<const std::uint8_t> bytes) {
  iovec piece = PieceOf(bytes);
  return WriteAll({&piece, 1});
}

ByteStream::Result ByteStream::WriteAll(std::span<iovec> pieces) {
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
  while (!WaitFor(mOut, POLLOUT, mPatience.limit)) {
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
