#ifndef VIRTUSB_HOST_REMOTE_MODULE_CHANNEL_H
#define VIRTUSB_HOST_REMOTE_MODULE_CHANNEL_H

#include <memory>
#include <utility>

#include "remote/ModuleSession.h"
#include "remote/PacketChannel.h"
#include "vel/Mutex.h"

namespace vel {

// The channel to a device that a module in this process redirects.
class ModuleChannel final : public PacketChannel {
 public:
  ModuleChannel(std::shared_ptr<ModuleLibrary> library, DeviceIdentity identity, ModuleSession::Answers answers = {})
      : mLibrary(std::move(library)), mIdentity(std::move(identity)), mAnswers(answers) {}
  ~ModuleChannel() override { Close(); }

  // Throws std::runtime_error when the module refuses the device.
  void Start(Receiver receiver) override {
    ModuleSession::Options options;
    options.answers = mAnswers;
    options.onReply = std::move(receiver.onPacket);
    const MutexLock lock(mMutex);
    mSession = std::make_unique<ModuleSession>(mLibrary, mIdentity, std::move(options));
  }

  bool Send(std::unique_ptr<VelPacket> packet) override {
    const MutexLock lock(mMutex);
    if (mSession == nullptr) {
      return false;
    }
    mSession->Post(std::move(packet));
    return true;
  }

  void Close() override {
    std::unique_ptr<ModuleSession> session;
    {
      const MutexLock lock(mMutex);
      session = std::move(mSession);
    }
  }

 private:
  const std::shared_ptr<ModuleLibrary> mLibrary;
  const DeviceIdentity mIdentity;
  const ModuleSession::Answers mAnswers;
  Mutex mMutex;
  std::unique_ptr<ModuleSession> mSession VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
