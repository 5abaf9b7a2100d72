#ifndef VIRTUSB_HOST_FAR_GUEST_URBS_H
#define VIRTUSB_HOST_FAR_GUEST_URBS_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "far/Alarms.h"
#include "far/UrbGuest.h"
#include "far/UrbMapper.h"
#include "far/UrbTable.h"
#include "vel/Mutex.h"

namespace vel {

// What is owed to the guest that has the device, one guest at a time: each of its URBs, and each unlink, is answered
// once. Any thread, but for what says the guest's. The guest is called with no lock held.
class GuestUrbs {
 public:
  // An answer between the table and the guest. Who has begun one ends it.
  struct Answer {
    UrbGuest* guest = nullptr;
    std::uint32_t seqnum = 0;
    std::optional<std::uint32_t> unlink;
    std::int32_t status = 0;
    std::uint32_t actualLength = 0;
    std::uint32_t length = 0;
    std::vector<UrbPacket> packets;
    std::vector<std::uint8_t> data;
  };

  // What an unlink leaves to do.
  struct Unlinked {
    std::optional<std::int32_t> status;  // To tell the guest at once.
    std::vector<std::uint32_t> streams;  // Transfers to cancel; the unlink is answered with theirs.
    std::uint32_t generation = 0;
    std::uint8_t endpoint = 0;
    std::chrono::microseconds busTime{0};  // That the endpoint is not taken by it any more.
    std::optional<Alarms::Ticket> alarm;   // That nothing is to be done at.
  };

  void Connect(UrbGuest& guest) VEL_EXCLUDES(mMutex);
  // Forgets the guest and all that is its, and waits for calls of it. The streams of what was in flight; nothing when
  // there was no guest.
  std::optional<std::vector<std::uint32_t>> Disconnect() VEL_EXCLUDES(mMutex);
  // Counts guests: what comes late is not the next one's.
  std::uint32_t Generation() VEL_EXCLUDES(mMutex);

  // Guest's thread. Files a URB; false when that has answered it: it was unlinked before, or cannot be taken.
  bool File(const Urb& urb, Command command, UrbInFlight::Stage stage) VEL_EXCLUDES(mMutex);
  // Guest's thread. Files a URB for BeginHeld. False as above.
  bool Hold(const Urb& urb, Command command) VEL_EXCLUDES(mMutex);
  // Guest's thread. Answers a URB that is not filed.
  void Refuse(const Urb& urb, std::int32_t status) VEL_EXCLUDES(mMutex);
  // The transfers that a filed URB is about to become. False when it has its answer already.
  bool SetTransfers(std::uint32_t seqnum, std::uint32_t firstStream, std::uint32_t parts) VEL_EXCLUDES(mMutex);
  // The same of one whose requests wait for their time; they are kept for TakeUnsent.
  bool KeepTransfers(std::uint32_t seqnum, std::uint32_t firstStream, std::vector<std::unique_ptr<VelPacket>> requests,
                     std::chrono::microseconds busTime) VEL_EXCLUDES(mMutex);
  // When TakeUnsent is to be called for it.
  void SetAlarm(std::uint32_t seqnum, const Alarms::Ticket& alarm) VEL_EXCLUDES(mMutex);
  // None when the URB is not there any more. Otherwise they count as sent.
  std::vector<std::unique_ptr<VelPacket>> TakeUnsent(std::uint32_t generation, std::uint32_t seqnum)
      VEL_EXCLUDES(mMutex);

  // Guest's thread.
  Unlinked Unlink(const UnlinkRequest& request) VEL_EXCLUDES(mMutex);
  void TellUnlinked(std::uint32_t unlink, std::int32_t status) VEL_EXCLUDES(mMutex);

  // Each takes a URB for its answer: nothing when it is not there, or somebody else's to answer.
  std::optional<Answer> Begin(std::uint32_t generation, std::uint32_t seqnum) VEL_EXCLUDES(mMutex);
  // One whose transfers are under way.
  std::optional<Answer> BeginSent(std::uint32_t generation, std::uint32_t seqnum) VEL_EXCLUDES(mMutex);
  // The oldest that is held.
  std::optional<Answer> BeginHeld() VEL_EXCLUDES(mMutex);
  // The one that this reply completes. `data` is what came, in the reply or in the answer.
  std::optional<Answer> BeginDone(const TransferAnswer& reply, std::size_t maxPackets,
                                  std::span<const std::uint8_t>& data) VEL_EXCLUDES(mMutex);
  void End(const Answer& answer, std::span<const std::uint8_t> data) VEL_EXCLUDES(mMutex);

  // The device is gone: answers everything, then tells the guest.
  void Lose() VEL_EXCLUDES(mMutex);

 private:
  std::optional<Answer> BeginLocked(std::uint32_t seqnum) VEL_REQUIRES(mMutex);
  void AnswerNow(std::uint32_t seqnum, std::int32_t status) VEL_EXCLUDES(mMutex);
  void CountCallOver() VEL_EXCLUDES(mMutex);

  Mutex mMutex;
  CondVar mChanged;
  UrbGuest* mGuest VEL_GUARDED_BY(mMutex) = nullptr;
  std::uint32_t mGeneration VEL_GUARDED_BY(mMutex) = 0;
  std::uint32_t mAnswering VEL_GUARDED_BY(mMutex) = 0;  // Calls of the guest.
  UrbTable mTable VEL_GUARDED_BY(mMutex);
  std::deque<std::uint32_t> mHeld VEL_GUARDED_BY(mMutex);  // As far as still there.
};

}  // namespace vel

#endif
