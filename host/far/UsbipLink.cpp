#include "far/UsbipLink.h"

#include <array>
#include <exception>
#include <utility>

#include "far/UsbipWire.h"

namespace vel {

UsbipLink::UsbipLink(RawFd fd, FarDevice& device, const StopSignal& stop)
    : mDevice(device), mStream(fd, fd, stop), mStop(stop) {}

UsbipLink::End UsbipLink::Run() {
  mDevice.Connect(*this);
  End end = End::kFailed;
  try {
    end = ReadCommands();
  } catch (const std::exception& error) {
    mError = error.what();
  }
  mStream.Abort();  // Nobody reads answers any more.
  mDevice.Disconnect();
  return mDevice.IsGone() ? End::kDeviceGone : end;
}

UsbipLink::End UsbipLink::ReadCommands() {
  UsbipReader reader;
  Urb urb;
  UnlinkRequest unlink;
  std::size_t count = 0;
  while (!mDevice.IsGone() && mStream.Read(reader.Room(), count) == FdStream::Result::kOk) {
    reader.Filled(count);
    for (bool more = true; more;) {
      switch (reader.Next(urb, unlink)) {
        case UsbipReader::Got::kUrb:
          mDevice.Submit(urb);
          break;
        case UsbipReader::Got::kUnlink:
          mDevice.Unlink(unlink);
          break;
        case UsbipReader::Got::kNothing:
          more = false;
          break;
        case UsbipReader::Got::kError:
          mError = reader.Error();
          return End::kMalformed;
      }
    }
  }
  return mStop.IsRaised() ? End::kStopped : End::kGuestLeft;
}

void UsbipLink::OnUrbDone(const UrbReply& reply) {
  Write(WriteUrbReply(reply), reply.data, reply.packets);
}

void UsbipLink::OnUnlinked(std::uint32_t seqnum, std::int32_t status) {
  Write(WriteUnlinkReply(seqnum, status), {}, {});
}

void UsbipLink::OnGone() {
  mStream.Abort();
}

void UsbipLink::Write(std::span<const std::uint8_t> head, std::span<const std::uint8_t> data,
                      std::span<const UrbPacket> packets) {
  std::vector<std::uint8_t> table;
  AppendPacketTable(table, packets);
  std::array pieces = {PieceOf(head), PieceOf(data), PieceOf(table)};
  {
    MutexLock lock(mMutex);
    while (mWaiting.size() > kMaxWaiting && !mBroken) {
      mChanged.Wait(lock);
    }
    if (mBroken) {
      return;
    }
    if (mWriting) {
      for (const std::span<const std::uint8_t> piece : {head, data, std::span<const std::uint8_t>(table)}) {
        mWaiting.insert(mWaiting.end(), piece.begin(), piece.end());
      }
      return;
    }
    mWriting = true;
  }
  bool written = mStream.WriteAll(pieces) == FdStream::Result::kOk;
  std::vector<std::uint8_t> bytes;
  while (true) {
    {
      const MutexLock lock(mMutex);
      mBroken = !written;
      mChanged.NotifyAll();
      bytes.clear();
      mWriting = written && !mWaiting.empty();
      if (!mWriting) {
        return;
      }
      bytes.swap(mWaiting);
    }
    written = mStream.WriteAll(bytes) == FdStream::Result::kOk;
  }
}

}  // namespace vel
