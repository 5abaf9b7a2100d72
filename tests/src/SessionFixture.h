#ifndef VIRTUSB_TESTS_SRC_SESSION_FIXTURE_H
#define VIRTUSB_TESTS_SRC_SESSION_FIXTURE_H

#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "VirtUsbDriver.h"
#include "remote/RequestBuilder.h"
#include "support/CapturingLog.h"
#include "support/Limits.h"
#include "support/RecordingDeviceBase.h"
#include "support/ReplyMatchers.h"
#include "support/ScriptedUsbIo.h"

namespace vel {

// What requests of these tests carry.
inline constexpr RequestId kId{.reqId = 0xA5, .devId = 0x11223344};

// A driver over a scripted backend, and its remote side.
struct TestedSession {
  explicit TestedSession(RecordingDeviceBase::Identity identity = {}) : remote(std::move(identity)) {
    EXPECT_EQ(driver->Init(), 0);
  }

  void Post(std::unique_ptr<VelPacket> request) { driver->onEvent(std::move(request)); }

  // Posts a request that is answered and waits for the next reply.
  Reply Ask(std::unique_ptr<VelPacket> request) {
    const std::size_t before = remote.ReplyCount();
    Post(std::move(request));
    EXPECT_TRUE(remote.WaitForReplies(before + 1));
    const std::vector<Reply> replies = remote.Replies();
    return before < replies.size() ? replies[before] : Reply{};
  }

  std::shared_ptr<VirtUsb> Served() const { return std::dynamic_pointer_cast<VirtUsb>(driver->GetDriverObj()); }

  RecordingDeviceBase remote;
  ScriptedUsbIo io{remote};
  std::unique_ptr<VirtUsbDriver> driver = std::make_unique<VirtUsbDriver>(&remote, &ScriptedUsbIo::Create);
};

class SessionFixture : public ::testing::Test, protected TestedSession {};

}  // namespace vel

#endif
