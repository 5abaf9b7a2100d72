#include <libusb-1.0/libusb.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cmd/Commands.h"
#include "cmd/Devices.h"
#include "cmd/Output.h"
#include "cmd/UsbNames.h"

namespace vel {
namespace {

// What the guest would get: the classes of the interfaces, each named once.
std::vector<std::string> WhatIsRedirected(const LocalDevice& device) {
  std::vector<std::string> names;
  for (const std::uint8_t usbClass : device.interfaces) {
    const std::string name(ClassName(usbClass).empty() ? "class " + std::to_string(usbClass) : ClassName(usbClass));
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      names.push_back(name);
    }
  }
  return names;
}

std::string Join(const std::vector<std::string>& words, const char* separator) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : separator) + word;
  }
  return text;
}

nlohmann::ordered_json LocalJson(const LocalDevice& device) {
  return {{"bus", device.identity.bus},
          {"address", device.identity.address},
          {"idVendor", device.identity.vendorId},
          {"idProduct", device.identity.productId},
          {"speed", SpeedName(device.speed)},
          {"manufacturer", device.manufacturer},
          {"product", device.product},
          {"redirects", WhatIsRedirected(device)},
          {"accessible", device.openError == 0}};
}

void PrintLocal(const LocalDevice& device) {
  std::vector<std::string> names;
  for (const std::string& name : {device.manufacturer, device.product}) {
    if (!name.empty()) {
      names.push_back(name);
    }
  }
  Print(Format("  %u:%-6u %04x:%04x  %-5s %s\n", unsigned{device.identity.bus}, unsigned{device.identity.address},
               unsigned{device.identity.vendorId}, unsigned{device.identity.productId}, SpeedName(device.speed).data(),
               Join(names, " ").c_str()));
  Print(Format("           redirects: %s\n", Join(WhatIsRedirected(device), ", ").c_str()));
  if (device.openError == LIBUSB_ERROR_ACCESS) {
    Print(Format("           may not be opened by this user: install %s into /etc/udev/rules.d and plug it in again\n",
                 UdevRulePath().c_str()));
  } else if (device.openError != 0) {
    Print(Format("           cannot be opened: %s\n", libusb_strerror(device.openError)));
  }
}

}  // namespace

Subcommand AddList(CLI::App& app, CommonOptions& common) {
  CLI::App* const line = app.add_subcommand("list", "Show what can be redirected");
  AddJson(*line, common);
  return {line, [&common] { return RunList(common); }};
}

int RunList(const CommonOptions& common) {
  const std::vector<LocalDevice> locals = LocalDevices();
  if (common.json) {
    nlohmann::ordered_json document{{"emulated", nlohmann::json::array()}, {"local", nlohmann::json::array()}};
    for (const EmulatedDevice& device : EmulatedDevices()) {
      document["emulated"].push_back({{"name", device.name}, {"about", device.about}});
    }
    for (const LocalDevice& device : locals) {
      document["local"].push_back(LocalJson(device));
    }
    Print(document.dump(2) + "\n");
    return 0;
  }
  Print("Emulated devices:\n");
  for (const EmulatedDevice& device : EmulatedDevices()) {
    Print(Format("  %-8s %s\n", device.name.data(), device.about.data()));
  }
  Print(locals.empty() ? "Local devices: none\n" : "Local devices:\n");
  std::for_each(locals.begin(), locals.end(), &PrintLocal);
  return 0;
}

}  // namespace vel
