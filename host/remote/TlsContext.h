#ifndef VIRTUSB_HOST_REMOTE_TLS_CONTEXT_H
#define VIRTUSB_HOST_REMOTE_TLS_CONTEXT_H

#include <openssl/types.h>

#include <memory>
#include <string>

namespace vel {

struct SslContextDeleter {
  void operator()(SSL_CTX* context) const;
};

// What one side of a TLS connection shows and whom it believes: certificates in a folder as QEMU and libvirt have it.
// TLS 1.3 with certificates both ways, and nothing else. Any thread.
class TlsContext {
 public:
  enum class Side { kServer, kClient };

  // Reads ca-cert.pem, of the side server-cert.pem and server-key.pem or client-cert.pem and client-key.pem, and
  // ca-crl.pem where there is one. Throws std::runtime_error, with a text for people, when one cannot be used: it is
  // missing, the key may be read by others than its owner, or the certificate would be refused by everybody.
  TlsContext(const std::string& folder, Side side);

  SSL_CTX* Get() const { return mContext.get(); }
  Side GetSide() const { return mSide; }

 private:
  void TakeAuthority(const std::string& folder) const;
  void TakeKey(const std::string& path) const;
  // Finds what every other side would find wrong with this one's certificate.
  void CheckOwn(const std::string& path) const;

  const Side mSide;
  const std::unique_ptr<SSL_CTX, SslContextDeleter> mContext;
};

}  // namespace vel

#endif
