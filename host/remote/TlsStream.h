#ifndef VIRTUSB_HOST_REMOTE_TLS_STREAM_H
#define VIRTUSB_HOST_REMOTE_TLS_STREAM_H

#include <openssl/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "remote/ByteStream.h"
#include "remote/TlsContext.h"
#include "vel/Mutex.h"

namespace vel {

struct SslDeleter {
  void operator()(SSL* ssl) const;
};

// Records between OpenSSL and a socket.
struct TlsRecords {
  std::span<const std::uint8_t> unopened;  // That have come.
  std::vector<std::uint8_t> sealed;        // That are to go.
};

// TLS over a socket. OpenSSL never sees the socket: it takes records from one block and puts them into another, under
// a lock that is held for that alone. Socket and waits are outside of it, so that reading and writing go on beside each
// other, and many records cost one call of the system.
//
// A stream that is destroyed says its proper end; one that ends without is Result::kFailed for the reader.
class TlsStream final : public ByteStream {
 public:
  enum class Shaken { kDone, kWantsToRead, kWantsToWrite };

  static constexpr std::chrono::seconds kHandshakeTime{10};

  // For a client `host` is the name or address that the other side's certificate has to be for. Without a signal only
  // Abort ends the waits; it outlives the stream, `context` need not.
  TlsStream(const TlsContext& context, UniqueFd socket, const StopSignal* stop, const std::string& host = "");
  ~TlsStream() override;

  // A client's whole handshake. Throws std::runtime_error with a text for people, Interrupted once `stop` is raised.
  void ShakeHands(const StopSignal& stop, std::chrono::milliseconds limit = kHandshakeTime);
  // The next step of a handshake, as far as it goes without waiting for the socket. Nothing is read or written before
  // it is done. Throws std::runtime_error with a text for people, beginning with "it" where that is the other side.
  Shaken Handshake();
  // Whose certificate the other side has shown. After the handshake.
  std::string Peer() const;
  // Whether bytes have come that were not read yet, of which the socket shows nothing any more.
  bool HasBytes() const VEL_EXCLUDES(mTlsMutex);

  using ByteStream::Read;
  Result Read(std::span<const IoPiece> pieces, std::size_t& count) override VEL_EXCLUDES(mTlsMutex);
  std::string Error() const override { return mError; }

 private:
  enum class Received { kSome, kNone, kEnd, kFailed };

  // The reading thread's; the lock is not wanted: whoever writes has it for long.
  Received Receive();
  // What was received becomes what is to be opened.
  void TakeIn() VEL_REQUIRES(mTlsMutex);
  // Opens what has come into the pieces; mEnd when there is no more to come.
  std::size_t OpenRecords(std::span<const IoPiece> pieces) VEL_EXCLUDES(mTlsMutex);
  // Takes from the pieces what makes a batch of records. False when the connection has failed.
  bool SealRecords(std::span<IoPiece>& pieces) VEL_REQUIRES(mWriteMutex) VEL_EXCLUDES(mTlsMutex);
  Progress WriteSome(std::span<IoPiece>& pieces) override VEL_REQUIRES(mWriteMutex);
  Progress SendRecords() VEL_REQUIRES(mWriteMutex);

  static int Judge(int isGood, X509_STORE_CTX* check);

  const UniqueFd mSocket;
  const std::unique_ptr<std::uint8_t[]> mReceived;  // The reading thread's while nothing in it is unopened.
  std::span<const std::uint8_t> mArrived;           // In it, and not yet OpenSSL's. The same.
  bool mIsDry = false;                              // Nothing can be opened before more is received. The same.
  const bool mIsServer;
  std::string mError;         // The reading thread's.
  Result mEnd = Result::kOk;  // The same.
  int mVerdict = 0;           // On the other side's certificate, in the handshake.
  std::string mRefused;       // Whose that was.
  bool mIsShaken = false;
  std::vector<std::uint8_t> mGathered VEL_GUARDED_BY(mWriteMutex);  // Small pieces that share a record.
  std::vector<std::uint8_t> mGoing VEL_GUARDED_BY(mWriteMutex);     // Records on their way into the socket.
  std::size_t mGone VEL_GUARDED_BY(mWriteMutex) = 0;                // Bytes of them that are there.
  mutable Mutex mTlsMutex;                                          // Behind mWriteMutex.
  TlsRecords mRecords VEL_GUARDED_BY(mTlsMutex);
  std::unique_ptr<SSL, SslDeleter> mSsl VEL_GUARDED_BY(mTlsMutex);
};

}  // namespace vel

#endif
