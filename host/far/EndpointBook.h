#ifndef VIRTUSB_HOST_FAR_ENDPOINT_BOOK_H
#define VIRTUSB_HOST_FAR_ENDPOINT_BOOK_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "far/UrbMapper.h"
#include "remote/ConfigModel.h"

namespace vel {

// Which endpoints there are in the settings that are selected: USB/IP does not say what an endpoint is. No lock.
class EndpointBook {
 public:
  // A configuration was selected: every interface is in its setting 0.
  void Select(ConfigModel config) {
    mConfig = std::move(config);
    mSettings.clear();
    Rebuild();
  }
  void SelectSetting(std::uint8_t interfaceNumber, std::uint8_t setting) {
    mSettings[interfaceNumber] = setting;
    Rebuild();
  }

  // Nothing for an endpoint that is not there now.
  std::optional<EndpointType> Find(std::uint8_t address) const { return mEndpoints[Place(address)]; }

 private:
  static std::size_t Place(std::uint8_t address) { return (address & 0x0FU) | ((address & 0x80U) >> 3U); }

  void Rebuild() {
    mEndpoints.fill(std::nullopt);
    for (const auto& settings : mConfig.interfaces) {
      for (const AltSettingModel& setting : settings) {
        const auto selected = mSettings.find(setting.bInterfaceNumber);
        if (setting.bAlternateSetting == (selected == mSettings.end() ? 0 : selected->second)) {
          for (const EndpointModel& endpoint : setting.endpoints) {
            mEndpoints[Place(endpoint.bEndpointAddress)] = TypeOf(endpoint);
          }
        }
      }
    }
  }

  ConfigModel mConfig;
  std::map<std::uint8_t, std::uint8_t> mSettings;  // Of interfaces, where one was set.
  std::array<std::optional<EndpointType>, 32> mEndpoints;
};

}  // namespace vel

#endif
