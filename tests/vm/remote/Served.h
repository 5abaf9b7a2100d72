#ifndef VIRTUSB_TESTS_VM_REMOTE_SERVED_H
#define VIRTUSB_TESTS_VM_REMOTE_SERVED_H

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "remote/ConfigModel.h"
#include "support/CommandProcess.h"

namespace vel::vm {

// What was expected did not happen: ends the program with a line that says so.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

void Require(bool holds, const std::string& otherwise);
void RequireEqual(long long actual, long long expected, const std::string& what);
// A transfer that moved so many bytes well.
void RequireWhole(const TransferReply& reply, std::size_t size);

// How long anything may take before the test calls it a failure; emulation is slow.
constexpr std::chrono::seconds kLimit{20};

enum class Way { kIn, kOut };

// `virtusb serve --answer-failures` of one device in a child process, and its remote side. All throw Failure.
class Served {
 public:
  explicit Served(const std::string& place);

  RemoteDevice& Remote() { return mCommand.Remote(); }
  CommandProcess& Process() { return mCommand; }

  // Open, detach the kernel drivers, claim; and the reverse.
  void Take();
  void GiveBack();
  // Ends the service as a remote side does that is done.
  void Done();

  // The first endpoint of this direction and transfer type (LIBUSB_TRANSFER_TYPE_*) among the settings of the interface
  // with this position.
  std::uint8_t Endpoint(std::size_t interface, Way way, unsigned type);

 private:
  void Check(Command command);

  CommandProcess mCommand;
};

}  // namespace vel::vm

#endif
