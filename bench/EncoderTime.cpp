// In front of FFmpeg's functions of the same names.
#include "EncoderTime.h"

#include <dlfcn.h>

#include <atomic>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace {

std::atomic<std::int64_t> gNanoseconds{0};

template <class Function, class... Arguments>
int Timed(Function* function, Arguments... arguments) {
  const auto begin = std::chrono::steady_clock::now();
  const int result = function(arguments...);
  gNanoseconds += std::chrono::nanoseconds(std::chrono::steady_clock::now() - begin).count();
  return result;
}

template <class Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace vel::bench {

std::chrono::nanoseconds TakeEncoderTime() {
  return std::chrono::nanoseconds(gNanoseconds.exchange(0));
}

}  // namespace vel::bench

extern "C" {

int avcodec_send_frame(AVCodecContext* context, const AVFrame* frame) {
  static auto* const function = Next<decltype(avcodec_send_frame)>("avcodec_send_frame");
  return Timed(function, context, frame);
}

int avcodec_receive_packet(AVCodecContext* context, AVPacket* packet) {
  static auto* const function = Next<decltype(avcodec_receive_packet)>("avcodec_receive_packet");
  return Timed(function, context, packet);
}

}  // extern "C"
