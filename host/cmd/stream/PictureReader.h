#ifndef VIRTUSB_HOST_CMD_STREAM_PICTURE_READER_H
#define VIRTUSB_HOST_CMD_STREAM_PICTURE_READER_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "remote/RemoteDevice.h"
#include "vel/Mutex.h"

namespace vel {

// Keeps several reads of a camera's streaming endpoint in flight. Each is answered with one whole picture, in their
// order. One thread, but for Stop.
class PictureReader {
 public:
  using Clock = std::chrono::steady_clock;

  struct Arrival {
    TransferReply reply;
    Clock::time_point time;
    // From when the read was the oldest in flight to its reply: how long a picture was waited for.
    Clock::duration waited{};
  };

  // So many that one is always waiting in the module while another's picture is written.
  static constexpr int kInFlight = 4;

  // Nothing is read yet. `room` is what each read asks for, bytes; the picture may be larger. `remote` outlives it.
  PictureReader(RemoteDevice& remote, std::uint8_t endpoint, std::uint32_t room);
  PictureReader(const PictureReader&) = delete;
  PictureReader& operator=(const PictureReader&) = delete;
  // What arrives later is dropped. See Withdraw.
  ~PictureReader();

  void Start();
  // The next reply; a read takes its place in flight. Nothing at `deadline`, and once stopped. Throws RemoteError when
  // the channel is closed.
  std::optional<Arrival> Next(Clock::time_point deadline);
  // Ends Next, now and later. Any thread.
  void Stop();
  bool IsStopped() const;
  // Stops, cancels the reads in flight and waits for their ends, as a guest does before it ends the stream. Throws
  // RemoteError when a request is not answered.
  void Withdraw();

 private:
  struct Inbox;  // Outlives the reader where replies are late.

  void Submit();

  RemoteDevice& mRemote;
  const std::uint8_t mEndpoint;
  const std::uint32_t mRoom;
  const std::shared_ptr<Inbox> mInbox;
  std::deque<std::uint32_t> mStreamIds;  // Of the latest kInFlight reads, the latest first.
};

}  // namespace vel

#endif
