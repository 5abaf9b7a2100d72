#ifndef VIRTUSB_HOST_CMD_CONSOLE_FAILURE_ADVICE_H
#define VIRTUSB_HOST_CMD_CONSOLE_FAILURE_ADVICE_H

#include <string_view>

namespace vel {

// Says on standard error, once in the process, what to do about a failure that this line of the module's log tells of,
// where the cause is this machine's and nothing else says so: on Linux that the kernel lends no more memory for
// transfers, since the remote side gets status 1 for every submission that fails. Any thread.
void AdviseOnce(std::string_view line);

}  // namespace vel

#endif
