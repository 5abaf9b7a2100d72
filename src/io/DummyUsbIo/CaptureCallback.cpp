#include "io/DummyUsbIo/CaptureCallback.h"

#include <map>
#include <utility>

#include "base/LockOrder.h"

namespace vel {
namespace {

// Whose callback an id has.
struct Holder {
  const CaptureCallback* device = nullptr;
  bool changed = false;  // Since the library was told.
  bool telling = false;  // A thread is at it, and goes on until nothing has changed.
};

struct Holders {
  Mutex mutex VEL_LOCK_LEVEL(Leaf);
  CondVar told;
  std::map<std::string, Holder> byId VEL_GUARDED_BY(mutex);
};

Holders& TheHolders() {
  static Holders holders;
  return holders;
}

}  // namespace

CaptureCallback::CaptureCallback(std::string id, bool owns, CamStreamCallback callback, void* context)
    : mId(std::move(id)), mOwns(owns), mCallback(callback), mContext(context) {}

void CaptureCallback::Register() {
  {
    Holders& holders = TheHolders();
    const MutexLock lock(holders.mutex);
    Holder& holder = holders.byId[mId];
    if (holder.device != nullptr && holder.device != this && !mOwns) {
      return;
    }
    holder.device = this;
    holder.changed = true;
  }
  Tell(mId);
}

void CaptureCallback::Unregister() {
  while (Withdraw()) {
    Tell(mId);
  }
}

bool CaptureCallback::Withdraw() {
  Holders& holders = TheHolders();
  MutexLock lock(holders.mutex);
  auto found = holders.byId.find(mId);
  while (found != holders.byId.end() && found->second.device != this && found->second.telling) {
    holders.told.Wait(lock);
    found = holders.byId.find(mId);
  }
  if (found == holders.byId.end() || found->second.device != this) {
    return false;
  }
  found->second.device = nullptr;
  found->second.changed = true;
  return true;
}

// One thread at a time tells the library, or an older wish could come last. It does so without the lock: the library
// waits for a running callback, whose completion may register.
void CaptureCallback::Tell(const std::string& id) {
  Holders& holders = TheHolders();
  bool isAtIt = false;
  while (true) {
    CamStreamCallback callback = nullptr;
    void* context = nullptr;
    {
      const MutexLock lock(holders.mutex);
      const auto found = holders.byId.find(id);
      if (found == holders.byId.end() || (found->second.telling && !isAtIt)) {
        return;
      }
      Holder& holder = found->second;
      if (!holder.changed) {
        holder.telling = false;
        if (holder.device == nullptr) {
          holders.byId.erase(found);
        }
        holders.told.NotifyAll();
        return;
      }
      holder.changed = false;
      holder.telling = isAtIt = true;
      if (holder.device != nullptr) {
        callback = holder.device->mCallback;
        context = holder.device->mContext;
      }
    }
    CamSetStreamCallback(id.c_str(), callback, context);
  }
}

}  // namespace vel
