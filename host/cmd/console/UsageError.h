#ifndef VIRTUSB_HOST_CMD_CONSOLE_USAGE_ERROR_H
#define VIRTUSB_HOST_CMD_CONSOLE_USAGE_ERROR_H

#include <stdexcept>

namespace vel {

// What the user typed does not make sense: exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace vel

#endif
