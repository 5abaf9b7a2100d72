#ifndef VIRTUSB_HOST_FAR_CONTROL_ROUTER_H
#define VIRTUSB_HOST_FAR_CONTROL_ROUTER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "far/DeviceFacts.h"
#include "far/EndpointBook.h"
#include "far/RequestPipe.h"
#include "vel/Mutex.h"

namespace vel {

// A guest's control requests: answered from what is known, turned into commands where the client's kernel has to
// learn of them (configurations and settings), and otherwise passed on. Keeps what is selected. Any thread but the
// channel's.
class ControlRouter {
 public:
  struct Result {
    std::int32_t status = 0;             // 0 or a negative errno.
    std::uint32_t moved = 0;             // Bytes of the data stage.
    std::span<const std::uint8_t> data;  // IN: that many; valid during the call.
  };
  using Done = std::function<void(const Result&)>;

  // `limit` is how long the device may take for a request: all other synchronous requests wait behind it.
  // The others outlive it.
  ControlRouter(RequestPipe& pipe, const DeviceFacts& facts, std::chrono::milliseconds limit)
      : mPipe(pipe), mFacts(facts), mLimit(limit) {}

  // A guest takes the device from this machine's drivers, and gives it back to them. Neither waits for replies.
  void Take() VEL_EXCLUDES(mMutex);
  void GiveBack();

  // `answer` is called once, on the caller's thread or the channel's, and in the order of the calls. `length` is
  // the guest's buffer. One thread at a time.
  void Route(const ControlSetup& setup, std::span<const std::uint8_t> data, std::uint32_t length, Done answer);
  std::optional<EndpointType> FindEndpoint(std::uint8_t address) VEL_EXCLUDES(mMutex);

 private:
  static void AnswerKnown(std::span<const std::uint8_t> known, const ControlSetup& setup, std::uint32_t length,
                          const Done& done);
  void SetConfiguration(std::uint8_t value, Done done);
  void SetInterface(std::uint8_t interfaceNumber, std::uint8_t setting, Done done);
  void PassOn(const ControlSetup& setup, std::span<const std::uint8_t> data, std::uint32_t length, Done done);
  void Select(std::uint8_t value, ConfigModel config) VEL_EXCLUDES(mMutex);

  RequestPipe& mPipe;
  const DeviceFacts& mFacts;
  const std::chrono::milliseconds mLimit;
  std::atomic<std::uint32_t> mUnderWay{0};  // Requests whose answer is not out.
  Mutex mMutex;
  std::uint8_t mConfiguration VEL_GUARDED_BY(mMutex) = 0;  // That this guest has set; 0: none yet.
  EndpointBook mEndpoints VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
