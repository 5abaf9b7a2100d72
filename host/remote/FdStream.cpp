#include "remote/FdStream.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace vel {

FdStream::FdStream(int in, int out, const StopSignal& stop) : ByteStream(in, out, &stop) {
  SetNonBlocking();
}

FdStream::FdStream(UniqueFd in, UniqueFd out, const StopSignal* stop)
    : ByteStream(in.Get(), out.IsValid() ? out.Get() : in.Get(), stop),
      mOwnedIn(std::move(in)),
      mOwnedOut(std::move(out)) {
  SetNonBlocking();
}

FdStream::~FdStream() {
  if (mOutFlags >= 0) {
    fcntl(Out(), F_SETFL, mOutFlags);
  }
}

// A write that fills the pipe must return, so that a stop can end the wait for room.
void FdStream::SetNonBlocking() {
  mOutFlags = fcntl(Out(), F_GETFL);
  if (mOutFlags >= 0) {
    fcntl(Out(), F_SETFL, mOutFlags | O_NONBLOCK);
  }
}

FdStream::Result FdStream::Read(std::span<const iovec> pieces, std::size_t& count) {
  while (true) {
    if (!WaitFor(In(), POLLIN)) {
      return Result::kStopped;
    }
    const ssize_t n = readv(In(), pieces.data(), static_cast<int>(pieces.size()));
    if (n > 0) {
      count = static_cast<std::size_t>(n);
      return Result::kOk;
    }
    if (n == 0) {
      return Result::kEnd;
    }
    if (errno != EINTR && errno != EAGAIN) {
      mError = errno;
      return Result::kFailed;
    }
  }
}

std::string FdStream::Error() const {
  return std::strerror(mError);
}

FdStream::Progress FdStream::WriteSome(std::span<iovec>& pieces) {
  const ssize_t n = writev(Out(), pieces.data(), static_cast<int>(std::min<std::size_t>(pieces.size(), IOV_MAX)));
  if (n >= 0) {
    pieces = Behind(pieces, static_cast<std::size_t>(n));
    return pieces.empty() ? Progress::kAll : Progress::kSome;
  }
  return errno == EAGAIN ? Progress::kNone : errno == EINTR ? Progress::kSome : Progress::kFailed;
}

}  // namespace vel
