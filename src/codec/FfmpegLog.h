#ifndef VEL_CODEC_FFMPEG_LOG_H
#define VEL_CODEC_FFMPEG_LOG_H

namespace vel {

// Routes FFmpeg's messages into the module's log while at least one of these lives; then FFmpeg has its own log back,
// so that none of its messages reaches a module that was unloaded. FFmpeg has one log callback for the process and
// tells nobody which one is set: a client with a callback of its own sets it again when its camera has stopped. What
// FFmpeg's level lets through is logged at Error, Warn or, everything below a warning, Debug. Any thread.
class FfmpegLogRoute {
 public:
  FfmpegLogRoute();
  FfmpegLogRoute(const FfmpegLogRoute&) = delete;
  FfmpegLogRoute& operator=(const FfmpegLogRoute&) = delete;
  ~FfmpegLogRoute();
};

}  // namespace vel

#endif
