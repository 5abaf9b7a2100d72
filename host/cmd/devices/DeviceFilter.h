#ifndef VIRTUSB_HOST_CMD_DEVICES_DEVICE_FILTER_H
#define VIRTUSB_HOST_CMD_DEVICES_DEVICE_FILTER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cmd/devices/LocalDevices.h"

namespace vel {

// Which local devices may be redirected, in the notation that SPICE and QEMU have for it: rules
// class,vendor,product,version,allow joined by |, where numbers are decimal or 0x and hex, -1 is any, and allow is 0
// or 1. The first rule that fits decides; what none fits is not allowed. Rules count from 1.
//
// A rule has to allow each class that a device has: its own, unless that is 0x00 or 0xEF, which leave it to the
// interfaces, and that of each interface's first setting in the active configuration. HID interfaces without the boot
// subclass and protocol do not count beside others: headsets have their buttons there. Hubs are never allowed, nor
// is what is another machine's by USB/IP.
class DeviceFilter {
 public:
  struct Verdict {
    bool allowed = false;
    std::vector<std::size_t> rules;  // Those that decided, each once; a refusal has one at most.
    std::string text;                // For people.
  };

  // Throws UsageError for a text that is no filter, which names the rule and the field.
  explicit DeviceFilter(const std::string& text);

  Verdict Judge(const LocalDevice& device) const;

 private:
  struct Rule {
    std::array<std::optional<std::uint16_t>, 4> wanted;  // Class, vendor, product, version; nothing is any.
    bool allow = false;
  };

  static Rule ReadRule(const std::string& text, const std::string& name);

  std::vector<Rule> mRules;
};

}  // namespace vel

#endif
