#include "remote/PacketWriter.h"

#include <utility>

namespace vel {

PacketWriter::PacketWriter(ByteStream& stream, std::function<void(ByteStream::Result)> onFailed)
    : mStream(stream), mOnFailed(std::move(onFailed)), mThread([this] { WriteWaiting(); }) {}

PacketWriter::~PacketWriter() {
  {
    const MutexLock lock(mMutex);
    mEnded = true;
    mWork.NotifyOne();
  }
  mThread.join();
}

void PacketWriter::Write(std::unique_ptr<VelPacket> packet) {
  {
    MutexLock lock(mMutex);
    while (mWaitingBytes >= kMaxWaiting && !mFailed) {
      mChanged.Wait(lock);
    }
    if (mFailed) {
      return;
    }
    if (mWriting || !mWaiting.empty()) {
      mWaitingBytes += packet->GetPacketSize();
      mWaiting.push_back(std::move(packet));
      return;  // Whoever writes now wakes the thread.
    }
    mWriting = true;
  }
  IoPiece piece = PieceOf(packet->Wire());
  WriteNow({&piece, 1});
}

void PacketWriter::Flush() {
  MutexLock lock(mMutex);
  while ((mWriting || !mWaiting.empty()) && !mFailed) {
    mChanged.Wait(lock);
  }
}

void PacketWriter::WriteWaiting() {
  std::vector<IoPiece> pieces;
  while (true) {
    Packets packets;
    {
      MutexLock lock(mMutex);
      while (!mEnded && (mWriting || mWaiting.empty())) {
        mWork.Wait(lock);
      }
      if (mEnded) {
        return;
      }
      packets.swap(mWaiting);
      mWaitingBytes = 0;
      mWriting = true;
      mChanged.NotifyAll();
    }
    pieces.clear();
    for (const auto& packet : packets) {
      pieces.push_back(PieceOf(packet->Wire()));
    }
    WriteNow(pieces);
  }
}

void PacketWriter::WriteNow(std::span<IoPiece> packets) {
  const ByteStream::Result result = mStream.WriteAll(packets);
  const bool failed = result != ByteStream::Result::kOk;
  {
    const MutexLock lock(mMutex);
    mWriting = false;
    mFailed = failed;
    if (failed) {
      mWaiting.clear();
    } else if (!mWaiting.empty()) {
      mWork.NotifyOne();
    }
    mChanged.NotifyAll();
  }
  if (failed) {
    mOnFailed(result);
  }
}

}  // namespace vel
