// The same as vm_bench, but through the module in this process, as its client sees it: packets in, replies out.
// vm_module LABEL BUS:ADDRESS MODULE IN OUT   (endpoints, two hexadecimal digits)
#include <array>
#include <atomic>
#include <future>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "GuestBench.h"
#include "remote/ModuleSession.h"
#include "remote/RequestBuilder.h"
#include "remote/TransferAnswer.h"
#include "vel/Mutex.h"

namespace {

using vel::Command;
using vel::bench::Clock;
using vel::bench::kInFlight;
using vel::bench::kLarge;
using vel::bench::Require;

// One request after the other, or a number of transfers kept in flight by their own replies.
class Client {
 public:
  Client(const char* module, const std::string& place)
      : mSession(vel::ModuleLibrary::Load(module), Identity(place), Options()) {
    Ask(vel::BuildRequest(Command::kOpenUsbDev, {}));
    Ask(vel::BuildRequest(Command::kClaimAllInterface, {}));
  }

  void Ask(std::unique_ptr<vel::VelPacket> request) {
    std::promise<void> answered;
    mAnswered = &answered;
    mSession.Post(std::move(request));
    answered.get_future().wait();
  }

  void Transfer(std::uint8_t endpoint, std::uint32_t length) {
    mWanted = length;
    Ask(vel::BuildTransferRequest(Command::kBulkTransfer, {}, endpoint, 1, length, std::span(mData).first(length)));
  }

  vel::bench::Throughput Pump(std::uint8_t endpoint) {
    std::promise<void> done;
    mWanted = kLarge;
    mLeft = kInFlight;
    mBytes = 0;
    mEndpoint = endpoint;
    mAnswered = &done;
    const vel::bench::Stopwatch watch;
    mEnd = watch.begin + vel::bench::kThroughputTime;
    mPumps = true;
    for (int i = 0; i < kInFlight; ++i) {
      Submit();
    }
    done.get_future().wait();
    mPumps = false;
    return watch.Over(mBytes);
  }

 private:
  static vel::DeviceIdentity Identity(const std::string& place) {
    const auto bus = static_cast<std::uint8_t>(std::stoi(place));
    return {bus, static_cast<std::uint8_t>(std::stoi(place.substr(place.find(':') + 1))), 0x0525, 0xA4A0, ""};
  }

  vel::ModuleSession::Options Options() {
    vel::ModuleSession::Options options;
    options.answers.lean = true;
    options.onReply = [this](std::unique_ptr<vel::VelPacket> reply) { OnReply(*reply); };
    return options;
  }

  void Submit() {
    const std::span<const std::uint8_t> data(mData);
    const vel::MutexLock lock(mPostMutex);  // A reply's thread goes on while the first are still handed in.
    mSession.Post(vel::BuildTransferRequest(Command::kBulkTransfer, {}, mEndpoint, 1, kLarge,
                                            mEndpoint < 0x80 ? data : data.first(0)));
  }

  // The module's threads, one at a time.
  void OnReply(const vel::VelPacket& reply) {
    if (reply.GetCommand() == vel::ReplyCode(Command::kBulkTransfer)) {
      const auto answer = vel::ReadTransferAnswer(reply);
      Require(answer && answer->status == 0 && (answer->data.empty() || answer->data.size() == mWanted),
              "a transfer failed");
    }
    mBytes += kLarge;
    if (mPumps && Clock::now() < mEnd) {
      Submit();
    } else if (!mPumps || --mLeft == 0) {
      mAnswered->set_value();
    }
  }

  vel::Mutex mPostMutex;
  const std::vector<std::uint8_t> mData = std::vector<std::uint8_t>(kLarge);
  std::promise<void>* mAnswered = nullptr;
  std::atomic<bool> mPumps{false};
  std::uint8_t mEndpoint = 0;
  std::uint32_t mWanted = 0;
  int mLeft = 0;
  std::uint64_t mBytes = 0;
  Clock::time_point mEnd;
  vel::ModuleSession mSession;  // Last: its replies use the others.
};

}  // namespace

int main(int argc, char** argv) {
  Require(argc == 6, "usage: vm_module LABEL BUS:ADDRESS MODULE IN OUT");
  const auto in = static_cast<std::uint8_t>(std::stoi(argv[4], nullptr, 16));
  const auto out = static_cast<std::uint8_t>(std::stoi(argv[5], nullptr, 16));
  Client client(argv[3], argv[2]);
  const double control = vel::bench::RoundTrip([&] {
    client.Ask(vel::BuildControlRequest({}, {.bmRequestType = 0x81, .bRequest = 0, .wLength = 2}, 1000));
    return true;
  });
  const double bulk = vel::bench::RoundTrip([&] {
    client.Transfer(out, 512);
    return true;
  });
  const vel::bench::Throughput read = client.Pump(in);
  vel::bench::PrintWay(argv[1], control, bulk, read, client.Pump(out));
  return 0;
}
