// In front of the looper of vel_utils: a message is handled where it is posted. A thread for each input, and waking it
// for each packet, took the fuzzer nine tenths of its time.

#include "vel/Looper.h"

namespace vel {

struct Looper::Queue {
  bool runs = false;
};

Looper::Looper() : mQueue(std::make_shared<Queue>()) {}
Looper::~Looper() = default;

int Looper::Start() {
  mQueue->runs = true;
  return 0;
}

int Looper::Stop() {
  mQueue->runs = false;
  return 0;
}

int Looper::PostMessageAAA(std::unique_ptr<Message> message) noexcept {
  if (!mQueue->runs) {
    return -1;
  }
  message->HandleMessage();
  return 0;
}

}  // namespace vel
