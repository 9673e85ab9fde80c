// PKCS #10 certificate requests for `tembra csr`: the subject from its
// "/CN=.../O=..." text, the CertificationRequestInfo to be signed, and the
// request around the signature that the token made over it.
#ifndef TEMBRA_CLI_CSR_H
#define TEMBRA_CLI_CSR_H

#include <stdint.h>

#include <string>
#include <vector>

namespace tembra {
namespace cli {

// The DER Name of a subject written as "/TYPE=value/TYPE=value...", one
// relative name per component, in the order given. Types: CN, O, OU, C, L,
// ST, serialNumber, emailAddress; a backslash takes the next character as
// it is (so "\/" is a slash in a value). Throws UsageError for text that is
// not of this form.
std::vector<uint8_t> subjectName(const std::string &text);

// CertificationRequestInfo: version 0, subject, the public key (a DER
// SubjectPublicKeyInfo) and no attributes.
std::vector<uint8_t> certificationRequestInfo(const std::vector<uint8_t> &subject,
                                              const std::vector<uint8_t> &spki);

// The request: the info, the signature algorithm (SM2 with SM3, or
// sha256WithRSAEncryption) and the signature value (SM2: DER r, s).
std::vector<uint8_t> certificationRequest(const std::vector<uint8_t> &info, bool sm2,
                                          const std::vector<uint8_t> &signature);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_CSR_H
