#include "remote/ModuleSession.h"

#include <cstddef>
#include <stdexcept>
#include <utility>

#include "protocol/ByteReader.h"
#include "protocol/Commands.h"
#include "remote/PacketChannel.h"

namespace vel {

class ModuleSession::Device final : public VelDeviceBase {
 public:
  Device(DeviceIdentity identity, Options options) : mIdentity(std::move(identity)), mOptions(std::move(options)) {}

  std::uint8_t GetBusNumber() const override { return mIdentity.bus; }
  std::uint8_t GetDeviceAddress() const override { return mIdentity.address; }
  int IsRedirected() const override { return 1; }
  std::uint32_t GetDevId() const override { return mOptions.devId; }
  std::uint32_t GetChannelId() const override { return 0; }
  std::uint16_t GetVendorId() const override { return mIdentity.vendorId; }
  std::uint16_t GetProductId() const override { return mIdentity.productId; }
  const char* GetArgs() const override { return mIdentity.args.c_str(); }
  bool AnswersFailedTransfers() const override { return mOptions.answers.failures; }
  bool WantsLeanReplies() const override { return mOptions.answers.lean; }
  bool PayloadHeaderLengthCounts() const override { return true; }
  bool WantsNewestPictures() const override { return true; }

  std::uint8_t TakeReplyReqId(std::uint16_t replyCommand, std::uint32_t streamId) override {
    return mReplyIds.Take(replyCommand, streamId);
  }

  int Send(std::unique_ptr<VelPacket> packet, std::uint32_t /*waitMs*/) override {
    if (const auto wire = packet->MutableWire(); mOptions.answers.failures && wire.size() > kServiceOffset) {
      wire[kServiceOffset] |= kAnswersFailures;
    }
    mOptions.onReply(std::move(packet));
    return 0;
  }

  void Trace(std::uint64_t /*spanId*/, const char* event, const VelTraceAttribute* attributes,
             std::size_t count) override {
    if (mOptions.onTrace) {
      mOptions.onTrace(event, attributes, count);
    }
  }

  void NoteRequest(const VelPacket& packet) {
    const CommandInfo* command = FindCommand(packet.GetCommand());
    if (command != nullptr && command->reply == ReplyKind::kAsync) {
      ByteReader reader(packet.PayloadBytes());
      reader.Skip(sizeof(std::uint32_t));  // Endpoint. A stream id that is missing counts as 0.
      mReplyIds.Note(ReplyCode(command->command), reader.Host<std::uint32_t>(), packet.GetReqId());
    }
  }

 private:
  const DeviceIdentity mIdentity;
  const Options mOptions;
  ReplyIdBook mReplyIds;
};

ModuleSession::ModuleSession(std::shared_ptr<ModuleLibrary> library, DeviceIdentity identity, Options options)
    : mLibrary(std::move(library)),
      mDevice(std::make_unique<Device>(std::move(identity), std::move(options))),
      mDriver(mLibrary->Descriptor().open(mDevice.get())) {
  if (mDriver == nullptr) {
    throw std::runtime_error("the module refuses the device");
  }
}

ModuleSession::~ModuleSession() {
  Close();
}

void ModuleSession::Post(std::unique_ptr<VelPacket> packet) {
  if (mDriver != nullptr) {
    mDevice->NoteRequest(*packet);
    mDriver->onEvent(std::move(packet));
  }
}

void ModuleSession::Close() {
  if (mDriver != nullptr) {
    mDriver->Close(0);
    mDriver.reset();
  }
}

}  // namespace vel
