#ifndef VEL_IO_LIBUSB_LULL_H
#define VEL_IO_LIBUSB_LULL_H

#include "io/LibusbEndpoints.h"
#include "io/LibusbHandle.h"

namespace vel {

// For an act that makes the kernel drop transfers (the release of interfaces, a reset, another
// alternate setting): cancels those of the endpoints concerned, and lets nothing be submitted while
// it lives. Without the first, libusb reports them as completed with no bytes moved; without the
// second, a transfer from another thread claims its interface anew. The synchronous transfers that
// are in flight go on. Made with a LibusbUse held; any thread, also within a completion.
class LibusbLull {
 public:
  LibusbLull(LibusbHandle& owner, const LibusbEndpoints& endpoints) : mOwner(owner) { owner.BeginLull(endpoints); }
  LibusbLull(const LibusbLull&) = delete;
  LibusbLull& operator=(const LibusbLull&) = delete;
  ~LibusbLull() { mOwner.EndLull(); }

 private:
  LibusbHandle& mOwner;
};

}  // namespace vel

#endif
