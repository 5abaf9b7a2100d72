#ifndef VIRTUSB_HOST_CMD_DEVICES_UDEV_RULE_H
#define VIRTUSB_HOST_CMD_DEVICES_UDEV_RULE_H

#include <string>

namespace vel {

// The rule file that lets a user open USB devices, as installed or in the source tree.
std::string UdevRulePath();

}  // namespace vel

#endif
