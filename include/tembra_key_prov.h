/* TembraKeyProv: the device key provider's interface for hosts.
 *
 * Every object is an opaque handle. Results: 1 success (also the answer to a
 * length query made with a null output buffer), 0 failure of the token, the
 * host library, memory or the device state, negative values as tabled below.
 * Output buffers: the needed length is stored through the `pret...len`
 * pointer first; a null buffer makes the call a length query; a short buffer
 * returns ORVEL_PKI_MOREDATA (-4) and is left untouched. */
#ifndef TEMBRA_KEY_PROV_H
#define TEMBRA_KEY_PROV_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(TEMBRA_KEY_PROV_BUILDING) && !defined(_WIN32)
#define TEMBRA_API __attribute__((visibility("default")))
#else
#define TEMBRA_API
#endif

typedef struct DeviceSet *SPI_DEVICESET_HANDLE;
typedef struct Device *SPI_DEVICE_HANDLE;
typedef struct Keypair *SPI_KEYPAIR_HANDLE;
typedef struct PublicKey *SPI_PUBLICKEY_HANDLE;
typedef struct HashContext *SPI_HASH_HANDLE;
typedef struct CipherContext *SPI_CIPHER_HANDLE;

/* Key pair types. */
#define ORVEL_PKI_KEYPAIRTYPE_ENCRYPT 1
#define ORVEL_PKI_KEYPAIRTYPE_SIGNATURE 2

/* Algorithms. */
#define ORVEL_PKI_ALGORITHM_RSA 1
#define ORVEL_PKI_ALGORITHM_ECC 4
#define ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC 0x10
#define ORVEL_PKI_ALGORITHM_SM2_ENC 0x40
#define ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN 0x100
#define ORVEL_PKI_ALGORITHM_SM2_SIGN 0x1000
#define ORVEL_PKI_ALGORITHM_SM3 0x7000
#define ORVEL_PKI_ALGORITHM_SSF33_ECB 0x03000000
#define ORVEL_PKI_ALGORITHM_SSF33_CBC 0x03400000
#define ORVEL_PKI_ALGORITHM_SM1_ECB 0x03C00000
#define ORVEL_PKI_ALGORITHM_SM1_CBC 0x04000000
#define ORVEL_PKI_ALGORITHM_SMS4_ECB 0x04800000
#define ORVEL_PKI_ALGORITHM_SMS4_CBC 0x04C00000

#define ORVEL_PKI_ECC_CURVE_SM2 7

/* Usages (capability query). */
#define ORVEL_PKI_USAGE_ENCRYPT 1
#define ORVEL_PKI_USAGE_DECRYPT 2
#define ORVEL_PKI_USAGE_HASH 3
#define ORVEL_PKI_USAGE_SIGN 5
#define ORVEL_PKI_USAGE_GENKEYPAIR 7
#define ORVEL_PKI_USAGE_IMPORTKEYPAIR 11

/* Results. */
#define ORVEL_PKI_OK 1
#define ORVEL_PKI_FAIL 0
#define ORVEL_PKI_BADARGUMENT (-1)
#define ORVEL_PKI_NULLHANDLE (-2)
#define ORVEL_PKI_MOREDATA (-4)
#define ORVEL_PKI_WRONGPIN (-5)
#define ORVEL_PKI_EXISTS (-6)
#define ORVEL_PKI_NOTEXISTS (-7)
#define ORVEL_PKI_NOTLOGGEDIN (-8)
#define ORVEL_PKI_PINLENRANGE (-19)

/* ECC key generation parameters. */
typedef struct ORVEL_PKI_ECC_PARAM {
  int m_curve; /* ORVEL_PKI_ECC_CURVE_SM2 */
  int m_temp;  /* 0 */
} ORVEL_PKI_ECC_PARAM;

/* ---- Lifecycle ----------------------------------------------------- */
TEMBRA_API int DeviceInit(void);
TEMBRA_API int DeviceEnd(void);

/* ---- Device set and devices ---------------------------------------- */
TEMBRA_API SPI_DEVICESET_HANDLE DeviceGetAllDevices(void);
TEMBRA_API int DeviceGetDeviceCount(SPI_DEVICESET_HANDLE hDeviceSet);
TEMBRA_API SPI_DEVICE_HANDLE DeviceGetDevice(SPI_DEVICESET_HANDLE hDeviceSet, int index);
TEMBRA_API int DeviceFreeDevices(SPI_DEVICESET_HANDLE hDeviceSet);
TEMBRA_API int DeviceFreeDevice(SPI_DEVICE_HANDLE hDevice);
TEMBRA_API int DeviceGetSerialNumber(SPI_DEVICE_HANDLE hDevice, char *sn, int snlen,
                                     int *pretsnlen);
TEMBRA_API int DeviceGetLabel(SPI_DEVICE_HANDLE hDevice, char *label, int labellen,
                              int *pretlabellen);
TEMBRA_API int DeviceLockDevice(SPI_DEVICE_HANDLE hDevice);
TEMBRA_API int DeviceUnlockDevice(SPI_DEVICE_HANDLE hDevice);

/* ---- Key pairs ----------------------------------------------------- */
TEMBRA_API int DeviceGetKeypairCount(SPI_DEVICE_HANDLE hDevice);
TEMBRA_API SPI_KEYPAIR_HANDLE DeviceGetKeypair(SPI_DEVICE_HANDLE hDevice, int index);
TEMBRA_API int DeviceFindKeypair(SPI_DEVICE_HANDLE hDevice, int type, const char *label,
                                 SPI_KEYPAIR_HANDLE *phKeypair);
TEMBRA_API int DeviceFreeKeypair(SPI_KEYPAIR_HANDLE hKeypair);
TEMBRA_API int DeviceGetKeypairLabel(SPI_KEYPAIR_HANDLE hKeypair, char *label, int labellen,
                                     int *pretlabellen);
TEMBRA_API int DeviceGetKeypairType(SPI_KEYPAIR_HANDLE hKeypair);
TEMBRA_API int DeviceGetKeypairAlgorithm(SPI_KEYPAIR_HANDLE hKeypair);
TEMBRA_API int DeviceGetKeypairBits(SPI_KEYPAIR_HANDLE hKeypair);

/* ---- Public keys --------------------------------------------------- */
TEMBRA_API SPI_PUBLICKEY_HANDLE DeviceGetPublicKeyFromKeypair(SPI_KEYPAIR_HANDLE hKeypair);
TEMBRA_API int DeviceExportPublicKey(SPI_PUBLICKEY_HANDLE hPublicKey, unsigned char *keyblob,
                                     int keybloblen, int *pretkeybloblen);
TEMBRA_API int DeviceGetPublicKeyAlgorithm(SPI_PUBLICKEY_HANDLE hPublicKey);
TEMBRA_API int DeviceGetPublicKeyBits(SPI_PUBLICKEY_HANDLE hPublicKey);
TEMBRA_API int DeviceFreePublicKey(SPI_PUBLICKEY_HANDLE hPublicKey);

/* ---- Certificates -------------------------------------------------- */
TEMBRA_API int DeviceGetCertificateCount(SPI_KEYPAIR_HANDLE hKeypair);
TEMBRA_API int DeviceGetCertificate(SPI_KEYPAIR_HANDLE hKeypair, int index,
                                    unsigned char *certblob, int certbloblen,
                                    int *pretcertbloblen);
TEMBRA_API int DeviceUpdateCertificate(SPI_KEYPAIR_HANDLE hKeypair, const unsigned char *certblob,
                                       int certbloblen);

/* ---- Private-key operations ---------------------------------------- */
TEMBRA_API int DeviceSign(SPI_KEYPAIR_HANDLE hKeypair, int algo, const void *param,
                          const unsigned char *tbs, int tbslen, unsigned char *sign, int signlen,
                          int *pretsignlen);
TEMBRA_API int DevicePrivateKeyDecrypt(SPI_KEYPAIR_HANDLE hKeypair, int algo, const void *param,
                                       const unsigned char *cipher, int cipherlen,
                                       unsigned char *clear, int clearlen, int *pretclearlen);

/* ---- PINs and device authentication -------------------------------- */
/* type 1 user PIN, 2 administrator PIN, 3 device-authentication key (verify
 * only, 32 characters of text). */
TEMBRA_API int DeviceVerifyPwd(SPI_DEVICE_HANDLE hDevice, int type, const char *pwd,
                               int *pretrynum);
TEMBRA_API int DeviceChangePwd(SPI_DEVICE_HANDLE hDevice, int type, const char *oldpwd,
                               const char *newpwd, int *pretrynum);
TEMBRA_API int DeviceUnlockPwd(SPI_DEVICE_HANDLE hDevice, int type, const char *sopwd,
                               const char *newpwd, int *pretrynum);
TEMBRA_API int DeviceGetPwdRetryNum(SPI_DEVICE_HANDLE hDevice, int type, int *pretrynum);

/* ---- Key pair generation, deletion and import ----------------------- */
TEMBRA_API int DeviceGenerateKeypair(SPI_DEVICE_HANDLE hDevice, int algo, int keybits,
                                     const void *param, int type, const char *label,
                                     SPI_KEYPAIR_HANDLE *phKeypair);
TEMBRA_API int DeviceDeleteKeypair(SPI_KEYPAIR_HANDLE hKeypair);
TEMBRA_API int DeviceImportKeypair(SPI_DEVICE_HANDLE hDevice, const unsigned char *keyblob,
                                   int keybloblen, int type, const char *label,
                                   SPI_KEYPAIR_HANDLE *phKeypair);

/* ---- Random numbers and hashing ------------------------------------ */
TEMBRA_API int DeviceGenerateRandom(SPI_DEVICE_HANDLE hDevice, int len, unsigned char *rand);
TEMBRA_API SPI_HASH_HANDLE DeviceNewHash(SPI_DEVICE_HANDLE hDevice, int algo);
TEMBRA_API int DeviceHashUpdate(SPI_HASH_HANDLE hHash, const unsigned char *data, int datalen);
TEMBRA_API int DeviceHashFinal(SPI_HASH_HANDLE hHash, unsigned char *hashvalue, int hashvaluelen,
                               int *prethashvaluelen);
TEMBRA_API int DeviceFreeHash(SPI_HASH_HANDLE hHash);

/* ---- Symmetric ciphers --------------------------------------------- */
/* For the CBC algorithms `param` points to the 16-byte IV. */
TEMBRA_API SPI_CIPHER_HANDLE DeviceNewCipher(SPI_DEVICE_HANDLE hDevice, int enc, int algo,
                                             const unsigned char *key, int keylen,
                                             const void *param);
TEMBRA_API int DeviceCipherUpdate(SPI_CIPHER_HANDLE hCipher, const unsigned char *in, int inlen,
                                  unsigned char *out, int outlen, int *pretoutlen);
TEMBRA_API int DeviceFreeCipher(SPI_CIPHER_HANDLE hCipher);

/* ---- Data objects -------------------------------------------------- */
TEMBRA_API int DeviceCreateData(SPI_DEVICE_HANDLE hDevice, int dataId, const char *mode,
                                int length);
TEMBRA_API int DeviceReadDataEx(SPI_DEVICE_HANDLE hDevice, int dataId, int offset,
                                unsigned char *data, int datalen, int *pretdatalen);
TEMBRA_API int DeviceWriteDataEx(SPI_DEVICE_HANDLE hDevice, int dataId, int offset,
                                 const unsigned char *data, int datalen);
TEMBRA_API int DeviceDeleteData(SPI_DEVICE_HANDLE hDevice, int dataId);

/* ---- Capabilities -------------------------------------------------- */
/* 1 supported, 0 not supported. */
TEMBRA_API int DeviceIsSupportedAlgorithm2(SPI_DEVICE_HANDLE hDevice, int algo, int keyLen,
                                           int usage, const void *param);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TEMBRA_KEY_PROV_H */
