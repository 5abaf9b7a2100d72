// What OpenSSL finds wrong, as one line for people.
#ifndef VIRTUSB_HOST_REMOTE_TLS_TEXT_H
#define VIRTUSB_HOST_REMOTE_TLS_TEXT_H

#include <openssl/types.h>

#include <string>

namespace vel {

// Why the last call of this thread failed, which is forgotten then: "it ..." where the other side is to blame.
std::string TakeTlsError();

// What a certificate that was refused with this code (X509_V_ERR_...) is or is not, to be put behind its name.
std::string WhatIsWrongWithCertificate(int code);

// Whose a certificate is, from outside: bounded, and without control characters.
std::string SubjectOf(const X509* certificate);

}  // namespace vel

#endif
