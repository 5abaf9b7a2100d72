#include "far/DeviceFacts.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "remote/RemoteDevice.h"
#include "vel/Mutex.h"

namespace vel {
namespace {

constexpr std::uint8_t kDeviceQualifier = 6;  // USB 2.0, table 9-5
constexpr std::uint16_t kEnglish = 0x0409;
constexpr std::uint16_t kDeviceBytes = 18;
constexpr std::uint16_t kConfigBytes = 4096;  // As much as Linux asks a device for at once.
constexpr std::uint16_t kStringBytes = 255;
constexpr std::uint32_t kControlMilliseconds = 1000;
constexpr std::int32_t kLastRealAddress = 127;
// Any text has raw pictures transcoded.
constexpr std::string_view kPolicy = "{\"video\":\"h264\"}";

constexpr std::uint16_t Value(std::uint8_t type, std::uint8_t index) {
  return static_cast<std::uint16_t>((type << 8U) | index);
}

ControlSetup DescriptorSetup(std::uint16_t wValue, std::uint16_t wIndex, std::uint16_t wLength) {
  return {LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_DESCRIPTOR, wValue, wIndex, wLength};
}

// Requests that are under way at once, and what became of them.
class Batch {
 public:
  struct Result {
    std::int32_t value = LIBUSB_ERROR_OTHER;
    std::vector<std::uint8_t> data;
  };

  explicit Batch(RequestPipe& pipe) : mPipe(pipe) {}

  // Each returns where its result will be.
  std::size_t Ask(Command command) {
    return Begin([&](RequestPipe::Done done) { mPipe.Ask(command, std::move(done)); });
  }
  std::size_t AskDescriptor(std::uint16_t wValue, std::uint16_t wIndex, std::uint16_t wLength) {
    return Begin([&](RequestPipe::Done done) {
      mPipe.Ask(Command::kControlTransfer, std::move(done), [&](RequestId id) {
        return BuildControlRequest(id, DescriptorSetup(wValue, wIndex, wLength), kControlMilliseconds);
      });
    });
  }

  // Waits for all of them.
  const std::vector<Result>& Await(std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    MutexLock lock(mState->mutex);
    while (mState->left > 0 && mState->changed.WaitUntil(lock, deadline)) {
    }
    if (mState->left > 0) {
      throw RemoteError("the device does not answer");
    }
    return mState->results;
  }

 private:
  struct State {  // Shared with replies that may come late.
    Mutex mutex;
    CondVar changed;
    std::size_t left = 0;
    std::vector<Result> results;
  };

  std::size_t Begin(const std::function<void(RequestPipe::Done)>& ask) {
    std::size_t index = 0;
    {
      const MutexLock lock(mState->mutex);
      index = mState->results.size();
      mState->results.emplace_back();
      ++mState->left;
    }
    ask([state = mState, index](const RequestPipe::Reply& reply) {
      const MutexLock lock(state->mutex);
      state->results[index] = {reply.value, {reply.data.begin(), reply.data.end()}};
      --state->left;
      state->changed.NotifyAll();
    });
    return index;
  }

  RequestPipe& mPipe;
  const std::shared_ptr<State> mState = std::make_shared<State>();
};

// A descriptor as the device sent it; empty when it did not, or when that is none of this type. (Some devices answer
// zeros to whatever is asked.)
std::vector<std::uint8_t> Checked(const Batch::Result& result, std::uint8_t type) {
  const bool good = result.value >= 2 && result.data.size() >= 2 && result.data[1] == type;
  return good ? result.data : std::vector<std::uint8_t>();
}

}  // namespace

DeviceFacts DeviceFacts::Ask(RequestPipe& pipe, bool transcode, std::chrono::milliseconds time) {
  if (transcode) {
    pipe.Ask(Command::kSetRedirPolicy, {}, [](RequestId id) {
      return BuildPolicyRequest(id, {reinterpret_cast<const std::uint8_t*>(kPolicy.data()), kPolicy.size()});
    });
  }
  Batch batch(pipe);
  const std::size_t open = batch.Ask(Command::kOpenUsbDev);
  const std::size_t speed = batch.Ask(Command::kGetDeviceSpeed);
  const std::size_t address = batch.Ask(Command::kGetDeviceAddress);
  const std::size_t model = batch.Ask(Command::kGetDeviceConfig);
  const std::size_t device = batch.AskDescriptor(Value(LIBUSB_DT_DEVICE, 0), 0, kDeviceBytes);
  const std::size_t config = batch.AskDescriptor(Value(LIBUSB_DT_CONFIG, 0), 0, kConfigBytes);
  const std::size_t languages = batch.AskDescriptor(Value(LIBUSB_DT_STRING, 0), 0, kStringBytes);
  const auto& results = batch.Await(time);
  if (const std::string why = pipe.WhyLost(); !why.empty()) {
    throw RemoteError(why);
  }
  if (results[open].value != 0) {
    throw RemoteError(std::string("the device cannot be opened: ") + libusb_strerror(results[open].value));
  }
  DeviceFacts facts;
  facts.mSpeed = results[speed].value;
  facts.mEmulated = results[address].value > kLastRealAddress;
  const auto deviceModel = ReadDeviceModel(results[device].data);
  auto configModel = ReadConfigModel(results[model].data);
  if (!deviceModel || !configModel || results[config].value <= 0) {
    throw RemoteError("the device sends no descriptors that can be read");
  }
  facts.mDevice = *deviceModel;
  facts.mConfig = std::move(*configModel);
  facts.mDescriptors[{Value(LIBUSB_DT_DEVICE, 0), 0}] = results[device].data;
  facts.mDescriptors[{Value(LIBUSB_DT_CONFIG, 0), 0}] = results[config].data;
  if (results[languages].value > 0) {
    facts.mDescriptors[{Value(LIBUSB_DT_STRING, 0), 0}] = results[languages].data;
  }
  facts.CorrectPacketSize();
  facts.AskRest(pipe, time);
  return facts;
}

// The module says 64 for nearly every device; a kernel refuses what does not go with the speed.
void DeviceFacts::CorrectPacketSize() {
  constexpr std::array<std::uint8_t, 4> kFullSpeed = {8, 16, 32, 64};
  std::uint8_t& size = mDevice.bMaxPacketSize0;
  if (mSpeed >= LIBUSB_SPEED_SUPER) {
    size = 9;  // 2 to the power of it.
  } else if (mSpeed == LIBUSB_SPEED_LOW) {
    size = 8;
  } else if (mSpeed != LIBUSB_SPEED_FULL || std::ranges::find(kFullSpeed, size) == kFullSpeed.end()) {
    size = 64;
  }
  constexpr std::size_t kMaxPacketSize0 = 7;
  mDescriptors[{Value(LIBUSB_DT_DEVICE, 0), 0}].at(kMaxPacketSize0) = size;
}

void DeviceFacts::AskRest(RequestPipe& pipe, std::chrono::milliseconds time) {
  std::uint16_t language = kEnglish;
  if (const auto languages = mDescriptors.find({Value(LIBUSB_DT_STRING, 0), 0});
      languages != mDescriptors.end() && languages->second.size() >= 4 && languages->second[0] >= 4) {
    language = static_cast<std::uint16_t>(languages->second[2] | (languages->second[3] << 8U));
  }
  std::vector<std::uint8_t> strings = {mDevice.iManufacturer, mDevice.iProduct, mDevice.iSerialNumber,
                                       mConfig.iConfiguration};
  for (const auto& settings : mConfig.interfaces) {
    std::ranges::transform(settings, std::back_inserter(strings), &AltSettingModel::iInterface);
  }
  std::ranges::sort(strings);
  strings.erase(std::unique(strings.begin(), strings.end()), strings.end());

  Batch batch(pipe);
  std::vector<std::pair<Key, std::size_t>> asked;
  const auto ask = [&](std::uint8_t type, std::uint8_t index, std::uint16_t wIndex, std::uint16_t length) {
    const std::uint16_t value = Value(type, index);
    asked.emplace_back(Key{value, wIndex}, batch.AskDescriptor(value, wIndex, length));
  };
  for (const std::uint8_t index : strings) {
    if (index != 0) {
      ask(LIBUSB_DT_STRING, index, language, kStringBytes);
    }
  }
  for (std::uint8_t index = 1; index < mDevice.bNumConfigurations; ++index) {
    ask(LIBUSB_DT_CONFIG, index, 0, kConfigBytes);
  }
  if (mDevice.bcdUSB >= 0x0201) {
    ask(LIBUSB_DT_BOS, 0, 0, kConfigBytes);
  }
  if (mDevice.bcdUSB >= 0x0200 && mSpeed <= LIBUSB_SPEED_HIGH) {
    ask(kDeviceQualifier, 0, 0, 10);
  }
  const auto& results = batch.Await(time);
  for (const auto& [key, index] : asked) {
    const auto type = static_cast<std::uint8_t>(key.first >> 8U);
    if (type == LIBUSB_DT_BOS || type == kDeviceQualifier) {
      mDescriptors[key] = Checked(results[index], type);
    } else if (results[index].value > 0) {
      mDescriptors[key] = results[index].data;
    } else if (results[index].value == LIBUSB_ERROR_PIPE) {
      mDescriptors[key] = {};
    }
  }
}

std::optional<std::span<const std::uint8_t>> DeviceFacts::Answer(const ControlSetup& setup) const {
  if (setup.bmRequestType != LIBUSB_ENDPOINT_IN || setup.bRequest != LIBUSB_REQUEST_GET_DESCRIPTOR) {
    return std::nullopt;
  }
  const auto found = mDescriptors.find({setup.wValue, setup.wIndex});
  if (found == mDescriptors.end()) {
    return std::nullopt;
  }
  return std::span(found->second).first(std::min<std::size_t>(found->second.size(), setup.wLength));
}

std::uint32_t DeviceFacts::KernelSpeed() const {
  switch (mSpeed) {
    case LIBUSB_SPEED_LOW:
      return 1;
    case LIBUSB_SPEED_FULL:
      return 2;
    case LIBUSB_SPEED_SUPER:
      return 5;
    case LIBUSB_SPEED_SUPER_PLUS:
      return 6;
    default:
      return 3;
  }
}

std::string DeviceFacts::Product() const {
  std::string text;
  for (const auto& [key, bytes] : mDescriptors) {
    if (mDevice.iProduct == 0 || key.first != Value(LIBUSB_DT_STRING, mDevice.iProduct) || bytes.size() < 2) {
      continue;
    }
    for (std::size_t i = 2; i + 1 < std::min<std::size_t>(bytes.size(), bytes[0]); i += 2) {
      const bool printable = bytes[i + 1] == 0 && bytes[i] >= 0x20 && bytes[i] < 0x7F;
      text += printable ? static_cast<char>(bytes[i]) : '?';
    }
  }
  return text;
}

UsbipDeviceRecord DeviceFacts::Record(std::string busId, std::uint32_t deviceNumber) const {
  UsbipDeviceRecord record{.busId = std::move(busId),
                           .busNumber = 1,
                           .deviceNumber = deviceNumber,
                           .speed = KernelSpeed(),
                           .vendorId = mDevice.idVendor,
                           .productId = mDevice.idProduct,
                           .bcdDevice = mDevice.bcdDevice,
                           .deviceClass = mDevice.bDeviceClass,
                           .deviceSubClass = mDevice.bDeviceSubClass,
                           .deviceProtocol = mDevice.bDeviceProtocol,
                           .configurationValue = mConfig.bConfigurationValue,
                           .configurations = mDevice.bNumConfigurations,
                           .interfaces = {}};
  for (const auto& settings : mConfig.interfaces) {
    if (!settings.empty()) {
      record.interfaces.push_back(
          {settings[0].bInterfaceClass, settings[0].bInterfaceSubClass, settings[0].bInterfaceProtocol});
    }
  }
  return record;
}

}  // namespace vel
