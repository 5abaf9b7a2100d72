#include "io/LibusbContext.h"

#include <exception>
#include <utility>

#include "base/VelLog.h"

namespace vel {
namespace {

// A stop does not wait for it: it interrupts the wait.
constexpr std::chrono::milliseconds kEventWait{1000};

}  // namespace

LibusbContext::~LibusbContext() {
  StopThread();
}

int LibusbContext::Create() {
  libusb_context* context = nullptr;
  const int result = libusb_init(&context);
  if (result != LIBUSB_SUCCESS) {
    return result;
  }
  mContext.reset(context);
  // Not supported outside Windows, not found where the driver is not installed: libusb then uses its own backend.
  const int usbDk = libusb_set_option(context, LIBUSB_OPTION_USE_USBDK);
  VEL_DEBUG("UsbDk: %s", libusb_error_name(usbDk));
  return LIBUSB_SUCCESS;
}

bool LibusbContext::StartThread(std::function<void()> onEnd) {
  mThreadHandlesEvents = true;
  try {
    mThread = std::thread([this, onEnd = std::move(onEnd)] { LibusbEventHandler(onEnd); });
  } catch (const std::exception&) {
    mThreadHandlesEvents = false;
    return false;
  }
  return true;
}

void LibusbContext::StopThread() {
  if (!mThread.joinable()) {
    return;
  }
  mRunning = false;
  libusb_interrupt_event_handler(mContext.get());
  mThread.join();
}

int LibusbContext::HandleEvents(std::chrono::milliseconds limit) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
  timeval wait{};
  wait.tv_sec = static_cast<decltype(wait.tv_sec)>(seconds.count());
  wait.tv_usec = static_cast<decltype(wait.tv_usec)>(std::chrono::microseconds(limit - seconds).count());
  const int result = libusb_handle_events_timeout_completed(mContext.get(), &wait, nullptr);
  return result == LIBUSB_ERROR_INTERRUPTED ? LIBUSB_SUCCESS : result;
}

void LibusbContext::LibusbEventHandler(const std::function<void()>& onEnd) {
  int result = LIBUSB_SUCCESS;
  while (mRunning) {
    result = HandleEvents(kEventWait);
    if (result != LIBUSB_SUCCESS) {
      VEL_ERROR("Error handling USB events: %s [%i]\n", libusb_strerror(result), result);
      break;
    }
  }
  if (mRunning) {
    VEL_DEBUG("%s: the thread aborted, %s(%d)\n", __func__, libusb_strerror(result), result);
  }
  mThreadHandlesEvents = false;
  onEnd();
}

}  // namespace vel
