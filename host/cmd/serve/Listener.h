#ifndef VIRTUSB_HOST_CMD_SERVE_LISTENER_H
#define VIRTUSB_HOST_CMD_SERVE_LISTENER_H

#include <string>

#include "remote/StopSignal.h"

namespace vel {

// Takes remote sides in, one after the other.
class Listener {
 public:
  // `address` is ADDR:PORT, or :PORT or PORT of the loopback address; port 0 is any free one. Throws UsageError for a
  // text that is none of these, std::runtime_error when it cannot be listened on, and Interrupted when `stop` was
  // raised before. `stop` outlives it. With a `refusal`, an address that other machines reach is a UsageError, too:
  // what to do instead.
  Listener(const std::string& address, const StopSignal& stop, const char* refusal = nullptr);

  // Address and port as they are.
  std::string Name() const;
  // Waits for the next remote side; `peer` gets its name. Not valid once stopped.
  UniqueFd Accept(std::string& peer) const;
  // The same without waiting, where Fd is readable. Not valid when there is none after all, or no descriptor for it;
  // a moment has passed then.
  UniqueFd TryAccept(std::string& peer) const;
  RawFd Fd() const { return mFd.Get(); }

 private:
  UniqueFd mFd;
  const StopSignal& mStop;
};

}  // namespace vel

#endif
