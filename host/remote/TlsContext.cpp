#include "remote/TlsContext.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

#include "os/Files.h"
#include "remote/TlsText.h"

namespace vel {
namespace {

// The first costs the least with a processor's own instructions for it.
constexpr char kCipherSuites[] = "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

struct StoreContextDeleter {
  void operator()(X509_STORE_CTX* context) const { X509_STORE_CTX_free(context); }
};

FileHandle Open(const std::string& path) {
  FileHandle file = OpenFile(path, "r");
  if (file == nullptr) {
    throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno) + " (--tls names its folder)");
  }
  return file;
}

// Nobody is there to be asked.
int NoPassphrase(char* /*buffer*/, int /*size*/, int /*isWrite*/, void* /*user*/) {
  return -1;
}

}  // namespace

void SslContextDeleter::operator()(SSL_CTX* context) const {
  SSL_CTX_free(context);
}

TlsContext::TlsContext(const std::string& folder, Side side) : mSide(side), mContext(SSL_CTX_new(TLS_method())) {
  if (mContext == nullptr) {
    throw std::bad_alloc();
  }
  SSL_CTX* const context = mContext.get();
  SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
  SSL_CTX_set_ciphersuites(context, kCipherSuites);
  // Connections are long: nothing is gained by resuming one.
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(context, 0);
  SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);

  const std::string own = folder + (side == Side::kServer ? "/server" : "/client");
  TakeAuthority(folder);
  static_cast<void>(Open(own + "-cert.pem"));
  if (SSL_CTX_use_certificate_chain_file(context, (own + "-cert.pem").c_str()) != 1) {
    throw std::runtime_error(own + "-cert.pem holds no certificate: " + TakeTlsError());
  }
  TakeKey(own + "-key.pem");
  CheckOwn(own + "-cert.pem");
}

void TlsContext::TakeAuthority(const std::string& folder) const {
  const std::string authority = folder + "/ca-cert.pem";
  static_cast<void>(Open(authority));
  if (SSL_CTX_load_verify_file(mContext.get(), authority.c_str()) != 1) {
    throw std::runtime_error(authority + " holds no certificate: " + TakeTlsError());
  }
  const std::string revoked = folder + "/ca-crl.pem";
  if (const FileHandle found = OpenFile(revoked, "r"); found == nullptr && errno == ENOENT) {
    return;
  } else if (found != nullptr) {
    X509_STORE* const store = SSL_CTX_get_cert_store(mContext.get());
    if (X509_load_crl_file(X509_STORE_add_lookup(store, X509_LOOKUP_file()), revoked.c_str(), X509_FILETYPE_PEM) > 0) {
      X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
      return;
    }
  }
  throw std::runtime_error(revoked + " is there, but holds no list of revoked certificates that can be read");
}

void TlsContext::TakeKey(const std::string& path) const {
  const FileHandle file = Open(path);
  if (const std::string advice = HowToKeepForOwner(file.get(), path); !advice.empty()) {
    throw std::runtime_error(path + " is not its owner's alone: whoever reads it can pass for this side (" + advice +
                             ")");
  }
  const std::unique_ptr<EVP_PKEY, KeyDeleter> key(PEM_read_PrivateKey(file.get(), nullptr, &NoPassphrase, nullptr));
  if (key == nullptr) {
    throw std::runtime_error(path + " holds no key without a passphrase: " + TakeTlsError());
  }
  if (SSL_CTX_use_PrivateKey(mContext.get(), key.get()) != 1) {
    throw std::runtime_error(path + " is not the key of the certificate beside it: " + TakeTlsError());
  }
}

void TlsContext::CheckOwn(const std::string& path) const {
  STACK_OF(X509)* chain = nullptr;
  SSL_CTX_get0_chain_certs(mContext.get(), &chain);
  const std::unique_ptr<X509_STORE_CTX, StoreContextDeleter> check(X509_STORE_CTX_new());
  if (check == nullptr || X509_STORE_CTX_init(check.get(), SSL_CTX_get_cert_store(mContext.get()),
                                              SSL_CTX_get0_certificate(mContext.get()), chain) != 1) {
    throw std::bad_alloc();
  }
  X509_STORE_CTX_set_default(check.get(), mSide == Side::kServer ? "ssl_server" : "ssl_client");
  if (X509_verify_cert(check.get()) != 1) {
    throw std::runtime_error(path + " " + WhatIsWrongWithCertificate(X509_STORE_CTX_get_error(check.get())));
  }
}

}  // namespace vel
