#ifndef VIRTUSB_BENCH_PARSER_LOOP_H
#define VIRTUSB_BENCH_PARSER_LOOP_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include <usbredirparser.h>

namespace vel {

// A yardstick of what requests cost where no device and no thread is: bulk IN requests from the guest's parser of a
// public redirection protocol to its host's parser and back, over memory, on the caller's thread. Nothing is copied for
// the transport beside what the parsers read and write, and the payload is there before it is asked for.
class ParserLoop {
 public:
  explicit ParserLoop(std::uint32_t bytes);

  // `count` requests and their replies, `window` of them in flight. False when one of the parsers objects.
  bool RoundTrips(std::uint64_t count, std::uint64_t window);

 private:
  struct Buffer {
    std::uint8_t* data;
    std::size_t length;
    std::size_t read = 0;
  };
  // One parser, and the buffers that the other one wrote to it.
  struct End {
    struct Deleter {
      void operator()(usbredirparser* parser) const { usbredirparser_destroy(parser); }
    };
    ParserLoop* loop = nullptr;
    End* peer = nullptr;
    std::unique_ptr<usbredirparser, Deleter> parser;
    std::deque<Buffer> inbox;

    ~End();
    void Init(ParserLoop& owner, End& other, int flags, usbredirparser_bulk_packet onBulk);
    bool Pump() const;
  };

  static int Read(void* end, std::uint8_t* data, int count);
  static int Write(void* end, std::uint8_t* data, int count);
  static void OnRequest(void* end, std::uint64_t id, usb_redir_bulk_packet_header* header, std::uint8_t* data, int n);
  static void OnReply(void* end, std::uint64_t id, usb_redir_bulk_packet_header* header, std::uint8_t* data, int n);
  void SendRequest();

  const std::uint32_t mBytes;
  std::vector<std::uint8_t> mPayload;
  std::uint64_t mToSend = 0;
  std::uint64_t mSent = 0;
  std::uint64_t mReplies = 0;
  End mGuest;
  End mHost;
};

}  // namespace vel

#endif
