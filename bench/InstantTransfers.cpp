// In front of libusb's functions of the same names, for the program and the module that it loads: a transfer completes
// as soon as the event thread has been woken for it. What is left is the clients' own time.
#include <libusb-1.0/libusb.h>
#include <sys/time.h>

#include <chrono>
#include <deque>
#include <utility>

#include "vel/Mutex.h"

namespace {

struct Events {
  vel::Mutex mutex;
  vel::CondVar changed;
  std::deque<libusb_transfer*> submitted VEL_GUARDED_BY(mutex);
  bool interrupted VEL_GUARDED_BY(mutex) = false;
};

Events& TheEvents() {
  static Events events;
  return events;
}

libusb_transfer* Next(std::chrono::microseconds limit) {
  Events& events = TheEvents();
  const auto deadline = std::chrono::steady_clock::now() + limit;
  vel::MutexLock lock(events.mutex);
  while (events.submitted.empty() && !events.interrupted && events.changed.WaitUntil(lock, deadline)) {
  }
  events.interrupted = false;
  if (events.submitted.empty()) {
    return nullptr;
  }
  libusb_transfer* const transfer = events.submitted.front();
  events.submitted.pop_front();
  return transfer;
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int libusb_submit_transfer(libusb_transfer* transfer) {
  Events& events = TheEvents();
  {
    const vel::MutexLock lock(events.mutex);
    events.submitted.push_back(transfer);
  }
  events.changed.NotifyOne();
  return LIBUSB_SUCCESS;
}

[[gnu::visibility("default")]] int libusb_cancel_transfer(libusb_transfer* /*transfer*/) {
  return LIBUSB_ERROR_NOT_FOUND;  // It is as good as complete.
}

[[gnu::visibility("default")]] int libusb_handle_events_timeout_completed(libusb_context* /*context*/, timeval* limit,
                                                                          int* /*completed*/) {
  const auto wait = std::chrono::seconds(limit->tv_sec) + std::chrono::microseconds(limit->tv_usec);
  while (libusb_transfer* const transfer = Next(wait)) {
    transfer->status = LIBUSB_TRANSFER_COMPLETED;
    transfer->actual_length = transfer->length;
    transfer->callback(transfer);
  }
  return LIBUSB_SUCCESS;
}

[[gnu::visibility("default")]] void libusb_interrupt_event_handler(libusb_context* /*context*/) {
  Events& events = TheEvents();
  {
    const vel::MutexLock lock(events.mutex);
    events.interrupted = true;
  }
  events.changed.NotifyAll();
}

}  // extern "C"
