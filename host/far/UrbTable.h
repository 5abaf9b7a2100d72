#ifndef VIRTUSB_HOST_FAR_URB_TABLE_H
#define VIRTUSB_HOST_FAR_URB_TABLE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "far/Alarms.h"
#include "far/UsbipWire.h"
#include "protocol/Commands.h"
#include "protocol/Requests.h"
#include "protocol/VelPacket.h"

namespace vel {

// A guest's URB from its submission to its answer.
struct UrbInFlight {
  enum class Stage : std::uint8_t {
    kHeld,        // Nothing was sent to the device: it can be taken back at once.
    kSent,        // As transfers, which can be cancelled.
    kControl,     // As a request that cannot be cancelled.
    kCompleting,  // Its answer is on the way to the guest.
  };

  std::uint32_t seqnum = 0;
  Stage stage = Stage::kHeld;
  std::uint8_t endpoint = 0;
  Command command = Command::kControlTransfer;
  std::uint32_t flags = 0;
  std::uint32_t length = 0;
  std::uint64_t cost = 0;  // The table's.
  std::vector<UrbPacket> packets;
  std::optional<std::uint32_t> unlink;  // The guest's request to take it back, which waits for an answer.

  // The transfers that it became, with stream ids in a row.
  std::uint32_t firstStream = 0;
  std::uint32_t parts = 0;
  std::uint32_t partsDone = 0;
  std::vector<std::unique_ptr<VelPacket>> unsent;  // Requests that wait for their time.
  std::chrono::microseconds busTime{0};            // How long the endpoint of a paced one is taken by it.
  std::optional<Alarms::Ticket> alarm;             // Its time.

  // What the parts that are done have come to.
  std::int32_t status = 0;
  std::uint32_t actualLength = 0;
  std::vector<std::uint8_t> data;

  bool IsIn() const { return (endpoint & 0x80U) != 0; }
};

// The URBs of one guest that have no answer yet, and what was taken back before it came. No thread of its own, no
// lock: its owner has one.
class UrbTable {
 public:
  static constexpr std::size_t kMaxUrbs = 65536;
  // What they may take together: their data, which a guest sends or waits for, and their packets. A device takes no
  // more, either.
  static constexpr std::uint64_t kMaxBytes = kMaxPendingBytes;

  enum class Added {
    kYes,
    kTakenBack,  // It was unlinked before it came; `unlink` is what to answer with -ECONNRESET.
    kRefused,    // Its number is in use, or there are too many, or too large ones.
  };
  Added Add(UrbInFlight urb, std::uint32_t& unlink);

  enum class Unlinked {
    kOver,     // It was answered: the unlink is answered with 0.
    kEarly,    // It has not come yet. Answered when it does.
    kPending,  // It is here, and its `unlink` was set.
  };
  Unlinked Unlink(const UnlinkRequest& request);

  // Null when there is none. Valid until the table changes.
  UrbInFlight* Find(std::uint32_t seqnum);
  // The URB of a transfer whose reply has come: each counts once.
  UrbInFlight* TakeStream(std::uint32_t streamId);
  // Gives the URB's parts their stream ids.
  void SetStreams(UrbInFlight& urb, std::uint32_t firstStream, std::uint32_t parts);
  void Remove(std::uint32_t seqnum);
  void Clear();

  std::size_t Size() const { return mUrbs.size(); }
  std::vector<std::uint32_t> Numbers() const;

 private:
  bool IsNewer(std::uint32_t seqnum) const;

  std::unordered_map<std::uint32_t, UrbInFlight> mUrbs;
  std::uint64_t mBytes = 0;                                   // As kMaxBytes counts.
  std::unordered_map<std::uint32_t, std::uint32_t> mStreams;  // Stream id to number.
  std::unordered_map<std::uint32_t, std::uint32_t> mEarly;    // Number to the unlink that came before it.
  std::optional<std::uint32_t> mNewest;                       // Number of the latest submission.
};

}  // namespace vel

#endif
