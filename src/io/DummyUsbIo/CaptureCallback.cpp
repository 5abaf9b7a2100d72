#include "io/DummyUsbIo/CaptureCallback.h"

#include <map>
#include <utility>

#include "base/LockOrder.h"

namespace vel {
namespace {

// Who has the callback of which id.
struct Holders {
  Mutex mutex VEL_LOCK_LEVEL(Leaf);
  std::map<std::string, const CaptureCallback*> byId VEL_GUARDED_BY(mutex);
};

Holders& TheHolders() {
  static Holders holders;
  return holders;
}

}  // namespace

CaptureCallback::CaptureCallback(std::string id, bool owns, CamStreamCallback callback, void* context)
    : mId(std::move(id)), mOwns(owns), mCallback(callback), mContext(context) {}

// The library is called without the lock: it waits for a running callback, whose completion may register.
void CaptureCallback::Register() {
  Holders& holders = TheHolders();
  {
    const MutexLock lock(holders.mutex);
    const CaptureCallback*& holder = holders.byId.try_emplace(mId, this).first->second;
    if (holder != this && !mOwns) {
      return;
    }
    holder = this;
  }
  CamSetStreamCallback(mId.c_str(), mCallback, mContext);
}

void CaptureCallback::Unregister() {
  Holders& holders = TheHolders();
  const auto holds = [this, &holders] {
    const MutexLock lock(holders.mutex);
    const auto found = holders.byId.find(mId);
    return found != holders.byId.end() && found->second == this;
  };
  if (!holds()) {
    return;
  }
  CamSetStreamCallback(mId.c_str(), nullptr, nullptr);
  const MutexLock lock(holders.mutex);
  const auto found = holders.byId.find(mId);
  if (found != holders.byId.end() && found->second == this) {
    holders.byId.erase(found);
  }
}

}  // namespace vel
