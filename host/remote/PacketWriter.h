#ifndef VIRTUSB_HOST_REMOTE_PACKET_WRITER_H
#define VIRTUSB_HOST_REMOTE_PACKET_WRITER_H

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <thread>
#include <vector>

#include "protocol/VelPacket.h"
#include "remote/ByteStream.h"
#include "vel/Mutex.h"

namespace vel {

// Writes packets to a stream, each in one piece, in the order in which they come. One that comes alone is written by
// its own thread, since it costs the least time; those that come while another is written wait, and go out together.
class PacketWriter {
 public:
  // Bytes that may wait; more make their threads wait.
  static constexpr std::size_t kMaxWaiting = std::size_t{1} << 20U;

  // `onFailed` is told once, on any of the writing threads, when a write fails or is stopped; nothing is written after
  // that. `stream` outlives it.
  PacketWriter(ByteStream& stream, std::function<void(ByteStream::Result)> onFailed);
  PacketWriter(const PacketWriter&) = delete;
  PacketWriter& operator=(const PacketWriter&) = delete;
  // What waits is dropped. A write under way must have been aborted, or come to its end by itself.
  ~PacketWriter();

  // Any thread. Returns before the packet is written when others are under way. A packet after a failure is dropped.
  void Write(std::unique_ptr<VelPacket> packet) VEL_EXCLUDES(mMutex);
  // Waits until everything is written, or never will be.
  void Flush() VEL_EXCLUDES(mMutex);

 private:
  using Packets = std::vector<std::unique_ptr<VelPacket>>;

  void WriteWaiting() VEL_EXCLUDES(mMutex);
  // With the stream taken by mWriting, which it gives back.
  void WriteNow(std::span<IoPiece> packets) VEL_EXCLUDES(mMutex);

  ByteStream& mStream;
  const std::function<void(ByteStream::Result)> mOnFailed;
  Mutex mMutex;
  CondVar mWork;     // For the thread.
  CondVar mChanged;  // For those who wait for room, or for everything to be written.
  bool mWriting VEL_GUARDED_BY(mMutex) = false;
  bool mFailed VEL_GUARDED_BY(mMutex) = false;
  bool mEnded VEL_GUARDED_BY(mMutex) = false;
  Packets mWaiting VEL_GUARDED_BY(mMutex);
  std::size_t mWaitingBytes VEL_GUARDED_BY(mMutex) = 0;
  std::thread mThread;
};

}  // namespace vel

#endif
