/* The host framework's crypto library, ORVEL_CRYPTO: the 14 functions the
 * provider calls. Every function returns 1 for success and any other value
 * for failure. Every buffer returned through an `unsigned char **` argument
 * is allocated by the library and released with OrvelPKICryptoFreeMemory.
 *
 * Formats (public keys, signatures, key pairs, ciphertexts) belong to the host
 * library; docs/host-formats.md describes the ones our stand-in produces. */
#ifndef TEMBRA_PLATFORM_ORVEL_CRYPTO_H
#define TEMBRA_PLATFORM_ORVEL_CRYPTO_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(ORVEL_CRYPTO_BUILDING_LIBRARY)
#if defined(_WIN32)
#define ORVEL_CRYPTO_API __declspec(dllexport)
#else
#define ORVEL_CRYPTO_API __attribute__((visibility("default")))
#endif
#else
#define ORVEL_CRYPTO_API
#endif

/* A software device of the host library; opaque. */
typedef void *ORVEL_PKI_DEVICE;
/* A public key imported into the host library; opaque. */
typedef void *ORVEL_PKI_PUBLICKEY;

/* The pseudo device, or null. */
ORVEL_CRYPTO_API ORVEL_PKI_DEVICE OrvelPKICryptoGetPseudoDevice(void);
/* Releases a pseudo device; a null device is accepted. */
ORVEL_CRYPTO_API int OrvelPKICryptoFreeDevice(ORVEL_PKI_DEVICE device);
/* Releases a buffer this library returned; null is accepted. */
ORVEL_CRYPTO_API int OrvelPKICryptoFreeMemory(void *p);

/* RSA public key (big-endian modulus and exponent; leading zero bytes of the
 * exponent allowed) to the host encoding. */
ORVEL_CRYPTO_API int OrvelPKICryptoEncodeRSAPubKey(const unsigned char *modulus, int modulusLen,
                                                   const unsigned char *exponent, int exponentLen,
                                                   unsigned char **out, int *outLen);
/* ECC public key (curve 7 = SM2; x and y big-endian) to the host encoding. */
ORVEL_CRYPTO_API int OrvelPKICryptoEncodeECCPubKey(int curve, const unsigned char *x, int xLen,
                                                   const unsigned char *y, int yLen,
                                                   unsigned char **out, int *outLen);
/* Host-encoded RSA public key to modulus and exponent (both allocated). */
ORVEL_CRYPTO_API int OrvelPKICryptoDecodeRSAPubKey(const unsigned char *in, int inLen,
                                                   unsigned char **modulus, int *modulusLen,
                                                   unsigned char **exponent, int *exponentLen);
/* Host-encoded ECC public key to curve, x and y (x, y allocated). */
ORVEL_CRYPTO_API int OrvelPKICryptoDecodeECCPubKey(const unsigned char *in, int inLen, int *curve,
                                                   unsigned char **x, int *xLen,
                                                   unsigned char **y, int *yLen);
/* SM2 signature (r, s big-endian) to the host signature encoding. */
ORVEL_CRYPTO_API int OrvelPKICryptoEncodeECCSignature(const unsigned char *r, int rLen,
                                                      const unsigned char *s, int sLen,
                                                      unsigned char **out, int *outLen);
/* "_KEYPAIR" blob of an ECC key pair to curve, x, y and private scalar d
 * (all allocated; d is wiped by OrvelPKICryptoFreeMemory as well). */
ORVEL_CRYPTO_API int OrvelPKICryptoDecodeECCKeyPair(const unsigned char *in, int inLen, int *curve,
                                                    unsigned char **x, int *xLen,
                                                    unsigned char **y, int *yLen,
                                                    unsigned char **d, int *dLen);
/* "_KEYPAIR" blob of an RSA key pair to a PKCS#1 RSAPrivateKey DER. */
ORVEL_CRYPTO_API int OrvelPKICryptoRSAPrivKeyToDER(const unsigned char *in, int inLen,
                                                   unsigned char **der, int *derLen);
/* Host-encoded public key into a public key object of the pseudo device. */
ORVEL_CRYPTO_API int OrvelPKICryptoImportPublicKey(ORVEL_PKI_DEVICE device, const unsigned char *in,
                                                   int inLen, ORVEL_PKI_PUBLICKEY *publicKey);
ORVEL_CRYPTO_API int OrvelPKICryptoFreePublicKey(ORVEL_PKI_PUBLICKEY publicKey);
/* algo 0x40 with param -> int 0x7000: SM2, flat C1||C2||C3 output;
 * algo 0x10: RSA PKCS#1 v1.5; anything else fails. */
ORVEL_CRYPTO_API int OrvelPKICryptoPublicKeyEncrypt(ORVEL_PKI_PUBLICKEY publicKey, int algo,
                                                    const void *param, const unsigned char *in,
                                                    int inLen, unsigned char **out, int *outLen);
ORVEL_CRYPTO_API int OrvelPKICryptoGenerateRandom(ORVEL_PKI_DEVICE device, int len,
                                                  unsigned char *out);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TEMBRA_PLATFORM_ORVEL_CRYPTO_H */
