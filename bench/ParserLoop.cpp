#include "ParserLoop.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace vel {

ParserLoop::ParserLoop(std::uint32_t bytes) : mBytes(bytes), mPayload(bytes, 1) {
  mGuest.Init(*this, mHost, 0, &OnReply);
  mHost.Init(*this, mGuest, usbredirparser_fl_usb_host, &OnRequest);
}

ParserLoop::End::~End() {
  for (const Buffer& buffer : inbox) {
    usbredirparser_free_write_buffer(parser.get(), buffer.data);
  }
}

void ParserLoop::End::Init(ParserLoop& owner, End& other, int flags, usbredirparser_bulk_packet onBulk) {
  loop = &owner;
  peer = &other;
  parser.reset(usbredirparser_create());
  parser->priv = this;
  parser->log_func = [](void*, int, const char*) {};
  parser->read_func = &Read;
  parser->write_func = &Write;
  parser->hello_func = [](void*, usb_redir_hello_header*) {};
  parser->bulk_packet_func = onBulk;
  std::array<std::uint32_t, USB_REDIR_CAPS_SIZE> capabilities{};
  usbredirparser_caps_set_cap(capabilities.data(), usb_redir_cap_64bits_ids);
  usbredirparser_caps_set_cap(capabilities.data(), usb_redir_cap_32bits_bulk_length);
  usbredirparser_init(parser.get(), "benchmark", capabilities.data(), static_cast<int>(capabilities.size()),
                      flags | usbredirparser_fl_write_cb_owns_buffer);
}

bool ParserLoop::End::Pump() const {
  return usbredirparser_do_read(parser.get()) == 0 && usbredirparser_do_write(parser.get()) == 0;
}

int ParserLoop::Read(void* end, std::uint8_t* data, int count) {
  End& self = *static_cast<End*>(end);
  if (self.inbox.empty()) {
    return 0;
  }
  Buffer& buffer = self.inbox.front();
  const std::size_t n = std::min(buffer.length - buffer.read, static_cast<std::size_t>(count));
  std::memcpy(data, buffer.data + buffer.read, n);
  buffer.read += n;
  if (buffer.read == buffer.length) {
    usbredirparser_free_write_buffer(self.peer->parser.get(), buffer.data);
    self.inbox.pop_front();
  }
  return static_cast<int>(n);
}

int ParserLoop::Write(void* end, std::uint8_t* data, int count) {
  static_cast<End*>(end)->peer->inbox.push_back({data, static_cast<std::size_t>(count)});
  return count;
}

void ParserLoop::OnRequest(void* end, std::uint64_t id, usb_redir_bulk_packet_header* header, std::uint8_t* /*data*/,
                           int /*n*/) {
  const End& self = *static_cast<End*>(end);
  header->status = usb_redir_success;
  usbredirparser_send_bulk_packet(self.parser.get(), id, header, self.loop->mPayload.data(),
                                  static_cast<int>(self.loop->mBytes));
}

void ParserLoop::OnReply(void* end, std::uint64_t /*id*/, usb_redir_bulk_packet_header* /*header*/, std::uint8_t* data,
                         int n) {
  const End& self = *static_cast<End*>(end);
  self.loop->mReplies += static_cast<std::uint32_t>(n) == self.loop->mBytes ? 1 : 0;
  usbredirparser_free_packet_data(self.parser.get(), data);
  if (self.loop->mSent < self.loop->mToSend) {
    self.loop->SendRequest();
  }
}

void ParserLoop::SendRequest() {
  usb_redir_bulk_packet_header header{};
  header.endpoint = 0x81;
  header.length = static_cast<std::uint16_t>(mBytes);
  header.length_high = static_cast<std::uint16_t>(mBytes >> 16U);
  usbredirparser_send_bulk_packet(mGuest.parser.get(), ++mSent, &header, nullptr, 0);
}

bool ParserLoop::RoundTrips(std::uint64_t count, std::uint64_t window) {
  const std::uint64_t wanted = mReplies + count;
  mToSend = mSent + count;
  if (!mGuest.Pump() || !mHost.Pump() || !mGuest.Pump()) {  // The first time both say hello, before a request may go.
    return false;
  }
  for (std::uint64_t i = 0; i < std::min(count, window); ++i) {
    SendRequest();
  }
  while (mReplies < wanted) {
    const std::uint64_t before = mReplies;
    if (!mGuest.Pump() || !mHost.Pump() || !mGuest.Pump() || mReplies == before) {
      return false;
    }
  }
  return true;
}

}  // namespace vel
