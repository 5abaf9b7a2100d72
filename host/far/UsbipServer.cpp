#include "far/UsbipServer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>

#include "far/UsbipLink.h"

namespace vel {
namespace {

using Clock = std::chrono::steady_clock;

// For a client to say what it wants.
constexpr std::chrono::seconds kRequestTime{10};

// Fills `bytes`. False when the client goes or everything ends. Throws std::runtime_error when it takes too long.
bool ReadWhole(RawFd fd, std::span<std::uint8_t> bytes, Clock::time_point deadline, const StopSignal& stop) {
  while (!bytes.empty()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    std::array<PollFd, 2> descriptors = {PollFd{fd, kReadable, 0}, PollFd{stop.Fd(), kReadable, 0}};
    const int ready = Poll(descriptors, static_cast<int>(std::max<long long>(left, 0)));
    if (ready == 0) {
      throw std::runtime_error("it has asked for nothing within " + std::to_string(kRequestTime.count()) + " s");
    }
    if (descriptors[1].revents != 0) {
      return false;
    }
    const IoPiece piece{bytes.data(), bytes.size()};
    const std::ptrdiff_t count = ready < 0 ? -1 : ReadPieces(fd, {&piece, 1});
    const int error = count < 0 ? LastFdError() : 0;
    if (count == 0 || (error != 0 && error != kErrorInterrupted && error != kErrorWouldWait)) {
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
  }
  return true;
}

}  // namespace

// A guest's time with a device: the next one may come when it is over, whatever is thrown.
class UsbipServer::Turn {
 public:
  explicit Turn(Exported& exported) : mExported(exported) {}
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() { mExported.taken = false; }

 private:
  Exported& mExported;
};

UsbipServer::~UsbipServer() {
  for (Connection& connection : mConnections) {
    connection.thread.join();
  }
}

std::string UsbipServer::Add(std::uint32_t number, std::string name, std::unique_ptr<FarDevice> device) {
  std::string busId = "1-" + std::to_string(number);
  auto exported = std::make_shared<Exported>();
  exported->name = std::move(name);
  exported->record = device->Facts().Record(busId, number);
  exported->device = std::move(device);
  const MutexLock lock(mMutex);
  mDevices[number].swap(exported);  // What it had goes behind the lock.
  return busId;
}

void UsbipServer::Remove(std::uint32_t number) {
  std::shared_ptr<Exported> removed;  // Closing takes time; outside the lock.
  const MutexLock lock(mMutex);
  if (auto node = mDevices.extract(number)) {
    removed = std::move(node.mapped());
  }
}

std::shared_ptr<UsbipServer::Exported> UsbipServer::Find(const std::string& busId) const {
  const MutexLock lock(mMutex);
  const auto found =
      std::ranges::find_if(mDevices, [&busId](const auto& each) { return each.second->record.busId == busId; });
  return found == mDevices.end() ? nullptr : found->second;
}

void UsbipServer::Serve(UniqueFd connection, const std::string& peer) {
  for (auto each = mConnections.begin(); each != mConnections.end();) {
    if (each->over) {
      each->thread.join();
      each = mConnections.erase(each);
    } else {
      ++each;
    }
  }
  if (mConnections.size() >= kMaxConnections) {
    mNote(peer + ": refused, there are " + std::to_string(kMaxConnections) + " clients already");
    return;
  }
  Connection& added = mConnections.emplace_back();
  try {
    added.thread = std::thread([this, &added, fd = std::move(connection), peer]() mutable {
      Talk(fd.Get(), peer);
      fd = UniqueFd();
      added.over = true;
    });
  } catch (const std::exception& error) {
    mConnections.pop_back();
    mNote(peer + ": refused, " + error.what());
  }
}

void UsbipServer::Talk(RawFd fd, const std::string& peer) try {
  std::array<std::uint8_t, kOperationHeaderBytes> header{};
  if (!ReadWhole(fd, header, Clock::now() + kRequestTime, mStop)) {
    return;
  }
  const auto operation = ReadOperation(header);
  if (!operation) {
    mNote(peer + ": refused, it does not speak USB/IP 1.1.1");
  } else if (*operation == UsbipOperation::kDeviceList) {
    SendList(fd);
  } else {
    Import(fd, peer);
  }
} catch (const std::exception& error) {  // No memory, descriptor or thread: the other guests go on.
  mNote(peer + ": ended, " + error.what());
}

void UsbipServer::SendList(RawFd fd) const {
  std::vector<UsbipDeviceRecord> free;
  {
    const MutexLock lock(mMutex);
    for (const auto& [number, exported] : mDevices) {
      if (!exported->taken && !exported->device->IsGone()) {
        free.push_back(exported->record);
      }
    }
  }
  FdStream(fd, fd, mStop).WriteAll(WriteDeviceList(free));
}

void UsbipServer::Import(RawFd fd, const std::string& peer) {
  std::array<std::uint8_t, kBusIdBytes> bytes{};
  if (!ReadWhole(fd, bytes, Clock::now() + kRequestTime, mStop)) {
    return;
  }
  const std::string busId = ReadBusId(bytes);
  const std::shared_ptr<Exported> shared = Find(busId);
  const auto refuse = [&](UsbipRefusal refusal, const std::string& why) {
    FdStream(fd, fd, mStop).WriteAll(WriteImportReply(nullptr, refusal));
    mNote(peer + ": refused, " + why);
  };
  if (shared == nullptr) {
    return refuse(UsbipRefusal::kNoDevice, "it asks for a device that there is not");
  }
  Exported& exported = *shared;
  if (exported.device->IsGone()) {
    return refuse(UsbipRefusal::kError, exported.name + " is gone");
  }
  FdStream stream(fd, fd, mStop);
  UsbipLink link(fd, *exported.device, mStop);
  if (exported.taken.exchange(true)) {
    return refuse(UsbipRefusal::kBusy, exported.name + " has another guest");
  }
  const Turn turn(exported);
  if (stream.WriteAll(WriteImportReply(&exported.record)) == FdStream::Result::kOk) {
    mNote(peer + " has " + exported.name + " (" + busId + ")");
    const UsbipLink::End end = link.Run();
    ShutDown(fd);  // The guest need not wait for the device to be closed, which may be next.
    switch (end) {
      case UsbipLink::End::kGuestLeft:
      case UsbipLink::End::kStopped:
        mNote(peer + " has given " + exported.name + " back");
        break;
      case UsbipLink::End::kMalformed:
        mNote(peer + ": ended, it sends what is no USB/IP: " + link.Error());
        break;
      case UsbipLink::End::kFailed:
        mNote(peer + ": ended, " + link.Error());
        break;
      case UsbipLink::End::kDeviceGone:
        break;  // The device has said so.
    }
  }
}

}  // namespace vel
