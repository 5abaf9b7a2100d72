#ifndef VIRTUSB_HOST_FAR_USBIP_SERVER_H
#define VIRTUSB_HOST_FAR_USBIP_SERVER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "far/FarDevice.h"
#include "far/UsbipWire.h"
#include "remote/FdStream.h"
#include "vel/Mutex.h"

namespace vel {

// Gives redirected devices, which come and go, to guests that use their own USB/IP client. A device has one guest at a
// time; its bus id is 1-1, 1-2 and so on, as whoever adds it says.
//
// One thread takes connections in with Serve; each has a thread of its own, which becomes the device's guest's thread,
// and shares the device with the server: one that is removed ends when its guest has left it.
class UsbipServer {
 public:
  using Note = std::function<void(const std::string&)>;

  static constexpr std::size_t kMaxConnections = 64;

  // `note` gets lines for people, on any thread. The stop signal ends every connection.
  UsbipServer(const StopSignal& stop, Note note) : mStop(stop), mNote(std::move(note)) {}
  UsbipServer(const UsbipServer&) = delete;
  UsbipServer& operator=(const UsbipServer&) = delete;
  // Waits for the connections; the signal has to be raised by then.
  ~UsbipServer();

  // From now on there is a device with the bus id 1-`number`, in the place of what had it. `name` is for people.
  // Returns the bus id. Any thread.
  std::string Add(std::uint32_t number, std::string name, std::unique_ptr<FarDevice> device) VEL_EXCLUDES(mMutex);
  // The device is listed and given no more. A guest that has it keeps it until the device itself is gone; without one
  // it is closed here. Any thread; harmless for a number that nothing has.
  void Remove(std::uint32_t number) VEL_EXCLUDES(mMutex);

  // Takes a client in.
  void Serve(UniqueFd connection, const std::string& peer);

 private:
  struct Exported {
    std::string name;
    UsbipDeviceRecord record;
    std::unique_ptr<FarDevice> device;
    std::atomic<bool> taken{false};
  };
  class Turn;
  struct Connection {
    std::thread thread;
    std::atomic<bool> over{false};
  };

  std::shared_ptr<Exported> Find(const std::string& busId) const VEL_EXCLUDES(mMutex);
  void Talk(RawFd fd, const std::string& peer);
  void Import(RawFd fd, const std::string& peer);
  void SendList(RawFd fd) const VEL_EXCLUDES(mMutex);

  const StopSignal& mStop;
  const Note mNote;
  mutable Mutex mMutex;
  std::map<std::uint32_t, std::shared_ptr<Exported>> mDevices VEL_GUARDED_BY(mMutex);
  std::list<Connection> mConnections;  // The serving thread's.
};

}  // namespace vel

#endif
