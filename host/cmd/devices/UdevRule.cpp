#include "cmd/devices/UdevRule.h"

#include <filesystem>
#include <string>
#include <system_error>

namespace vel {

std::string UdevRulePath() {
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  // Relative to the program, so that an installation that was moved still finds its own.
  const std::filesystem::path installed = (folder / ".." / "share" / "virtusb" / "70-virtusb.rules").lexically_normal();
  return std::filesystem::exists(installed, error) ? installed.string() : "packaging/70-virtusb.rules";
}

}  // namespace vel
