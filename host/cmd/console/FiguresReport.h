#ifndef VIRTUSB_HOST_CMD_CONSOLE_FIGURES_REPORT_H
#define VIRTUSB_HOST_CMD_CONSOLE_FIGURES_REPORT_H

#include <string>

#include "observe/DeviceTally.h"

namespace vel {

// One device's figures for people, and for programs, without an end of line.
std::string FiguresText(const DeviceFigures& figures);
std::string FiguresJson(const DeviceFigures& figures);

}  // namespace vel

#endif
