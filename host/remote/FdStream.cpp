#include "remote/FdStream.h"

#include <utility>

namespace vel {

// A write that fills the pipe must return, so that a stop can end the wait for room.
FdStream::FdStream(RawFd in, RawFd out, const StopSignal& stop)
    : ByteStream(in, out, &stop), mOutMode(StopWaiting(Out())) {}

FdStream::FdStream(UniqueFd in, UniqueFd out, const StopSignal* stop)
    : ByteStream(in.Get(), out.IsValid() ? out.Get() : in.Get(), stop),
      mOwnedIn(std::move(in)),
      mOwnedOut(std::move(out)),
      mOutMode(StopWaiting(Out())) {}

FdStream::~FdStream() {
  RestoreMode(Out(), mOutMode);
}

FdStream::Result FdStream::Read(std::span<const IoPiece> pieces, std::size_t& count) {
  while (true) {
    if (!WaitFor(In(), kReadable)) {
      return Result::kStopped;
    }
    const std::ptrdiff_t n = ReadPieces(In(), pieces);
    if (n > 0) {
      count = static_cast<std::size_t>(n);
      return Result::kOk;
    }
    if (n == 0) {
      return Result::kEnd;
    }
    if (const int error = LastFdError(); error != kErrorInterrupted && error != kErrorWouldWait) {
      mError = error;
      return Result::kFailed;
    }
  }
}

std::string FdStream::Error() const {
  return FdErrorText(mError);
}

FdStream::Progress FdStream::WriteSome(std::span<IoPiece>& pieces) {
  const std::ptrdiff_t n = WritePieces(Out(), pieces);
  if (n >= 0) {
    pieces = Behind(pieces, static_cast<std::size_t>(n));
    return pieces.empty() ? Progress::kAll : Progress::kSome;
  }
  const int error = LastFdError();
  return error == kErrorWouldWait ? Progress::kNone : error == kErrorInterrupted ? Progress::kSome : Progress::kFailed;
}

}  // namespace vel
