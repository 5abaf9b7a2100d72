#ifndef VEL_LOOPER_H
#define VEL_LOOPER_H

#include <cstdint>
#include <memory>
#include <thread>

#include "vel/Message.h"
#include "vel/Mutex.h"
#include "vel/vel_utils_export.h"

namespace vel {

// A thread that handles posted messages one at a time, in posting order.
//
// Runs once: constructed, started, stopped. Every operation may be called from any thread.
class VEL_UTILS_EXPORT Looper {
 public:
  Looper();
  // Stops first. When it runs on the loop's own thread, that thread ends by itself after the message it is in.
  ~Looper();
  Looper(const Looper&) = delete;
  Looper& operator=(const Looper&) = delete;

  // Starts the thread. Returns 0, or -1 when the loop was started or stopped before or no thread can be had.
  int Start();

  // Ends the loop: waits for the message that is being handled, destroys those that still wait. Returns 0, also
  // when the loop is stopped already. Called on the loop's own thread it does not wait: the loop ends when the
  // present message returns.
  int Stop();

  // Queues a message; it also may be queued before Start. Never blocks. Returns 0, or -1 when the loop is stopped (the
  // message is destroyed).
  int PostMessageAAA(std::unique_ptr<Message> message) noexcept;

 private:
  struct Queue;
  static void Run(Queue& queue) noexcept;
  static Message* InOrder(std::uintptr_t newest);
  static void DestroyAll(Message* oldest);

  // Shared with the thread, which may outlive this object when it is destroyed on that thread.
  const std::shared_ptr<Queue> mQueue;
  Mutex mThreadMutex;
  std::thread mThread VEL_GUARDED_BY(mThreadMutex);
};

}  // namespace vel

#endif
