#ifndef VIRTUSB_HOST_CMD_DESCRIBE_DESCRIPTOR_TEXT_H
#define VIRTUSB_HOST_CMD_DESCRIBE_DESCRIPTOR_TEXT_H

#include <string>

#include <nlohmann/json.hpp>

#include "cmd/describe/Enumeration.h"

namespace vel {

// The descriptors in the layout that people know from `lsusb -v`.
std::string DescriptorText(const Enumeration& found);

// The same as data.
nlohmann::ordered_json DescriptorJson(const Enumeration& found);

// A few lines: the device, its interfaces, their endpoints.
std::string DescriptorSummary(const Enumeration& found);

}  // namespace vel

#endif
