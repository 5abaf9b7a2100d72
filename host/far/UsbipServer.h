#ifndef VIRTUSB_HOST_FAR_USBIP_SERVER_H
#define VIRTUSB_HOST_FAR_USBIP_SERVER_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "far/FarDevice.h"
#include "far/UsbipWire.h"
#include "remote/FdStream.h"

namespace vel {

// Gives redirected devices to guests that use their own USB/IP client. A device has one owner at a time; its bus id is
// 1-1, 1-2 and so on, in the order in which the devices were given.
//
// One thread takes connections in with Serve; each has a thread of its own, which becomes the device's guest's thread.
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

  // Before the first Serve. `name` is for people.
  void Add(std::string name, std::unique_ptr<FarDevice> device);
  const UsbipDeviceRecord& Record(std::size_t index) const { return mDevices.at(index)->record; }

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

  void Talk(int fd, const std::string& peer);
  void Import(int fd, const std::string& peer);
  void SendList(int fd) const;

  const StopSignal& mStop;
  const Note mNote;
  std::vector<std::unique_ptr<Exported>> mDevices;
  std::list<Connection> mConnections;  // The serving thread's.
};

}  // namespace vel

#endif
