#ifndef VEL_MESSAGE_H
#define VEL_MESSAGE_H

namespace vel {

// One unit of work for a Looper, which owns it from PostMessageAAA on.
class Message {
 public:
  Message() = default;
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  // Runs on the loop's thread after HandleMessage, or on any thread when the message was never handled.
  virtual ~Message() = default;

  // Called at most once, on the loop's thread. Must not throw.
  virtual void HandleMessage() = 0;

 private:
  friend class Looper;
  Message* mNext = nullptr;  // While it is queued.
};

}  // namespace vel

#endif
