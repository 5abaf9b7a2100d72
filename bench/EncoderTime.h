#ifndef VIRTUSB_BENCH_ENCODER_TIME_H
#define VIRTUSB_BENCH_ENCODER_TIME_H

#include <chrono>

namespace vel::bench {

// What the codec library took to encode since the last call, in this program, on all threads that called it.
std::chrono::nanoseconds TakeEncoderTime();

}  // namespace vel::bench

#endif
