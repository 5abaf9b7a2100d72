// The order in which the module's locks are taken. Each lock has a level; a thread that holds one takes only those of
// later levels, and of its own level none. docs/threads.md has what is on each, and a build with clang checks what one
// function takes (-Wthread-safety-beta).
#ifndef VEL_BASE_LOCK_ORDER_H
#define VEL_BASE_LOCK_ORDER_H

#include "vel/Mutex.h"

#define VEL_ACQUIRED_AFTER(lock) VEL_THREAD_ANNOTATION(acquired_after(lock))
#define VEL_ACQUIRED_BEFORE(lock) VEL_THREAD_ANNOTATION(acquired_before(lock))

// Behind a lock's declaration: its level.
#define VEL_LOCK_LEVEL(level) \
  VEL_ACQUIRED_AFTER(::vel::lock_order::before##level) VEL_ACQUIRED_BEFORE(::vel::lock_order::after##level)

// Marks between the levels, for the analysis alone: nothing defines them.
namespace vel::lock_order {

extern Mutex beforeSession;
extern Mutex afterSession VEL_ACQUIRED_AFTER(beforeSession);
extern Mutex beforeControl VEL_ACQUIRED_AFTER(afterSession);
extern Mutex afterControl VEL_ACQUIRED_AFTER(beforeControl);
extern Mutex beforeCoders VEL_ACQUIRED_AFTER(afterControl);
extern Mutex afterCoders VEL_ACQUIRED_AFTER(beforeCoders);
extern Mutex beforeIntake VEL_ACQUIRED_AFTER(afterCoders);
extern Mutex afterIntake VEL_ACQUIRED_AFTER(beforeIntake);
extern Mutex beforeWork VEL_ACQUIRED_AFTER(afterIntake);
extern Mutex afterWork VEL_ACQUIRED_AFTER(beforeWork);
extern Mutex beforeQueue VEL_ACQUIRED_AFTER(afterWork);
extern Mutex afterQueue VEL_ACQUIRED_AFTER(beforeQueue);
extern Mutex beforeLeaf VEL_ACQUIRED_AFTER(afterQueue);
extern Mutex afterLeaf VEL_ACQUIRED_AFTER(beforeLeaf);

}  // namespace vel::lock_order

#endif
