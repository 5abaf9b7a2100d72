// A libusb in memory, linked instead of the real one: the functions of libusb.h that the backend
// calls, and the script that says what they do. It notes what the real library would have suffered
// from: a handle closed in use, a transfer freed in flight, anything left over at the end.
#ifndef TESTS_IO_LIBUSB_FAKE_LIBUSB_H
#define TESTS_IO_LIBUSB_FAKE_LIBUSB_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <libusb-1.0/libusb.h>

struct libusb_device {
  std::uint8_t bus = 1;
  std::uint8_t address = 5;
  std::uint8_t port = 2;
  int speed = LIBUSB_SPEED_HIGH;
  libusb_device_descriptor descriptor{};
  // Of each configuration its value and its interface numbers; `active` counts from 0, -1: not
  // configured.
  std::vector<std::pair<std::uint8_t, std::vector<std::uint8_t>>> configs = {{1, {0}}};
  int active = 0;
  std::set<int> kernelDrivers{};
  bool gone = false;
  int references = 0;
};

struct libusb_device_handle {
  libusb_device* device = nullptr;
  int busy = 0;  // Calls that are under way on it.
};

struct libusb_context {
  bool interrupted = false;
};

// How a transfer ends. `bytes` are what an IN transfer brings; an OUT transfer moves everything.
struct FakeResult {
  libusb_transfer_status status = LIBUSB_TRANSFER_COMPLETED;
  std::vector<std::uint8_t> bytes{};
  std::vector<std::pair<unsigned, libusb_transfer_status>> packets{};  // Isochronous: bytes moved, status.
};

class FakeLibusb {
 public:
  static FakeLibusb& Get();

  // A library as new. Everything of the run before is gone by then.
  void Reset();
  // The device list, in order.
  libusb_device& AddDevice(libusb_device device);

  // The next calls of the function answer so, 0 meaning as usual. An allocation fails, a call does
  // nothing.
  void Answer(const std::string& function, std::vector<int> results);
  // Event handling fails with this from now on (0: no longer), as often as `times` (-1: always).
  void FailEvents(int error, int times = 1);
  // Calls of the function wait at their beginning ("events": completions wait) until it is let go.
  void Hold(const std::string& function);
  void LetGo(const std::string& function);
  // Waits until a call of the function is held.
  void AwaitHeld(const std::string& function);

  // Waits until so many transfers are in flight.
  void AwaitInFlight(std::size_t count);
  // The oldest transfer in flight on this endpoint (0 for control) ends so. False when there is
  // none.
  bool Complete(std::uint8_t endpoint, const FakeResult& result = {});
  // From now on, what a cancelled transfer ends with.
  void SetCancelResult(FakeResult result);
  // From now on each transfer is completed before the submission of it returns.
  void SetImmediateResult(FakeResult result);
  // The device leaves: what is in flight ends, nothing new starts.
  void Unplug(libusb_device& device);

  // What was called: the function and its arguments, in order; and how often.
  std::vector<std::string> Calls();
  std::size_t Count(const std::string& function);
  // The last control, bulk or isochronous OUT buffer that was submitted, with its set-up bytes.
  std::vector<std::uint8_t> LastSubmitted();
  unsigned LastTimeout();
  int LastType();
  int OpenConfigs();
  std::size_t TransferCount();
  // What went wrong so far, what is left over included.
  std::vector<std::string> Violations();

  // The functions of libusb.h end up here.
  class Call;
  int Init(libusb_context** context);
  void Exit(libusb_context* context);
  int HandleEvents(libusb_context* context, std::chrono::milliseconds limit);
  int Submit(libusb_transfer* transfer);
  int Cancel(libusb_transfer* transfer);
  void Close(libusb_device_handle* handle);
  void FreeTransfer(libusb_transfer* transfer);

  std::mutex mutex;
  std::condition_variable changed;
  std::deque<libusb_device> devices;
  std::list<libusb_device_handle> handles;
  std::set<libusb_transfer*> transfers;
  int contexts = 0;
  int openConfigs = 0;

 private:
  friend class Call;
  using Lock = std::unique_lock<std::mutex>;
  void Await(Lock& lock, const char* what, const std::function<bool()>& condition);
  int Enter(Lock& lock, const std::string& function, const std::string& line);
  void Queue(libusb_transfer* transfer, const FakeResult& result);
  void Deliver(Lock& lock);
  void Fail(const std::string& what);

  std::map<std::string, std::deque<int>> mAnswers;
  std::set<std::string> mHeld;
  std::map<std::string, int> mWaiting;
  std::vector<std::string> mCalls;
  std::vector<std::string> mViolations;
  std::deque<libusb_transfer*> mInFlight;
  std::deque<std::pair<libusb_transfer*, FakeResult>> mDone;
  FakeResult mCancelResult{LIBUSB_TRANSFER_CANCELLED};
  bool mImmediate = false;
  FakeResult mImmediateResult;
  std::set<libusb_transfer*> mCompleting;
  bool mHandling = false;
  int mEventError = 0;
  int mEventErrors = 0;
  std::vector<std::uint8_t> mLastSubmitted;
  unsigned mLastTimeout = 0;
  int mLastType = -1;
};

#endif
