#include "remote/TlsStream.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

#include "os/Socket.h"
#include "remote/StopWatcher.h"
#include "remote/TlsText.h"

namespace vel {
namespace {

constexpr std::size_t kRecordBytes = 16U << 10U;    // The most that TLS puts into one.
constexpr std::size_t kBatchBytes = 128U << 10U;    // Of records that leave with one call.
constexpr std::size_t kReceiveBytes = 128U << 10U;  // Of records that are taken in with one call.

// What OpenSSL does not say to a client that speaks no TLS: a fatal alert, protocol_version (RFC 8446, 6).
constexpr std::array<std::uint8_t, 7> kNotTlsAlert = {21, 3, 3, 0, 2, 2, 70};

constexpr char kClientLeft[] = "it left in the middle of the TLS handshake";
constexpr char kServerLeft[] =
    "it ended the connection instead of a TLS handshake (is it served with --tls DIR? what it says there tells more)";

std::span<std::uint8_t> BytesOf(const IoPiece& piece) {
  return {static_cast<std::uint8_t*>(piece.iov_base), piece.iov_len};
}

// What OpenSSL takes records from and puts them into: TlsRecords, with nothing behind it.
const BIO_METHOD* RecordsMethod() {
  static const BIO_METHOD* const kMethod = [] {
    BIO_METHOD* const method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "records");
    if (method == nullptr) {
      throw std::bad_alloc();
    }
    BIO_meth_set_read(method, [](BIO* bio, char* to, int size) {
      std::span<const std::uint8_t>& unopened = static_cast<TlsRecords*>(BIO_get_data(bio))->unopened;
      BIO_clear_retry_flags(bio);
      const std::size_t count = std::min(unopened.size(), static_cast<std::size_t>(size));
      if (count == 0) {
        BIO_set_retry_read(bio);
        return -1;
      }
      std::memcpy(to, unopened.data(), count);
      unopened = unopened.subspan(count);
      return static_cast<int>(count);
    });
    BIO_meth_set_write(method, [](BIO* bio, const char* from, int size) {
      std::vector<std::uint8_t>& sealed = static_cast<TlsRecords*>(BIO_get_data(bio))->sealed;
      const auto* const bytes = reinterpret_cast<const std::uint8_t*>(from);  // Of the same type: copied as one block.
      sealed.insert(sealed.end(), bytes, bytes + size);
      return size;
    });
    BIO_meth_set_ctrl(method, [](BIO*, int what, long, void*) { return what == BIO_CTRL_FLUSH ? 1L : 0L; });
    return method;
  }();
  return kMethod;
}

// The name that the other side's certificate has to have. An address is no name.
bool Expect(SSL* ssl, const std::string& host) {
  X509_VERIFY_PARAM* const expected = SSL_get0_param(ssl);
  X509_VERIFY_PARAM_set_hostflags(expected, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
  const std::string address = host.substr(0, host.find('%'));
  if (IsNumericAddress(address)) {
    return X509_VERIFY_PARAM_set1_ip_asc(expected, address.c_str()) == 1;
  }
  return X509_VERIFY_PARAM_set1_host(expected, host.c_str(), host.size()) == 1 &&
         SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, const_cast<char*>(host.c_str())) == 1;
}

}  // namespace

void SslDeleter::operator()(SSL* ssl) const {
  SSL_free(ssl);
}

int TlsStream::Judge(int isGood, X509_STORE_CTX* check) {
  if (isGood == 0) {
    const auto* const ssl =
        static_cast<const SSL*>(X509_STORE_CTX_get_ex_data(check, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* const stream = static_cast<TlsStream*>(SSL_get_app_data(ssl));
    stream->mVerdict = X509_STORE_CTX_get_error(check);
    stream->mRefused = SubjectOf(X509_STORE_CTX_get0_cert(check));
  }
  return isGood;
}

TlsStream::TlsStream(const TlsContext& context, UniqueFd socket, const StopSignal* stop, const std::string& host)
    : ByteStream(socket.Get(), socket.Get(), stop),
      mSocket(std::move(socket)),
      mReceived(std::make_unique_for_overwrite<std::uint8_t[]>(kReceiveBytes)),
      mIsServer(context.GetSide() == TlsContext::Side::kServer),
      mSsl(SSL_new(context.Get())) {
  SSL* const ssl = mSsl.get();
  BIO* const records = ssl == nullptr ? nullptr : BIO_new(RecordsMethod());
  if (records == nullptr) {
    throw std::bad_alloc();
  }
  BIO_set_data(records, &mRecords);
  BIO_set_init(records, 1);
  SSL_set_bio(ssl, records, records);  // Takes it over.
  SSL_set_app_data(ssl, this);
  SSL_set_verify(ssl, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, &Judge);
  if (mIsServer) {
    SSL_set_accept_state(ssl);
  } else {
    SSL_set_connect_state(ssl);
    if (!Expect(ssl, host)) {
      throw std::runtime_error("\"" + host + "\" is no name that a certificate can have");
    }
  }
}

TlsStream::~TlsStream() {
  const MutexLock lock(mWriteMutex);
  if (!mIsShaken || mGone < mGoing.size()) {
    return;  // What is half out has no proper end.
  }
  {
    const MutexLock tls(mTlsMutex);
    SSL_shutdown(mSsl.get());
    ERR_clear_error();
    mGoing.swap(mRecords.sealed);
    mGone = 0;
  }
  SendRecords();
}

void TlsStream::ShakeHands(const StopSignal& stop, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (Shaken shaken = Handshake(); shaken != Shaken::kDone; shaken = Handshake()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (!stop.WaitFor(In(), shaken == Shaken::kWantsToRead ? kReadable : kWritable,
                      std::max(left, std::chrono::milliseconds(0)))) {
      if (stop.IsRaised()) {
        throw Interrupted();
      }
      throw std::runtime_error("it does not answer to TLS within " +
                               std::to_string(std::chrono::ceil<std::chrono::seconds>(limit).count()) + " s");
    }
  }
}

TlsStream::Shaken TlsStream::Handshake() {
  while (true) {
    std::string problem;
    Progress sent = Progress::kAll;
    {
      const MutexLock lock(mWriteMutex);
      {
        const MutexLock tls(mTlsMutex);
        TakeIn();
        ERR_clear_error();
        const int result = SSL_do_handshake(mSsl.get());
        mIsShaken = result == 1;
        if (!mIsShaken && SSL_get_error(mSsl.get(), result) != SSL_ERROR_WANT_READ) {
          problem = mVerdict == X509_V_OK
                        ? TakeTlsError()
                        : "its certificate (" + mRefused + ") " + WhatIsWrongWithCertificate(mVerdict);
        }
        if (!problem.empty() && mIsServer && mRecords.sealed.empty() && mGoing.empty()) {
          mRecords.sealed.assign(kNotTlsAlert.begin(), kNotTlsAlert.end());
        }
        mGoing.insert(mGoing.end(), mRecords.sealed.begin(), mRecords.sealed.end());
        mRecords.sealed.clear();
      }
      sent = SendRecords();  // What is wrong, too.
    }
    if (!problem.empty()) {
      throw std::runtime_error(problem);
    }
    if (sent == Progress::kNone) {
      return Shaken::kWantsToWrite;
    }
    if (mIsShaken) {
      return Shaken::kDone;
    }
    switch (Receive()) {
      case Received::kSome:
        break;
      case Received::kNone:
        return Shaken::kWantsToRead;
      case Received::kEnd:
      case Received::kFailed:
        throw std::runtime_error(mIsServer ? kClientLeft : kServerLeft);
    }
  }
}

std::string TlsStream::Peer() const {
  const MutexLock lock(mTlsMutex);
  return SubjectOf(SSL_get0_peer_certificate(mSsl.get()));
}

bool TlsStream::HasBytes() const {
  const MutexLock lock(mTlsMutex);
  return !mRecords.unopened.empty() || SSL_has_pending(mSsl.get()) == 1;
}

TlsStream::Result TlsStream::Read(std::span<const IoPiece> pieces, std::size_t& count) {
  while (true) {
    count = mIsDry ? 0 : OpenRecords(pieces);
    if (count > 0 || mEnd != Result::kOk) {
      return count > 0 ? Result::kOk : mEnd;
    }
    if (!WaitFor(In(), kReadable)) {
      return Result::kStopped;
    }
    switch (Receive()) {
      case Received::kSome:
      case Received::kNone:
        break;
      case Received::kEnd:
        mError = "it was cut off: its side did not end the connection itself";
        mEnd = Result::kFailed;
        break;
      case Received::kFailed:
        mError = FdErrorText(LastFdError());
        mEnd = Result::kFailed;
        break;
    }
  }
}

TlsStream::Received TlsStream::Receive() {
  const std::ptrdiff_t count = ReceiveNow(In(), mReceived.get(), kReceiveBytes);
  if (count == 0) {
    return Received::kEnd;
  }
  if (count < 0) {
    const int error = LastFdError();
    return error == kErrorWouldWait || error == kErrorInterrupted ? Received::kNone : Received::kFailed;
  }
  mArrived = {mReceived.get(), static_cast<std::size_t>(count)};
  mIsDry = false;
  return Received::kSome;
}

void TlsStream::TakeIn() {
  if (!mArrived.empty()) {
    mRecords.unopened = std::exchange(mArrived, {});
  }
}

std::size_t TlsStream::OpenRecords(std::span<const IoPiece> pieces) {
  const MutexLock lock(mTlsMutex);
  TakeIn();
  ERR_clear_error();
  std::size_t count = 0;
  for (const IoPiece& piece : pieces) {
    std::span<std::uint8_t> room = BytesOf(piece);
    while (!room.empty() && mEnd == Result::kOk) {
      std::size_t opened = 0;
      const int result = SSL_read_ex(mSsl.get(), room.data(), room.size(), &opened);
      if (result == 1) {
        room = room.subspan(opened);
        count += opened;
        continue;
      }
      switch (SSL_get_error(mSsl.get(), result)) {
        case SSL_ERROR_WANT_READ:
          mIsDry = true;
          return count;
        case SSL_ERROR_ZERO_RETURN:
          mEnd = Result::kEnd;
          break;
        default:
          mError = TakeTlsError();
          mEnd = Result::kFailed;
          break;
      }
    }
  }
  return count;
}

bool TlsStream::SealRecords(std::span<IoPiece>& pieces) {
  mGoing.clear();
  mGone = 0;
  const MutexLock lock(mTlsMutex);
  if (mRecords.sealed.empty()) {
    mGoing.swap(mRecords.sealed);  // The block that was used last is the one that the processor still has at hand.
  }
  ERR_clear_error();
  while (!pieces.empty() && mRecords.sealed.size() < kBatchBytes) {
    std::span<const std::uint8_t> next = BytesOf(pieces.front());
    const bool gathered = pieces.size() > 1 && next.size() < kRecordBytes;
    if (gathered) {
      mGathered.clear();
      while (!pieces.empty() && mGathered.size() < kRecordBytes) {
        const std::span<const std::uint8_t> bytes = BytesOf(pieces.front());
        const std::size_t count = std::min(bytes.size(), kRecordBytes - mGathered.size());
        mGathered.insert(mGathered.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
        pieces = Behind(pieces, count);
      }
      next = mGathered;
    }
    std::size_t count = 0;  // Of one record, where there is more.
    if (!next.empty() && SSL_write_ex(mSsl.get(), next.data(), next.size(), &count) != 1) {
      return false;
    }
    if (!gathered) {
      pieces = Behind(pieces, count);
    }
  }
  mGoing.swap(mRecords.sealed);
  return true;
}

TlsStream::Progress TlsStream::WriteSome(std::span<IoPiece>& pieces) {
  if (mGone == mGoing.size() && !SealRecords(pieces)) {
    return Progress::kFailed;
  }
  const Progress sent = SendRecords();
  return sent == Progress::kAll && !pieces.empty() ? Progress::kSome : sent;
}

TlsStream::Progress TlsStream::SendRecords() {
  while (mGone < mGoing.size()) {
    const std::ptrdiff_t count = SendNow(Out(), mGoing.data() + mGone, mGoing.size() - mGone);
    if (count >= 0) {
      mGone += static_cast<std::size_t>(count);
    } else if (const int error = LastFdError(); error != kErrorInterrupted) {
      return error == kErrorWouldWait ? Progress::kNone : Progress::kFailed;
    }
  }
  return Progress::kAll;
}

}  // namespace vel
