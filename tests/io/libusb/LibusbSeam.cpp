#include "LibusbSeam.h"

#include <type_traits>

#include "support/FailingMemory.h"

namespace vel {
namespace {

constexpr std::size_t kPrefix = sizeof("libusb_") - 1;

template <class Result, class... Args>
Result Real(const char* function, Args... args) {
  return reinterpret_cast<Result (*)(Args...)>(LibusbBehindSeam(function))(args...);
}

template <class Arg>
std::string Number(Arg arg) {
  if constexpr (std::is_integral_v<Arg>) {
    return " " + std::to_string(arg);
  }
  return {};
}

// A call that goes on to libusb unless its hook has another mind. Noted with its numbers.
template <class... Args>
int Pass(const char* function, Args... args) {
  const test::HealthyMemory healthy;
  const std::string name = function + kPrefix;
  return LibusbSeam::Get().Run(name, (name + ... + Number(args)), [&] { return Real<int>(function, args...); });
}

}  // namespace

LibusbSeam& LibusbSeam::Get() {
  static LibusbSeam seam;
  return seam;
}

int LibusbSeam::Run(const std::string& function, const std::string& noted, const Call& call) {
  const test::HealthyMemory healthy;
  Hook hook;
  {
    const MutexLock lock(mMutex);
    if (!noted.empty()) {
      mCalls.push_back(noted);
    }
    const auto found = mHooks.find(function);
    hook = found == mHooks.end() ? nullptr : found->second;
  }
  return hook ? hook(call) : call();
}

}  // namespace vel

extern "C" {

int libusb_init(libusb_context** context) {
  const int result = vel::Pass(__func__, context);
  vel::LibusbSeam::Get().SetContext(*context);
  return result;
}
// No platform but one has the option.
int libusb_set_option(libusb_context* /*context*/, libusb_option option, ...) {
  return vel::LibusbSeam::Get().Run("set_option", "set_option " + std::to_string(option),
                                    [] { return LIBUSB_ERROR_NOT_SUPPORTED; });
}
#define SEAM(function, parameters, ...)      \
  int function parameters {                  \
    return vel::Pass(__func__, __VA_ARGS__); \
  }
SEAM(libusb_open, (libusb_device * device, libusb_device_handle** handle), device, handle)
SEAM(libusb_set_configuration, (libusb_device_handle * handle, int value), handle, value)
SEAM(libusb_claim_interface, (libusb_device_handle * handle, int number), handle, number)
SEAM(libusb_release_interface, (libusb_device_handle * handle, int number), handle, number)
SEAM(libusb_set_interface_alt_setting, (libusb_device_handle * handle, int number, int setting), handle, number,
     setting)
SEAM(libusb_clear_halt, (libusb_device_handle * handle, unsigned char endpoint), handle, endpoint)
SEAM(libusb_reset_device, (libusb_device_handle * handle), handle)
SEAM(libusb_detach_kernel_driver, (libusb_device_handle * handle, int number), handle, number)
SEAM(libusb_attach_kernel_driver, (libusb_device_handle * handle, int number), handle, number)
SEAM(libusb_submit_transfer, (libusb_transfer * transfer), transfer)
SEAM(libusb_cancel_transfer, (libusb_transfer * transfer), transfer)
#undef SEAM

ssize_t libusb_get_device_list(libusb_context* context, libusb_device*** list) {
  return vel::Pass(__func__, context, list);
}
void libusb_close(libusb_device_handle* handle) {
  vel::Pass(__func__, handle);
}
libusb_transfer* libusb_alloc_transfer(int packets) {
  libusb_transfer* transfer = nullptr;
  vel::LibusbSeam::Get().Run("alloc_transfer", "alloc_transfer", [&] {
    transfer = vel::Real<libusb_transfer*>("libusb_alloc_transfer", packets);
    return 0;
  });
  return transfer;
}
int libusb_handle_events_timeout_completed(libusb_context* context, timeval* limit, int* completed) {
  return vel::LibusbSeam::Get().Run("handle_events", "", [&] {
    return vel::Real<int>("libusb_handle_events_timeout_completed", context, limit, completed);
  });
}

}  // extern "C"
