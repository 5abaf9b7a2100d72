#ifndef VEL_BASE_HEAP_REUSE_H
#define VEL_BASE_HEAP_REUSE_H

namespace vel {

// Lets the process keep the blocks that transfers have freed for the next ones, up to 16 MiB a heap. As glibc begins,
// the end of a heap goes back to the system once it is larger than 128 KiB, and a read of 64 KiB then writes to fresh
// pages, which costs more than the rest of it. glibc raises that limit by itself when a large block is freed, as a
// client's that shows pictures has been long ago; with one it is raised here, and no setting that the client has made
// is overruled. Does nothing with other allocators, or without memory. Any thread.
void LetHeapKeepFreed() noexcept;

}  // namespace vel

#endif
