#include "remote/TlsText.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <memory>

namespace vel {
namespace {

constexpr std::size_t kMaxSubject = 200;

constexpr char kNoTls[] = "it does not speak TLS (tls://HOST:PORT is for \"serve --tls DIR\", tcp:// for one without)";
constexpr char kTooOld[] = "it speaks no TLS 1.3";
constexpr char kNotCertified[] = "it refuses this side's certificate, which is not of the authority in its ca-cert.pem";

struct Text {
  int code;
  const char* text;
};

constexpr std::array kReasons = {
    Text{SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE, "it shows no certificate"},
    Text{SSL_R_WRONG_VERSION_NUMBER, kNoTls},
    Text{SSL_R_HTTP_REQUEST, kNoTls},
    Text{SSL_R_HTTPS_PROXY_REQUEST, kNoTls},
    Text{SSL_R_PACKET_LENGTH_TOO_LONG, kNoTls},
    Text{SSL_R_ENCRYPTED_LENGTH_TOO_LONG, kNoTls},
    Text{SSL_R_BAD_RECORD_TYPE, kNoTls},
    Text{SSL_R_UNEXPECTED_MESSAGE, kNoTls},
    Text{SSL_R_UNSUPPORTED_PROTOCOL, kTooOld},
    Text{SSL_R_TLSV1_ALERT_PROTOCOL_VERSION, kTooOld},
    Text{SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED, "it wants a certificate of this side"},
    Text{SSL_R_TLSV1_ALERT_UNKNOWN_CA, kNotCertified},
    Text{SSL_R_TLSV1_ALERT_DECRYPT_ERROR, kNotCertified},
    Text{SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED, "it refuses this side's certificate as expired (is its clock right?)"},
    Text{SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED, "it refuses this side's certificate as revoked"},
    Text{SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE, "it refuses this side's certificate as made for another use"},
    Text{SSL_R_SSLV3_ALERT_BAD_CERTIFICATE, "it refuses this side's certificate"},
    Text{SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN, "it refuses this side's certificate"},
};

constexpr char kForeign[] = "is not of the authority in ca-cert.pem";
constexpr char kOtherName[] = "is for another name than the one asked for (its subjectAltName has to have that)";

constexpr std::array kVerdicts = {
    Text{X509_V_ERR_CERT_HAS_EXPIRED, "has expired"},
    Text{X509_V_ERR_CERT_NOT_YET_VALID, "is not valid yet (are the clocks right?)"},
    Text{X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, "is signed by itself, not by the authority in ca-cert.pem"},
    Text{X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, kForeign},
    Text{X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, kForeign},
    Text{X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, kForeign},
    Text{X509_V_ERR_CERT_SIGNATURE_FAILURE, kForeign},  // One of the same name.
    Text{X509_V_ERR_INVALID_PURPOSE, "is made for another use (its extendedKeyUsage says which)"},
    Text{X509_V_ERR_HOSTNAME_MISMATCH, kOtherName},
    Text{X509_V_ERR_IP_ADDRESS_MISMATCH, kOtherName},
    Text{X509_V_ERR_CERT_REVOKED, "was revoked (ca-crl.pem)"},
    Text{X509_V_ERR_CRL_HAS_EXPIRED, "cannot be judged: ca-crl.pem is out of date"},
};

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

}  // namespace

std::string TakeTlsError() {
  const unsigned long error = ERR_get_error();
  ERR_clear_error();
  const int reason = ERR_GET_REASON(error);
  const auto* const found = std::ranges::find(kReasons, reason, &Text::code);
  if (ERR_GET_LIB(error) == ERR_LIB_SSL && found != kReasons.end()) {
    return found->text;
  }
  const char* const text = ERR_reason_error_string(error);
  return std::string("TLS failed: ") + (text != nullptr ? text : "error " + std::to_string(error));
}

std::string WhatIsWrongWithCertificate(int code) {
  const auto* const found = std::ranges::find(kVerdicts, code, &Text::code);
  return found != kVerdicts.end() ? found->text : std::string("is not good: ") + X509_verify_cert_error_string(code);
}

std::string SubjectOf(const X509* certificate) {
  const std::unique_ptr<BIO, BioDeleter> out(BIO_new(BIO_s_mem()));
  if (out == nullptr || certificate == nullptr) {
    return "?";
  }
  // Escapes what is no printable ASCII.
  X509_NAME_print_ex(out.get(), X509_get_subject_name(certificate), 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_QUOTE);
  char* text = nullptr;
  const auto length = static_cast<std::size_t>(std::max(BIO_get_mem_data(out.get(), &text), 0L));
  return length == 0 ? "no name" : std::string(text, std::min(length, kMaxSubject));
}

}  // namespace vel
