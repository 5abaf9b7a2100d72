#include "cmd/devices/DeviceChannel.h"

#include <string_view>
#include <utility>

#include "cmd/console/UsageError.h"
#include "cmd/devices/CommandWords.h"
#include "cmd/devices/DeviceChoice.h"
#include "cmd/devices/DeviceHold.h"
#include "cmd/devices/DeviceWatch.h"
#include "os/Program.h"
#include "remote/ExecChannel.h"
#include "remote/FdStream.h"
#include "remote/ModuleChannel.h"
#include "remote/StopWatcher.h"
#include "remote/StreamChannel.h"
#include "remote/TcpConnection.h"
#include "remote/TlsContext.h"
#include "remote/TlsStream.h"

namespace vel {
namespace {

constexpr std::string_view kTcp = "tcp://";
constexpr std::string_view kTls = "tls://";
constexpr std::string_view kExec = "exec:";

constexpr char kAddressAdvice[] = "what \"virtusb serve\" says there tells more; it serves one remote side at a time";
constexpr char kExecAdvice[] =
    "its own messages tell more; it has to be like \"virtusb serve DEVICE --stdio\" on its standard input and output";
// A program that reaches another machine has to find it, and may have to ask for a password first.
constexpr std::chrono::seconds kExecStartTime{30};

// The channel to a device that this process redirects, held while it is open. A local one that is pulled out ends it.
class HeldChannel final : public PacketChannel {
 public:
  HeldChannel(std::shared_ptr<ModuleLibrary> library, const DeviceIdentity& identity, bool answersFailures)
      : mIdentity(identity),
        mHold(HoldIfLocal(identity)),
        mChannel(std::move(library), identity, {.failures = answersFailures, .lean = true}) {}  // What went is known.

  void Start(Receiver receiver) override {
    const MutexLock lock(mMutex);
    if (mHold != nullptr) {  // One that leaves before it is watched cannot be opened.
      mWatch = std::make_unique<DeviceWatch>(
          LocalSelector{.bus = mIdentity.bus, .address = mIdentity.address, .vendorId = {}, .productId = {}},
          DeviceWatch::Callbacks{.onArrived = [](const DeviceIdentity&) {},
                                 .onLeft =
                                     [onClosed = receiver.onClosed, left = false](const auto&) mutable {
                                       if (!std::exchange(left, true)) {
                                         onClosed(kPulledOut);
                                       }
                                     }});
    }
    mChannel.Start(std::move(receiver));
  }
  bool Send(std::unique_ptr<VelPacket> packet) override { return mChannel.Send(std::move(packet)); }
  void Close() override {
    const MutexLock lock(mMutex);
    mWatch.reset();
    mChannel.Close();
    mHold.reset();  // Longer than the module has it.
  }

 private:
  const DeviceIdentity mIdentity;
  Mutex mMutex;
  std::unique_ptr<DeviceHold> mHold VEL_GUARDED_BY(mMutex);  // Of a local device.
  ModuleChannel mChannel;
  std::unique_ptr<DeviceWatch> mWatch VEL_GUARDED_BY(mMutex);
};

// One that is served at an address, by TLS where a context is given.
std::unique_ptr<PacketChannel> OpenAddress(const std::string& device, const TlsContext* tls, const StopSignal& stop) {
  const std::string_view scheme = tls != nullptr ? kTls : kTcp;
  const std::optional<HostPort> address = ParseHostPort(device.substr(scheme.size()));
  if (!address || address->host.empty() || address->port == "0") {
    throw UsageError("\"" + device + "\" is no address: give " + std::string(scheme) + "HOST:PORT, for example " +
                     std::string(scheme) + "[::1]:4000");
  }
  std::unique_ptr<ByteStream> stream;
  try {
    UniqueFd socket = ConnectTcp(*address, stop);
    if (tls != nullptr) {
      auto secure = std::make_unique<TlsStream>(*tls, std::move(socket), nullptr, address->host);
      secure->ShakeHands(stop);
      stream = std::move(secure);
    } else {
      stream = std::make_unique<FdStream>(std::move(socket));
    }
  } catch (const Interrupted&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("cannot reach " + device + ": " + error.what());
  }
  return std::make_unique<StreamChannel>(std::move(stream), device, PacketChannel::Contact{.advice = kAddressAdvice});
}

}  // namespace

bool IsRemoteDevice(const std::string& device) {
  return device.starts_with(kTcp) || device.starts_with(kTls) || device.starts_with(kExec);
}

std::unique_ptr<PacketChannel> OpenDevice(const std::string& device, const CommonOptions& common,
                                          const StopSignal& stop, bool answersFailures) {
  if (!IsRemoteDevice(device)) {
    const DeviceIdentity identity = FindDevice(device, common.cameraSource);
    return std::make_unique<HeldChannel>(ModuleLibrary::Load(common.modulePath), identity, answersFailures);
  }
  IgnoreBrokenPipes();
  if (device.starts_with(kTcp)) {
    return OpenAddress(device, nullptr, stop);
  }
  if (device.starts_with(kTls)) {
    const TlsContext context(common.tlsFolder.empty() ? UsualTlsFolder() : common.tlsFolder, TlsContext::Side::kClient);
    return OpenAddress(device, &context, stop);
  }
  const std::string command = device.substr(kExec.size());
  return std::make_unique<ExecChannel>(SplitCommand(command), "\"" + command + "\"",
                                       PacketChannel::Contact{.startTime = kExecStartTime, .advice = kExecAdvice},
                                       stop);
}

}  // namespace vel
