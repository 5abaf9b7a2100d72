// The subjects of the test remote, one function each. They throw when something is not as it has to
// be, and return a line that says what was proven.
#ifndef VIRTUSB_TESTS_VM_REMOTE_COMMANDS_H
#define VIRTUSB_TESTS_VM_REMOTE_COMMANDS_H

#include <span>
#include <string>

#include "SysDevice.h"

namespace vel::vm {

using Arguments = std::span<const std::string>;

// MIB: that much each of source, sink and loopback, every byte looked at.
std::string Bulk(const SysDevice& device, Arguments arguments);
// COUNT: cancels of transfers that are pending, and as many of such that are just moving data.
std::string Cancels(const SysDevice& device, Arguments arguments);
// TTY BYTES: both ways between the function's terminal and the redirected device.
std::string Acm(const SysDevice& device, Arguments arguments);
// FILE: sends bytes to a serial adapter, and writes them into FILE too.
std::string SerialOut(const SysDevice& device, Arguments arguments);
// FILE written|untouched: reads the medium by raw commands and compares it with FILE, also after
// writing to it; a read beyond its end stalls.
std::string Storage(const SysDevice& device, Arguments arguments);
// MILLISECONDS FILE: plays sound, and writes into FILE how many frames.
std::string Audio(const SysDevice& device, Arguments arguments);
// CONSOLE: asks there for a key, and waits for its reports.
std::string Keyboard(const SysDevice& device, Arguments arguments);
// all|one: the kernel's drivers are back whatever way the command ends; or after SIGTERM alone.
std::string Ends(const SysDevice& device, Arguments arguments);
// COUNT: opens and closes within one service, and counts what it holds.
std::string Rounds(const SysDevice& device, Arguments arguments);
// UDC_FILE idle|busy: pulls the gadget out.
std::string Unplug(const SysDevice& device, Arguments arguments);

}  // namespace vel::vm

#endif
