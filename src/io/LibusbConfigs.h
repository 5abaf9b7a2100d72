#ifndef VEL_IO_LIBUSB_CONFIGS_H
#define VEL_IO_LIBUSB_CONFIGS_H

#include <vector>

#include "io/LibusbPtr.h"

namespace vel {

// The configuration descriptors that were handed out. Each stays valid as long as this object; one that says the same
// as an earlier one is handed out as that one, so that there are never more than the device has.
class LibusbConfigs {
 public:
  // Takes `config` over; null when there is no memory to keep it.
  libusb_config_descriptor* Keep(LibusbConfigPtr config);

 private:
  std::vector<LibusbConfigPtr> mKept;
};

}  // namespace vel

#endif
