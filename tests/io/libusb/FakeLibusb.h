// A libusb in memory, linked instead of the real one: the functions of libusb.h that the backend calls, and the script
// that says what they do. It notes what the real library would have suffered from: a handle closed in use, a transfer
// freed in flight, anything left over at the end.
#ifndef TESTS_IO_LIBUSB_FAKE_LIBUSB_H
#define TESTS_IO_LIBUSB_FAKE_LIBUSB_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <libusb-1.0/libusb.h>

struct libusb_device {
  std::uint8_t bus = 1;
  std::uint8_t address = 5;
  std::uint8_t port = 2;
  libusb_device_descriptor descriptor{};
  // Of each configuration its value and its interface numbers; `active` counts from 0, -1: not configured.
  std::vector<std::pair<std::uint8_t, std::vector<std::uint8_t>>> configs = {{1, {0}}};
  int active = 0;
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
  using Lock = std::unique_lock<std::mutex>;

  static FakeLibusb& Get();

  // A library as new. Everything of the run before is gone by then.
  void Reset();
  // The next calls of the function answer so, 0 meaning as usual. An allocation fails, a call does nothing.
  void Answer(const std::string& function, const std::vector<int>& results) {
    Change([&] { answers[function].assign(results.begin(), results.end()); });
  }
  // Event handling fails with this so often (-1: always).
  void FailEvents(int error, int times) {
    Change([&] { eventError = error, eventErrors = times; });
  }
  // Calls of the function wait at their beginning ("events": completions wait) until it is let go.
  void Hold(const std::string& function) {
    Change([&] { held.insert(function); });
  }
  void LetGo(const std::string& function) {
    Change([&] { held.erase(function); });
  }
  // Waits until a call of the function is held.
  void AwaitHeld(const std::string& function);

  void AwaitInFlight(std::size_t count);
  // The oldest transfer in flight on this endpoint (0 for control) ends so. False when there is none.
  bool Complete(std::uint8_t endpoint, const FakeResult& result = {});
  // From now on, what a cancelled transfer ends with.
  void SetCancelResult(const FakeResult& result) {
    Change([&] { cancelResult = result; });
  }
  // From now on each transfer is completed before the submission of it returns.
  void SetImmediateResult(const FakeResult& result) {
    Change([&] { immediateResult = result; });
  }

  // Of the calling thread: how many allocations with `new` go well before one fails; -1: none fails. Not those here.
  static thread_local int allocationsLeft;

  // How many calls of the function there were.
  std::size_t Count(const std::string& function) {
    const Lock lock(mutex);
    return calls[function];
  }
  // What was done to the device since this was asked last, each act with its numbers.
  std::vector<std::string> Acts() {
    const Lock lock(mutex);
    return std::exchange(acts, {});
  }
  // What went wrong so far, what is left over included.
  std::vector<std::string> Violations();

  std::deque<libusb_device> devices;
  std::list<libusb_device_handle> handles;
  std::set<libusb_transfer*> transfers;
  int contexts = 0;
  int openConfigs = 0;

  template <class What>
  void Change(What what) {
    const Lock lock(mutex);
    what();
    changed.notify_all();
  }

  // For the functions of libusb.h, which hold the lock.

  // Notes the call, waits while it is held, and gives its scripted answer or 0.
  int Enter(Lock& lock, const std::string& function);
  void Queue(libusb_transfer* transfer, const FakeResult& result);
  void Deliver(Lock& lock);
  void Await(Lock& lock, const char* what, const std::function<bool()>& condition);
  void Fail(const std::string& what) { violations.push_back(what); }
  bool MayDeliver() const { return !done.empty() && !held.contains("events"); }

  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, std::deque<int>> answers;
  std::set<std::string> held;
  std::map<std::string, int> waiting;
  std::map<std::string, std::size_t> calls;
  std::vector<std::string> acts;
  std::vector<std::string> violations;
  std::deque<libusb_transfer*> inFlight;
  std::deque<std::pair<libusb_transfer*, FakeResult>> done;
  std::set<libusb_transfer*> completing;
  FakeResult cancelResult;
  std::optional<FakeResult> immediateResult;
  bool handling = false;
  int eventError = 0;
  int eventErrors = 0;
};

#endif
