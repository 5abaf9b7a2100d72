#ifndef VIRTUSB_HOST_CMD_USBFS_LIMIT_H
#define VIRTUSB_HOST_CMD_USBFS_LIMIT_H

#include <string_view>

namespace vel {

// Says on standard error, once in the process, that the kernel lends no more memory for transfers, and what to do, when
// this line of the module's log tells of such a failure. Nothing else does: the remote side gets status 1 for every
// submission that fails. Any thread.
void NoteUsbfsLimitOnce(std::string_view line);

}  // namespace vel

#endif
