#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cmd/Commands.h"
#include "cmd/console/Format.h"
#include "cmd/console/Output.h"
#include "cmd/describe/UsbNames.h"
#include "cmd/devices/DeviceFilter.h"
#include "cmd/devices/EmulatedDevices.h"
#include "cmd/devices/SystemDevices.h"

namespace vel {
namespace {

// What the guest would get: the classes of the interfaces, each named once.
std::vector<std::string> WhatIsRedirected(const LocalDevice& device) {
  std::vector<std::string> names;
  for (const LocalDevice::Interface& interface : device.interfaces) {
    const std::uint8_t code = interface.usbClass.code;
    const std::string name(ClassName(code).empty() ? "class " + std::to_string(code) : ClassName(code));
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

nlohmann::ordered_json LocalJson(const LocalDevice& device, const std::optional<DeviceFilter>& filter) {
  nlohmann::ordered_json json{{"bus", device.identity.bus},
                              {"address", device.identity.address},
                              {"idVendor", device.identity.vendorId},
                              {"idProduct", device.identity.productId},
                              {"speed", SpeedName(device.speed)},
                              {"manufacturer", device.manufacturer},
                              {"product", device.product},
                              {"redirects", WhatIsRedirected(device)},
                              {"accessible", device.openError == 0}};
  if (filter) {
    const DeviceFilter::Verdict verdict = filter->Judge(device);
    json["auto"] = {{"allowed", verdict.allowed}, {"rules", verdict.rules}, {"text", verdict.text}};
  }
  return json;
}

void PrintLocal(const LocalDevice& device, const std::optional<DeviceFilter>& filter) {
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
  if (filter) {
    Print("           export --auto: " + filter->Judge(device).text + "\n");
  }
  if (device.openError != 0) {
    Print("           " + WhyNotOpened(device.openError) + "\n");
  }
}

// With a filter, shows what it says of each local device.
int RunList(const CommonOptions& common, const std::optional<std::string>& filterText) {
  const std::optional<DeviceFilter> filter = filterText ? std::optional<DeviceFilter>(*filterText) : std::nullopt;
  const std::vector<LocalDevice> locals = LocalDevices();
  if (common.json) {
    nlohmann::ordered_json document{{"emulated", nlohmann::json::array()}, {"local", nlohmann::json::array()}};
    for (const EmulatedDevice& device : EmulatedDevices()) {
      document["emulated"].push_back({{"name", device.name}, {"about", device.about}});
    }
    for (const LocalDevice& device : locals) {
      document["local"].push_back(LocalJson(device, filter));
    }
    Print(document.dump(2) + "\n");
    return 0;
  }
  Print("Emulated devices:\n");
  for (const EmulatedDevice& device : EmulatedDevices()) {
    Print(Format("  %-8s %s\n", device.name.data(), device.about.data()));
  }
  Print(locals.empty() ? "Local devices: none\n" : "Local devices:\n");
  for (const LocalDevice& device : locals) {
    PrintLocal(device, filter);
  }
  return 0;
}

}  // namespace

Subcommand AddList(CLI::App& app, CommonOptions& common) {
  const auto filter = std::make_shared<std::optional<std::string>>();
  CLI::App* const line = app.add_subcommand("list", "Show what can be redirected");
  AddJson(*line, common);
  AddFilter(*line, *filter, "Show which local devices \"export --auto\" exports, and by which rule");
  return {line, [&common, filter] { return RunList(common, *filter); }};
}

}  // namespace vel
