// Data objects against a software token: the file name, the rights that a
// mode block gives, reads clipped at the end of the object, writes that
// must fit, missing objects, and the not-logged-in answer of all four calls.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "softskf/include/softskf.h"
#include "tests/provider_ops/ops_fixture.h"

namespace opstest {
namespace {

class DataTest : public OpsTest {
 protected:
  std::vector<DeviceSpec> tokens() const override { return {makeToken("data", {})}; }

  // A 100-byte object 5 that anyone may read and write, holding 0..99.
  void makeObject() {
    const char anyone[] = {2, 3};
    ASSERT_EQ(1, DeviceCreateData(device(), 5, anyone, 100));
    std::vector<unsigned char> bytes(100);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i);
    ASSERT_EQ(1, DeviceWriteDataEx(device(), 5, 0, bytes.data(), 100));
  }
};

struct RightsCase {
  std::vector<char> mode;
  int expected;
  const char *read;  // rights handed to SKF_CreateFile
  const char *write;
};

// The rights of each mode block, byte 2 read a second time for the
// administrator; bad counts give 0 and the GetFileRight line.
TEST_F(DataTest, ModeBlockRights) {
  const RightsCase cases[] = {
      {{3, 0, 1}, 1, "0x00000010", "0x00000000"},    {{2, 3}, 1, "0x000000FF", "0x000000FF"},
      {{4, 0, 0, 3}, 1, "0x00000000", "0x00000000"}, {{4, 0, 2, 1}, 1, "0x00000000", "0x00000010"},
      {{3, 2, 1}, 1, "0x00000010", "0x000000FF"},    {{2, 0, 3}, 1, "0x00000000", "0x00000000"},
      {{5, 3, 3, 3, 3}, 0, nullptr, nullptr},        {{1, 3}, 0, nullptr, nullptr},
      {{char(0x83), 3, 3}, 0, nullptr, nullptr},
  };
  int dataId = 7;
  for (const RightsCase &c : cases) {
    SCOPED_TRACE(dataId);
    mark();
    EXPECT_EQ(c.expected, DeviceCreateData(device(), dataId, c.mode.data(), 16));
    const std::vector<std::string> creates = tokenCalls("SKF_CreateFile");
    if (c.read == nullptr) {
      EXPECT_TRUE(creates.empty());
      EXPECT_EQ(std::vector<std::string>{"GetFileRight(mode, &ulReadRights, &ulWriteRights) == 0"},
                m_log.messages("[ERROR]"));
    } else {
      ASSERT_EQ(1u, creates.size());
      EXPECT_EQ(std::to_string(dataId), callField(creates[0], "szFileName"));
      EXPECT_EQ(c.read, callField(creates[0], "ulReadRights"));
      EXPECT_EQ(c.write, callField(creates[0], "ulWriteRights"));
    }
    ++dataId;
  }
}

// An existing object answers -6 before its mode is looked at; the name is
// compared whole, so object 1 is not the file "12"; -1 ids never reach the
// token.
TEST_F(DataTest, ExistenceByExactName) {
  const char anyone[] = {2, 3};
  const char bad[] = {9};
  ASSERT_EQ(1, DeviceCreateData(device(), 12, anyone, 10));
  mark();
  EXPECT_EQ(-6, DeviceCreateData(device(), 12, bad, 10));
  EXPECT_TRUE(m_log.messages("[ERROR]").empty());
  unsigned char byte = 0;
  int length = 0;
  EXPECT_EQ(-7, DeviceReadDataEx(device(), 1, 0, &byte, 1, &length));
  EXPECT_EQ(-7, DeviceWriteDataEx(device(), 1, 0, &byte, 1));
  EXPECT_EQ(-7, DeviceDeleteData(device(), 1));
  EXPECT_EQ(4u, tokenCalls("SKF_EnumFiles").size());
  EXPECT_EQ(4u, tembra::test::tokenCallLog().size());

  mark();
  EXPECT_EQ(-1, DeviceCreateData(device(), -1, anyone, 10));
  EXPECT_EQ(-1, DeviceReadDataEx(device(), -1, 0, &byte, 1, &length));
  EXPECT_EQ(-1, DeviceWriteDataEx(device(), -1, 0, &byte, 1));
  EXPECT_EQ(-1, DeviceDeleteData(device(), -1));
  EXPECT_TRUE(tembra::test::tokenCallLog().empty());
  EXPECT_EQ(-2, DeviceDeleteData(nullptr, 12));

  EXPECT_EQ(1, DeviceDeleteData(device(), 12));
  EXPECT_EQ(-7, DeviceDeleteData(device(), 12));
}

// Reads stop at the end of the object; a null buffer asks what is left.
TEST_F(DataTest, ReadsClippedAtTheEnd) {
  makeObject();
  struct Case {
    int offset;
    bool withData;
    int datalen;
    int expected;
    int length;
    const char *error;
  };
  const Case cases[] = {
      {90, true, 100, 1, 10, nullptr},
      {100, true, 10, 1, 0, nullptr},
      {101, true, 10, -1, -9, "offset > (int)attr.FileSize"},
      {30, false, 0, 1, 70, nullptr},
      {0, true, -1, -1, -9, "datalen < 0"},
      {10, true, 0, 1, 0, nullptr},
      {0, true, 100, 1, 100, nullptr},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.offset);
    std::vector<unsigned char> data(128, 0xEE);
    int length = -9;
    mark();
    EXPECT_EQ(c.expected, DeviceReadDataEx(device(), 5, c.offset,
                                           c.withData ? data.data() : nullptr, c.datalen, &length));
    EXPECT_EQ(c.length, length);
    EXPECT_EQ(c.error ? std::vector<std::string>{c.error} : std::vector<std::string>{},
              m_log.messages("[ERROR]"));
    for (int i = 0; i < c.length && c.withData; ++i) EXPECT_EQ(c.offset + i, data[size_t(i)]);
    if (c.length >= 0 && c.withData) {
      EXPECT_EQ(0xEE, data[size_t(c.length)]);
    }
  }
}

TEST_F(DataTest, WritesMustFit) {
  makeObject();
  const unsigned char bytes[11] = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6,
                                   0xA7, 0xA8, 0xA9, 0xAA, 0xAB};
  mark();
  EXPECT_EQ(-1, DeviceWriteDataEx(device(), 5, 90, bytes, 11));
  EXPECT_EQ(std::vector<std::string>{"offset + datalen > (int)attr.FileSize"},
            m_log.messages("[ERROR]"));
  EXPECT_TRUE(tokenCalls("SKF_WriteFile").empty());
  EXPECT_EQ(-1, DeviceWriteDataEx(device(), 5, 0, bytes, 0));
  EXPECT_EQ(-1, DeviceWriteDataEx(device(), 5, 0, nullptr, 1));
  EXPECT_EQ(-1, DeviceWriteDataEx(device(), 5, 0x7FFFFFFF, bytes, 11));
  EXPECT_EQ(1, DeviceWriteDataEx(device(), 5, 90, bytes, 10));
  unsigned char back[10] = {};
  int length = 0;
  EXPECT_EQ(1, DeviceReadDataEx(device(), 5, 90, back, 10, &length));
  EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 10),
            std::vector<unsigned char>(back, back + 10));
}

// The token's "not logged in" becomes -8 on each call, without a line: an
// object only the user may read and write, and a creation the token
// refuses.
TEST_F(DataTest, NotLoggedInOnEachCall) {
  const char userOnly[] = {3, 0, 3};
  ASSERT_EQ(1, DeviceCreateData(device(), 9, userOnly, 8));
  const unsigned char bytes[4] = {1, 2, 3, 4};
  unsigned char back[4];
  int length = 0;
  m_log.mark();
  ASSERT_EQ(kTokenOk, SKFSoft_SetFault("SKF_CreateFile", SAR_USER_NOT_LOGGED_IN, 1));
  EXPECT_EQ(-8, DeviceCreateData(device(), 10, userOnly, 8));
  EXPECT_EQ(-8, DeviceReadDataEx(device(), 9, 0, back, 4, &length));
  EXPECT_EQ(-8, DeviceWriteDataEx(device(), 9, 0, bytes, 4));
  EXPECT_EQ(-8, DeviceDeleteData(device(), 9));
  EXPECT_TRUE(m_log.messages("[ERROR]").empty());

  login();
  EXPECT_EQ(1, DeviceWriteDataEx(device(), 9, 0, bytes, 4));
  EXPECT_EQ(1, DeviceReadDataEx(device(), 9, 0, back, 4, &length));
  EXPECT_EQ(4, length);
  EXPECT_EQ(1, DeviceDeleteData(device(), 9));
}

}  // namespace
}  // namespace opstest
