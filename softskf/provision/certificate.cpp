// makeCertificate: a minimal X.509 v3 certificate for a container's key,
// signed on the token with the container's signature key (SM2 with SM3 over
// SM3(Z || tbsCertificate), or sha256WithRSAEncryption).
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "crypto/backend.h"
#include "crypto/der.h"
#include "crypto/key_formats.h"
#include "crypto/sm2_z.h"
#include "softskf/provision/container_keys.h"
#include "softskf/provision/provision.h"

namespace tembra {
namespace provision {
namespace {

using der::Bytes;

const char kOidCommonName[] = "2.5.4.3";
const char kOidOrganizationalUnit[] = "2.5.4.11";
const char kOidBasicConstraints[] = "2.5.29.19";
const char kOidKeyUsage[] = "2.5.29.15";

// DigestInfo of SHA-256 up to the digest itself (PKCS #1).
const uint8_t kSha256DigestInfoPrefix[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60,
                                           0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                           0x01, 0x05, 0x00, 0x04, 0x20};

// The OIDs above are constants; a malformed one is a programming error that
// the certificate tests catch.
Bytes oid(const char *dotted) {
  Bytes out;
  der::oid(dotted, out);
  return out;
}

Bytes algorithmIdentifier(bool sm2) {
  if (sm2) return der::sequence({oid(crypto::kOidSm2WithSm3)});
  return der::sequence({oid(crypto::kOidSha256WithRsa), der::null()});
}

Bytes relativeName(const char *type, const std::string &value) {
  return der::setOf({der::sequence({oid(type), der::utf8String(value)})});
}

// CN=<commonName>; the encryption key's subject adds OU=Encryption so that
// it differs from its issuer, the signature key's subject.
Bytes name(const std::string &commonName, bool encryptionSubject) {
  std::vector<Bytes> names;
  if (encryptionSubject) names.push_back(relativeName(kOidOrganizationalUnit, "Encryption"));
  names.push_back(relativeName(kOidCommonName, commonName));
  return der::sequence(names);
}

// From now to ten years on (3653 days).
bool validity(Bytes &out) {
  const int64_t now = int64_t(time(nullptr));
  Bytes notBefore;
  Bytes notAfter;
  if (!der::timeChoice(now, notBefore) || !der::timeChoice(now + 3653LL * 86400, notAfter)) {
    return false;
  }
  out = der::sequence({notBefore, notAfter});
  return true;
}

Bytes serialNumber() {
  uint8_t serial[16];
  if (!crypto::randomBytes(serial, sizeof(serial))) return {};
  serial[0] = uint8_t((serial[0] & 0x7F) | 0x40);  // positive, full length
  return der::integer(serial, sizeof(serial));
}

Bytes criticalExtension(const char *type, const Bytes &value) {
  return der::sequence({oid(type), der::boolean(true), der::octetString(value)});
}

// Signature certificate: a CA (it issues the encryption certificate) that
// signs; encryption certificate: key and data encipherment.
Bytes extensions(bool signatureKey) {
  const uint8_t signUsage = 0xC4;     // digitalSignature, nonRepudiation, keyCertSign
  const uint8_t encryptUsage = 0x30;  // keyEncipherment, dataEncipherment
  Bytes basicConstraints =
      signatureKey ? der::sequence({der::boolean(true)}) : der::sequence(std::vector<Bytes>{});
  Bytes keyUsage =
      signatureKey ? der::bitString(&signUsage, 1, 2) : der::bitString(&encryptUsage, 1, 4);
  return der::explicitTag(3,
                          der::sequence({criticalExtension(kOidBasicConstraints, basicConstraints),
                                         criticalExtension(kOidKeyUsage, keyUsage)}));
}

Bytes tbsCertificate(bool sm2, bool signatureKey, const std::string &commonName,
                     const Bytes &subjectPublicKeyInfo) {
  Bytes serial = serialNumber();
  Bytes period;
  if (serial.empty() || !validity(period)) return {};
  return der::sequence({der::explicitTag(0, der::integer(int64_t(2))), serial,
                        algorithmIdentifier(sm2), name(commonName, false), period,
                        name(commonName, !signatureKey), subjectPublicKeyInfo,
                        extensions(signatureKey)});
}

// The signature value (DER SEQUENCE of r and s) over tbs, made on the token.
Bytes signSm2(HCONTAINER container, const crypto::Sm2PublicKey &signatureKey, const Bytes &tbs) {
  uint8_t digest[crypto::kSm3DigestSize];
  if (!crypto::sm2DigestWithZ(signatureKey, crypto::kSm2DefaultId, crypto::kSm2DefaultIdSize,
                              tbs.data(), tbs.size(), digest)) {
    return {};
  }
  ECCSIGNATUREBLOB signature;
  memset(&signature, 0, sizeof(signature));
  if (SKF_ECCSignData(container, digest, sizeof(digest), &signature) != SAR_OK) return {};
  Bytes encoded;
  if (!crypto::encodeSm2Signature(signature.r + 32, signature.s + 32, encoded)) return {};
  return encoded;
}

Bytes signRsa(HCONTAINER container, const Bytes &tbs) {
  uint8_t digestInfo[sizeof(kSha256DigestInfoPrefix) + crypto::kSha256DigestSize];
  memcpy(digestInfo, kSha256DigestInfoPrefix, sizeof(kSha256DigestInfoPrefix));
  if (!crypto::sha256(tbs.data(), tbs.size(), digestInfo + sizeof(kSha256DigestInfoPrefix))) {
    return {};
  }
  Bytes signature(MAX_RSA_MODULUS_LEN);
  ULONG len = ULONG(signature.size());
  if (SKF_RSASignData(container, digestInfo, sizeof(digestInfo), signature.data(), &len) !=
          SAR_OK ||
      len == 0 || len > signature.size()) {
    return {};
  }
  signature.resize(len);
  return signature;
}

}  // namespace

std::vector<uint8_t> makeCertificate(HCONTAINER container, bool signatureKey,
                                     const std::string &commonName) {
  ULONG type = 0;
  if (SKF_GetContainerType(container, &type) != SAR_OK) return {};
  Bytes tbs;
  Bytes signature;
  if (type == CONTAINER_TYPE_ECC) {
    crypto::Sm2PublicKey signingKey;
    crypto::Sm2PublicKey subjectKey;
    if (exportSm2PublicKey(container, true, signingKey) != SAR_OK ||
        exportSm2PublicKey(container, signatureKey, subjectKey) != SAR_OK) {
      return {};
    }
    Bytes spki;
    if (!crypto::encodeSm2Spki(subjectKey, spki)) return {};
    tbs = tbsCertificate(true, signatureKey, commonName, spki);
    if (tbs.empty()) return {};
    signature = signSm2(container, signingKey, tbs);
  } else if (type == CONTAINER_TYPE_RSA) {
    crypto::RsaPublicKey subjectKey;
    if (exportRsaPublicKey(container, signatureKey, subjectKey) != SAR_OK) return {};
    Bytes spki;
    if (!crypto::encodeRsaSpki(subjectKey, spki)) return {};
    tbs = tbsCertificate(false, signatureKey, commonName, spki);
    if (tbs.empty()) return {};
    signature = signRsa(container, tbs);
  } else {
    return {};
  }
  if (signature.empty()) return {};
  return der::sequence(
      {tbs, algorithmIdentifier(type == CONTAINER_TYPE_ECC), der::bitString(signature)});
}

}  // namespace provision
}  // namespace tembra
