#ifndef VIRTUSB_HOST_REMOTE_BYTE_STREAM_H
#define VIRTUSB_HOST_REMOTE_BYTE_STREAM_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>

#include "remote/StopSignal.h"
#include "vel/Mutex.h"

namespace vel {

// For WriteAll.
inline IoPiece PieceOf(std::span<const std::uint8_t> bytes) {
  return {const_cast<std::uint8_t*>(bytes.data()), bytes.size()};  // Only read from.
}

// The two directions of a byte stream over descriptors; how bytes travel there is up to who derives from it. A stop
// signal, if there is one, ends every wait, and so does Abort. The process has to ignore SIGPIPE: a write that nobody
// reads is a result here.
class ByteStream {
 public:
  enum class Result { kOk, kEnd, kStopped, kFailed };
  // How long a write may wait without progress while others want the other side's place. It is asked each time that
  // this has passed.
  struct Patience {
    std::chrono::milliseconds limit{-1};  // None.
    std::function<bool()> othersWait;
  };

  ByteStream(const ByteStream&) = delete;
  ByteStream& operator=(const ByteStream&) = delete;
  virtual ~ByteStream() = default;

  // Waits for bytes; `count` says how many came. One thread.
  Result Read(std::span<std::uint8_t> buffer, std::size_t& count);
  // The same into several pieces, one behind the other.
  virtual Result Read(std::span<const IoPiece> pieces, std::size_t& count) = 0;
  // What a read failed with, for people. The reading thread, after that.
  virtual std::string Error() const = 0;
  // Writes everything, in one piece among several writers. After a failure nothing more is written. Any thread.
  Result WriteAll(std::span<const std::uint8_t> bytes) VEL_EXCLUDES(mWriteMutex);
  // The same of several pieces, one behind the other; `pieces` is used up.
  Result WriteAll(std::span<IoPiece> pieces) VEL_EXCLUDES(mWriteMutex);
  // Ends the waits of this stream, now and later, as the stop signal does. Any thread.
  void Abort() { mAbort.Raise(); }
  // Waits until another descriptor is ready for `events`. False when stopped, and after `limit`; a negative
  // one is none. Any thread.
  bool WaitFor(RawFd fd, short events, std::chrono::milliseconds limit = std::chrono::milliseconds(-1)) const;
  // The same without a limit, and false when the other side ends its output meanwhile, whatever of it is still unread.
  bool WaitWhileOpen(RawFd fd, short events) const;

  // Before the first write.
  void SetPatience(Patience patience) { mPatience = std::move(patience); }
  // Whether a write failed because patience was at its end. Any thread.
  bool LostPatience() const { return mLostPatience; }

 protected:
  enum class Progress { kAll, kSome, kNone, kFailed };

  // Descriptors and signal outlive it.
  ByteStream(RawFd in, RawFd out, const StopSignal* stop) : mIn(in), mOut(out), mStop(stop) {}

  RawFd In() const { return mIn; }
  RawFd Out() const { return mOut; }
  // Passes on what goes without waiting of the pieces, which become what is left. kAll: nothing is held back either;
  // kNone: there is no room.
  virtual Progress WriteSome(std::span<IoPiece>& pieces) VEL_REQUIRES(mWriteMutex) = 0;

  Mutex mWriteMutex;

 private:
  Result AwaitRoom();

  const RawFd mIn;
  const RawFd mOut;
  const StopSignal* const mStop;
  const StopSignal mAbort;
  Patience mPatience;
  std::atomic<bool> mLostPatience{false};
  bool mBroken VEL_GUARDED_BY(mWriteMutex) = false;
};

// What is left of the pieces once `count` bytes of them are done with.
std::span<IoPiece> Behind(std::span<IoPiece> pieces, std::size_t count);

}  // namespace vel

#endif
