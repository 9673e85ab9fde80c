// provider/records.cpp against recording fakes of the token and host
// library: destruction order, the release rule, the handle arrays.
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "provider/records.h"
#include "tests/provider_core/fake_token.h"

namespace {

class RecordsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { InitializeCriticalSection(&g_lock); }
  static void TearDownTestSuite() { DeleteCriticalSection(&g_lock); }
  void SetUp() override { fake::calls().clear(); }
};

template <typename T>
T *zeroed() {
  return static_cast<T *>(calloc(1, sizeof(T)));
}

char *heapText(const char *text) {
  char *copy = static_cast<char *>(malloc(strlen(text) + 1));
  strcpy(copy, text);
  return copy;
}

Container *fullContainer() {
  Container *c = zeroed<Container>();
  c->m_label = heapText("SM2Container");
  c->m_hContainer = fake::handle("C1");
  c->m_encPubKey = fake::hostBuffer("encPub1");
  c->m_encPubKeyLen = 8;
  c->m_encCert = static_cast<unsigned char *>(malloc(16));
  c->m_encCertLen = 16;
  c->m_signPubKey = fake::hostBuffer("signPub1");
  c->m_signPubKeyLen = 9;
  c->m_signCert = static_cast<unsigned char *>(malloc(16));
  c->m_signCertLen = 16;
  return c;
}

Keypair *keypair(Device *device, int index) {
  Keypair *k = zeroed<Keypair>();
  k->m_device = device;
  k->m_index = index;
  k->m_label = heapText("label");
  return k;
}

TEST_F(RecordsTest, FreeDeviceReleasesEverythingInOrder) {
  Device *device = zeroed<Device>();
  device->m_hDev = fake::handle("D1");
  device->m_isformat = 1;
  device->m_hApp = fake::handle("A1");
  device->m_serialNumber = static_cast<char *>(calloc(SERIAL_NUMBER_BUFFER, 1));
  device->m_containers[0] = fullContainer();
  Container *bare = zeroed<Container>();  // never opened, no keys
  bare->m_label = heapText("Empty");
  device->m_containers[1] = bare;
  device->m_containerCount = 2;
  device->m_keypairs[0] = keypair(device, 0);
  device->m_keypairs[1] = keypair(device, 0);
  device->m_keypairCount = 2;

  HashContext *open = zeroed<HashContext>();
  open->m_device = device;
  open->m_hHash = fake::handle("H1");
  HashContext *closed = zeroed<HashContext>();  // handle already closed
  closed->m_device = device;
  for (HashContext *hash : {open, closed}) {
    ASSERT_EQ(appendHandle(reinterpret_cast<void ***>(&device->m_hashes), &device->m_hashAllocCount,
                           device->m_hashCount, hash),
              1);
    ++device->m_hashCount;
  }
  CipherContext *cipher = zeroed<CipherContext>();
  cipher->m_device = device;
  cipher->m_hKey = fake::handle("K1");
  ASSERT_EQ(appendHandle(reinterpret_cast<void ***>(&device->m_ciphers),
                         &device->m_cipherAllocCount, device->m_cipherCount, cipher),
            1);
  ++device->m_cipherCount;

  freeDevice(device);
  EXPECT_EQ(fake::calls(), (std::vector<std::string>{
                               "SKF_CloseContainer C1",
                               "OrvelPKICryptoFreeMemory encPub1",
                               "OrvelPKICryptoFreeMemory signPub1",
                               "SKF_CloseHandle H1",
                               "SKF_CloseHandle K1",
                               "SKF_CloseApplication A1",
                               "SKF_DisConnectDev D1",
                           }));
}

TEST_F(RecordsTest, UnformattedDeviceStillClosesApplicationAndDisconnects) {
  Device *device = zeroed<Device>();
  device->m_hDev = fake::handle("D2");
  device->m_serialNumber = static_cast<char *>(calloc(SERIAL_NUMBER_BUFFER, 1));
  freeDevice(device);
  EXPECT_EQ(fake::calls(),
            (std::vector<std::string>{"SKF_CloseApplication null", "SKF_DisConnectDev D2"}));
}

TEST_F(RecordsTest, NullRecordsAreIgnored) {
  freeDevice(nullptr);
  freeContainer(nullptr);
  freeHashContext(nullptr);
  freeCipherContext(nullptr);
  EXPECT_TRUE(fake::calls().empty());
  EXPECT_EQ(releaseDeviceReference(nullptr).m_destroy, 0);
}

// ---- The release rule ----------------------------------------------------

struct ReleaseCase {
  const char *name;
  int32_t refCount;
  int32_t keypairs;
  int32_t hashes;
  int32_t ciphers;
  int destroy;
};
void PrintTo(const ReleaseCase &c, std::ostream *os) {
  *os << c.name;
}

class ReleaseRuleTest : public RecordsTest, public ::testing::WithParamInterface<ReleaseCase> {};

TEST_P(ReleaseRuleTest, DestroysWhenOnlyOwnedReferencesRemain) {
  const ReleaseCase &c = GetParam();
  Device device;
  memset(&device, 0, sizeof device);
  device.m_refCount = c.refCount;
  device.m_keypairCount = c.keypairs;
  device.m_hashCount = c.hashes;
  device.m_cipherCount = c.ciphers;

  DeviceRelease seen = releaseDeviceReference(&device);
  EXPECT_EQ(seen.m_destroy, c.destroy);
  EXPECT_EQ(device.m_refCount, c.refCount - 1);
  EXPECT_EQ(seen.m_refCount, c.refCount - 1);
  EXPECT_EQ(seen.m_keypairCount + seen.m_hashCount + seen.m_cipherCount,
            c.keypairs + c.hashes + c.ciphers);
  EXPECT_TRUE(fake::calls().empty());  // the caller destroys, after the lock

  // The lock is free again for another thread.
  std::atomic<bool> acquired{false};
  std::thread other([&acquired] {
#ifdef _WIN32
    if (TryEnterCriticalSection(&g_lock)) {
#else
    if (pthread_mutex_trylock(&g_lock.mutex) == 0) {
#endif
      acquired = true;
      LeaveCriticalSection(&g_lock);
    }
  });
  other.join();
  EXPECT_TRUE(acquired);
}

INSTANTIATE_TEST_SUITE_P(Cases, ReleaseRuleTest,
                         ::testing::Values(
                             // The set's reference on a device with three key pairs.
                             ReleaseCase{"SetOfThreeKeypairs", 4, 3, 0, 0, 1},
                             // A device handle from DeviceGetDevice outlives the set's release.
                             ReleaseCase{"HandleStillHeld", 5, 3, 0, 0, 0},
                             // Hash and cipher handles are counted on both sides: they do not
                             // keep the device alive.
                             ReleaseCase{"HashesDoNotKeepAlive", 4, 1, 2, 0, 1},
                             ReleaseCase{"CiphersDoNotKeepAlive", 3, 0, 0, 2, 1},
                             ReleaseCase{"MixedStillHeld", 6, 2, 1, 1, 0},
                             ReleaseCase{"EmptyDevice", 1, 0, 0, 0, 1}),
                         [](const ::testing::TestParamInfo<ReleaseCase> &p) {
                           return std::string(p.param.name);
                         });

// ---- Handle arrays -------------------------------------------------------

// The array grows by 64 slots when full (the 1st, 65th and 129th appends);
// every slot past the count stays null, every record stays in place.
TEST_F(RecordsTest, ArrayGrowsBySixtyFourWhenFull) {
  void **array = nullptr;
  int32_t allocCount = 0;
  std::vector<int> records(129);
  for (int32_t count = 0; count < 129; ++count) {
    ASSERT_EQ(appendHandle(&array, &allocCount, count, &records[count]), 1);
    ASSERT_EQ(allocCount, (count / 64 + 1) * 64) << count;
    for (int i = 0; i <= count; ++i) ASSERT_EQ(array[i], &records[i]) << count << " " << i;
    for (int i = count + 1; i < allocCount; ++i) ASSERT_EQ(array[i], nullptr) << count << " " << i;
  }
  EXPECT_EQ(allocCount, 192);
  free(array);
}

struct RemoveCase {
  const char *name;
  int remove;  // index into the records, 9 for one not in the array
  int result;
  std::vector<int> after;  // indexes of the records left, in order
};
void PrintTo(const RemoveCase &c, std::ostream *os) {
  *os << c.name;
}

class RemoveHandleTest : public ::testing::TestWithParam<RemoveCase> {};

TEST_P(RemoveHandleTest, ShiftsLaterEntriesDown) {
  const RemoveCase &c = GetParam();
  int records[10];
  // Record 1 appears twice: only the first occurrence goes.
  void *array[6] = {&records[0], &records[1], &records[2], &records[1], &records[3], nullptr};
  int32_t count = 5;
  EXPECT_EQ(removeHandle(array, &count, &records[c.remove]), c.result);
  ASSERT_EQ(count, static_cast<int32_t>(c.after.size()));
  for (size_t i = 0; i < c.after.size(); ++i) EXPECT_EQ(array[i], &records[c.after[i]]) << i;
  for (size_t i = c.after.size(); i < 6; ++i) EXPECT_EQ(array[i], nullptr) << i;
}

INSTANTIATE_TEST_SUITE_P(Cases, RemoveHandleTest,
                         ::testing::Values(RemoveCase{"First", 0, 1, {1, 2, 1, 3}},
                                           RemoveCase{"Middle", 2, 1, {0, 1, 1, 3}},
                                           RemoveCase{"Last", 3, 1, {0, 1, 2, 1}},
                                           RemoveCase{"FirstOfTwo", 1, 1, {0, 2, 1, 3}},
                                           RemoveCase{"Absent", 9, 0, {0, 1, 2, 1, 3}}),
                         [](const ::testing::TestParamInfo<RemoveCase> &p) {
                           return std::string(p.param.name);
                         });

}  // namespace
