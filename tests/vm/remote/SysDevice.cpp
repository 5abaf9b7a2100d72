#include "SysDevice.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Require.h"

namespace vel::vm {
namespace {

std::filesystem::path Devices() {
  return "/sys/bus/usb/devices";
}

}  // namespace

SysDevice::SysDevice(std::string name) : mName(std::move(name)) {
  Require(std::filesystem::exists(Devices() / mName), "no device " + mName);
}

std::string SysDevice::Read(const std::string& attribute) const {
  std::string value;
  std::ifstream(Devices() / mName / attribute) >> value;
  return value;
}

std::string SysDevice::Place() const {
  return Read("busnum") + ":" + Read("devnum");
}

std::vector<std::string> SysDevice::Drivers() const {
  std::vector<std::filesystem::path> interfaces;
  for (const auto& entry : std::filesystem::directory_iterator(Devices())) {
    if (entry.path().filename().string().starts_with(mName + ":")) {
      interfaces.push_back(entry.path());
    }
  }
  std::sort(interfaces.begin(), interfaces.end());
  std::vector<std::string> drivers;
  for (const auto& interface : interfaces) {
    std::error_code error;
    const auto driver = std::filesystem::read_symlink(interface / "driver", error);
    drivers.push_back(error ? "-" : driver.filename().string());
  }
  return drivers;
}

void SysDevice::AwaitDrivers(const std::vector<std::string>& expected, const std::string& when) const {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  std::vector<std::string> drivers = Drivers();
  while (drivers != expected) {
    Require(std::chrono::steady_clock::now() < deadline,
            when + ": drivers " + Join(drivers) + " instead of " + Join(expected));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    drivers = Drivers();
  }
}

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : ",") + word;
  }
  return text;
}

}  // namespace vel::vm
