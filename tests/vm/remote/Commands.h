// The subjects of the test remote, one function each, for the device at a place (BUS:ADDRESS). They throw when
// something is not as it has to be, and return a line that says what was proven.
#ifndef VIRTUSB_TESTS_VM_REMOTE_COMMANDS_H
#define VIRTUSB_TESTS_VM_REMOTE_COMMANDS_H

#include <span>
#include <string>

namespace vel::vm {

using Arguments = std::span<const std::string>;

// MILLISECONDS FILE: plays sound, and writes into FILE how many frames.
std::string Audio(const std::string& place, Arguments arguments);
// COUNT: uses the raw device by libusb where it is attached, and cancels so many transfers.
std::string Guest(const std::string& place, Arguments arguments);
// Claims interface 0 as any program does, says so, and keeps it until it is ended.
std::string Hold(const std::string& place, Arguments arguments);
// COUNT: cancels so many transfers of an endpoint that always has data.
std::string Cancels(const std::string& place, Arguments arguments);
// FILE WIDTH HEIGHT DB: recorded pictures of the synthetic camera, each another one and none worse than so many dB.
std::string Pictures(const std::string& file, Arguments arguments);
// DB: the same of the camera below, and none may be missing where they have to be exact.
std::string Gradients(const std::string& file, Arguments arguments);
// CONTROLLER: a UVC camera on this machine's bus, until it is ended, with payload headers of as many bytes as stand for
// the place: 2, 8 or 12. The folder is vhci-hcd's in sysfs, or like it.
std::string ShowCamera(const std::string& header, Arguments arguments);
// The tty of an attached adapter: its pattern is read, and data written.
std::string Serial(const std::string& node, Arguments arguments);
// HEIGHT: the dB that the module's encoder alone leaves of the synthetic camera's worst picture. The place is the
// width.
std::string Encoder(const std::string& width, Arguments arguments);
// COUNT: the cases of usbtest's driver that the device has, each so often; the line says which passed.
std::string UsbTest(const std::string& place, Arguments arguments);

}  // namespace vel::vm

#endif
