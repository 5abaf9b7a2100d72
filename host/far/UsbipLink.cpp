#include "far/UsbipLink.h"

#include <utility>

#include "far/UsbipWire.h"

namespace vel {

UsbipLink::UsbipLink(int fd, FarDevice& device, const StopSignal& stop)
    : mDevice(device), mStream(fd, fd, stop), mStop(stop) {}

UsbipLink::End UsbipLink::Run() {
  mDevice.Connect(*this);
  const End end = ReadCommands();
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
  std::vector<std::uint8_t> bytes;
  {
    MutexLock lock(mMutex);
    while (mWaiting.size() > kMaxWaiting && !mBroken) {
      mChanged.Wait(lock);
    }
    if (mBroken) {
      return;
    }
    mWaiting.insert(mWaiting.end(), head.begin(), head.end());
    mWaiting.insert(mWaiting.end(), data.begin(), data.end());
    AppendPacketTable(mWaiting, packets);
    if (mWriting) {
      return;
    }
    mWriting = true;
    bytes.swap(mWaiting);
  }
  while (true) {
    const bool written = mStream.WriteAll(bytes) == FdStream::Result::kOk;
    const MutexLock lock(mMutex);
    mBroken = !written;
    mChanged.NotifyAll();
    bytes.clear();
    if (mBroken || mWaiting.empty()) {
      mWriting = false;
      if (!mBroken) {
        mWaiting.swap(bytes);  // Its memory serves the next answer.
      }
      return;
    }
    bytes.swap(mWaiting);
  }
}

}  // namespace vel
