#include "observe/UrbTranslation.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>

#include "protocol/ByteReader.h"
#include "protocol/IsoTable.h"
#include "protocol/Requests.h"
#include "remote/ConfigModel.h"
#include "remote/TransferAnswer.h"

namespace vel {
namespace {

using Setup = std::array<std::uint8_t, 8>;

constexpr std::uint16_t kAll = 0xFFFF;
constexpr std::size_t kTotalLengthOffset = 2;

void PutSetup(PendingUrb& urb, UsbEvent& event, std::uint8_t type, std::uint8_t request, std::uint32_t value,
              std::uint32_t index, std::uint32_t length) {
  const auto low = [](std::uint32_t word) { return static_cast<std::uint8_t>(word); };
  const auto high = [](std::uint32_t word) { return static_cast<std::uint8_t>(word >> 8U); };
  event.setup = {type, request, low(value), high(value), low(index), high(index), low(length), high(length)};
  urb.type = UsbTransferType::kControl;
  urb.endpoint = type & kDirectionIn;
  urb.length = length;
}

UsbTransferType TypeOfTransfer(Command command) {
  return command == Command::kIsochTransfer       ? UsbTransferType::kIsochronous
         : command == Command::kInterruptTransfer ? UsbTransferType::kInterrupt
                                                  : UsbTransferType::kBulk;
}

bool ReadTransfer(const VelPacket& packet, PendingUrb& urb, UsbEvent& event) {
  const auto payload = packet.PayloadBytes();
  if (payload.size() < FindCommand(packet.GetCommand())->fieldBytes) {
    return false;
  }
  const bool iso = urb.command == Command::kIsochTransfer;
  const TransferRequest request = iso ? ReadIsoRequest(payload) : ReadTransferRequest(payload);
  urb.match = request.streamId;
  urb.type = TypeOfTransfer(urb.command);
  urb.endpoint = request.epAddr;
  urb.length = request.length;
  std::span<const std::uint8_t> data = request.data;
  if (iso) {
    const auto count = request.error == PayloadError::kTooLong ? 0 : request.isoPackets;
    const std::size_t table = std::min<std::size_t>(IsoTableSize(count), data.size());
    urb.length = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::uint32_t length = IsoTableSize(i + 1) <= table ? LoadIsoRecord(data.data(), i).length : 0;
      urb.packets.push_back({.status = kNotReached, .offset = urb.length, .length = length, .padding = 0});
      urb.length += length;
    }
    data = data.subspan(table);
  }
  if (!urb.IsIn()) {
    event.data = data;
  }
  return true;
}

// False for a command that no device sees, or whose fields are cut.
bool ReadControl(const VelPacket& packet, PendingUrb& urb, UsbEvent& event) {
  const auto payload = packet.PayloadBytes();
  urb.match = packet.GetReqId();
  switch (urb.command) {
    case Command::kControlTransfer: {
      const auto request = ReadControlRequest(payload);
      if (request) {
        PutSetup(urb, event, request->bmRequestType, request->bRequest, request->wValue, request->wIndex,
                 request->wLength);
        event.data = urb.IsIn() ? event.data : request->data;
      }
      return request.has_value();
    }
    case Command::kGetDeviceDesc:
      PutSetup(urb, event, kDirectionIn, LIBUSB_REQUEST_GET_DESCRIPTOR, LIBUSB_DT_DEVICE << 8U, 0,
               LIBUSB_DT_DEVICE_SIZE);
      return true;
    case Command::kGetDeviceConfig:
      PutSetup(urb, event, kDirectionIn, LIBUSB_REQUEST_GET_DESCRIPTOR, LIBUSB_DT_CONFIG << 8U, 0, kAll);
      return true;
    case Command::kGetStringDescriptor: {
      const auto request = ReadStringRequest(payload);
      if (request) {
        PutSetup(urb, event, kDirectionIn, LIBUSB_REQUEST_GET_DESCRIPTOR, (LIBUSB_DT_STRING << 8U) | request->index,
                 request->langId, std::min<std::uint32_t>(request->length, kAll));
      }
      return request.has_value();
    }
    case Command::kSetConfiguration: {
      const auto value = ReadU32Request(payload);
      PutSetup(urb, event, 0, LIBUSB_REQUEST_SET_CONFIGURATION, value.value_or(0), 0, 0);
      return value.has_value();
    }
    case Command::kSetInterfaceAltSetting: {
      const auto request = ReadAltSettingRequest(payload);
      if (request) {
        PutSetup(urb, event, LIBUSB_RECIPIENT_INTERFACE, LIBUSB_REQUEST_SET_INTERFACE, request->altSetting,
                 request->interfaceNumber, 0);
      }
      return request.has_value();
    }
    case Command::kClearHalt:  // Of endpoint 0, always.
      PutSetup(urb, event, LIBUSB_RECIPIENT_ENDPOINT, LIBUSB_REQUEST_CLEAR_FEATURE, 0, 0, 0);
      return true;
    default:
      return false;
  }
}

// The descriptors as a device sends them.
void PutDescriptors(const ConfigModel& config, std::vector<std::uint8_t>& out) {
  const auto put = [&out](const std::vector<std::uint8_t>& bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
  };
  put({LIBUSB_DT_CONFIG_SIZE, config.bDescriptorType, 0, 0, config.bNumInterfaces, config.bConfigurationValue,
       config.iConfiguration, config.bmAttributes, config.MaxPower});
  put(config.extra);
  for (const auto& settings : config.interfaces) {
    for (const AltSettingModel& each : settings) {
      put({LIBUSB_DT_INTERFACE_SIZE, each.bDescriptorType, each.bInterfaceNumber, each.bAlternateSetting,
           each.bNumEndpoints, each.bInterfaceClass, each.bInterfaceSubClass, each.bInterfaceProtocol,
           each.iInterface});
      put(each.extra);
      for (const EndpointModel& endpoint : each.endpoints) {
        const bool isAudio = endpoint.bLength > LIBUSB_DT_ENDPOINT_SIZE;
        put({static_cast<std::uint8_t>(isAudio ? LIBUSB_DT_ENDPOINT_AUDIO_SIZE : LIBUSB_DT_ENDPOINT_SIZE),
             endpoint.bDescriptorType, endpoint.bEndpointAddress, endpoint.bmAttributes,
             static_cast<std::uint8_t>(endpoint.wMaxPacketSize),
             static_cast<std::uint8_t>(endpoint.wMaxPacketSize >> 8U), endpoint.bInterval});
        if (isAudio) {
          put({endpoint.bRefresh, endpoint.bSynchAddress});
        }
        put(endpoint.extra);
      }
    }
  }
  const auto total = static_cast<std::uint16_t>(std::min<std::size_t>(out.size(), kAll));
  std::memcpy(out.data() + kTotalLengthOffset, &total, sizeof total);
}

// The packets' bytes lie packed behind their table.
void TakePackets(PendingUrb& urb, const TransferAnswer& answer, UsbEvent& event) {
  if (!urb.IsIn()) {  // That it is complete is all there is.
    for (UsbmonIsoDescriptor& packet : urb.packets) {
      packet.status = event.status;
      packet.length = event.status == 0 ? packet.length : 0;
      event.length += packet.length;
    }
    return;
  }
  const std::size_t table = IsoTableSize(answer.isoPackets);
  urb.packets.resize(answer.data.size() < table ? 0 : std::min<std::size_t>(urb.packets.size(), answer.isoPackets));
  event.data = answer.data.subspan(std::min(table, answer.data.size()));
  for (std::size_t i = 0; i < urb.packets.size(); ++i) {
    const IsoPacketRecord record = LoadIsoRecord(answer.data.data(), i);
    const std::size_t left = event.data.size() - event.length;
    urb.packets[i] = {.status = ErrnoOfStatus(static_cast<std::int32_t>(record.status)),
                      .offset = event.length,
                      .length = static_cast<std::uint32_t>(std::min<std::size_t>(record.actual_length, left)),
                      .padding = 0};
    event.length += urb.packets[i].length;
  }
  event.data = event.data.first(event.length);
}

void TakeAnswer(const VelPacket& reply, PendingUrb& urb, UsbEvent& event) {
  const auto answer = ReadTransferAnswer(reply);
  if (!answer) {
    event.status = -kGuestProtocol;
    urb.packets.clear();
    return;
  }
  event.status = ErrnoOfStatus(answer->status);
  if (urb.type == UsbTransferType::kIsochronous && !urb.isPicture) {
    TakePackets(urb, *answer, event);
    return;
  }
  event.data = urb.IsIn() ? answer->data : event.data;
  event.length = urb.IsIn() ? static_cast<std::uint32_t>(answer->data.size()) : MovedOut(*answer, urb.length);
  if (urb.isPicture) {
    urb.packets.assign(1, {.status = event.status, .offset = 0, .length = event.length, .padding = 0});
  }
}

void TakeResult(const VelPacket& reply, const PendingUrb& urb, UsbEvent& event,
                std::vector<std::uint8_t>& descriptors) {
  ByteReader reader(reply.PayloadBytes());
  if (urb.command == Command::kGetDeviceConfig) {
    const auto config = ReadConfigModel(reader.Rest());
    descriptors.clear();
    if (config) {
      PutDescriptors(*config, descriptors);
    }
    event.data = descriptors;
    event.status = config ? 0 : -kGuestPipe;
  } else if (urb.command == Command::kGetDeviceDesc) {
    event.data = reader.Rest();
    event.status = event.data.empty() ? -kGuestPipe : 0;
  } else {
    const auto result = static_cast<std::int32_t>(reader.Host<std::uint32_t>());
    event.status = reader.Ok() ? ErrnoOfResult(result) : -kGuestProtocol;
    const std::uint32_t moved = std::min(static_cast<std::uint32_t>(std::max(result, 0)), urb.length);
    event.data = urb.IsIn() ? reader.Rest().first(std::min<std::size_t>(reader.Rest().size(), moved)) : event.data;
    event.length = moved;
  }
  event.length = urb.IsIn() ? static_cast<std::uint32_t>(event.data.size()) : event.length;
}

}  // namespace

bool ReadSubmission(const VelPacket& request, PendingUrb& urb, UsbEvent& event) {
  urb.packets.clear();
  urb.isPicture = false;
  const CommandInfo* const command = FindCommand(request.GetCommand());
  urb.command = command == nullptr ? Command::kPing : command->command;
  if (urb.command == Command::kCancelTransfer) {
    urb.match = request.GetReqId();
    urb.length = ReadU32Request(request.PayloadBytes()).value_or(0);
    return false;
  }
  const bool is =
      urb.command != Command::kPing &&
      (command->reply == ReplyKind::kAsync ? ReadTransfer(request, urb, event) : ReadControl(request, urb, event));
  if (!is) {
    urb.command = Command::kPing;
    return false;
  }
  event.type = urb.type;
  event.endpoint = urb.endpoint;
  event.length = urb.length;
  event.packets = urb.packets;
  return true;
}

UsbEvent ReadCompletion(const VelPacket& reply, PendingUrb& urb, std::vector<std::uint8_t>& descriptors) {
  UsbEvent event;
  event.id = urb.id;
  event.isCompletion = true;
  event.type = urb.type;
  event.endpoint = urb.endpoint;
  if (FindCommand(static_cast<std::uint16_t>(urb.command))->reply == ReplyKind::kAsync) {
    TakeAnswer(reply, urb, event);
  } else {
    TakeResult(reply, urb, event, descriptors);
  }
  event.packets = urb.packets;
  return event;
}

}  // namespace vel
