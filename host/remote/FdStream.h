#ifndef VIRTUSB_HOST_REMOTE_FD_STREAM_H
#define VIRTUSB_HOST_REMOTE_FD_STREAM_H

#include <cstddef>
#include <span>
#include <string>

#include "remote/ByteStream.h"
#include "remote/StopSignal.h"

namespace vel {

// Bytes as they are, on two descriptors or one socket.
class FdStream final : public ByteStream {
 public:
  // The descriptors stay the caller's.
  FdStream(RawFd in, RawFd out, const StopSignal& stop);
  // Takes them over; `in` is for both directions where `out` is not valid. Without a signal only Abort ends the waits.
  explicit FdStream(UniqueFd in, UniqueFd out = {}, const StopSignal* stop = nullptr);
  ~FdStream() override;  // Gives the output its blocking mode back.

  using ByteStream::Read;
  Result Read(std::span<const IoPiece> pieces, std::size_t& count) override;
  std::string Error() const override;

 private:
  Progress WriteSome(std::span<IoPiece>& pieces) override;

  const UniqueFd mOwnedIn;
  const UniqueFd mOwnedOut;
  const int mOutMode;  // As it was.
  int mError = 0;
};

}  // namespace vel

#endif
