// The POSIX registry: `reg export` text files read by RegOpenKeyExW and
// RegQueryValueExW with Windows' results.
#ifndef _WIN32

#include <stdio.h>

#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/win_compat.h"
#include "tests/crypto/test_hex.h"
#include "tests/support/provider_test_support.h"

namespace {

const wchar_t kKey[] = L"Software\\ORVEL\\PKI\\Devices\\TembraKey";
const char kHeader[] = "Windows Registry Editor Version 5.00\r\n\r\n";
const char kSection[] = "[HKEY_LOCAL_MACHINE\\Software\\ORVEL\\PKI\\Devices\\TembraKey]\r\n";

// The text as `reg export` writes it: UTF-16LE with a byte order mark.
std::string utf16le(const std::string &ascii) {
  std::string out = "\xFF\xFE";
  for (char c : ascii) {
    out += c;
    out += '\0';
  }
  return out;
}

struct Query {
  LONG open = -1;
  LONG query = -1;
  DWORD type = 0xFFFF;
  DWORD size = 0;
  std::vector<BYTE> data;
};

class RegistryFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_path = m_dir.path() + "/settings.reg";
    tembra::test::setEnv("ORVEL_PKI_REGISTRY_FILE", m_path.c_str());
  }

  void write(const std::string &content) {
    FILE *file = fopen(m_path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
  }

  static Query query(const wchar_t *subKey, const wchar_t *name, DWORD bufferSize = 64) {
    Query q;
    HKEY key = nullptr;
    q.open = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subKey, 0, KEY_READ, &key);
    if (q.open != ERROR_SUCCESS) return q;
    std::vector<BYTE> buffer(bufferSize + 1, 0xEE);
    q.size = bufferSize;
    q.query = RegQueryValueExW(key, name, nullptr, &q.type, buffer.data(), &q.size);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    if (q.query == ERROR_SUCCESS) q.data.assign(buffer.begin(), buffer.begin() + q.size);
    return q;
  }

  tembra::test::TempDir m_dir;
  std::string m_path;
};

struct ValueCase {
  const char *name;
  const wchar_t *value;
  LONG query;
  DWORD type;
  const char *data;  // hex
  std::string file;
};
void PrintTo(const ValueCase &c, std::ostream *os) {
  *os << c.name;
}

class RegistryValueTest : public RegistryFileTest,
                          public ::testing::WithParamInterface<ValueCase> {};

TEST_P(RegistryValueTest, ReadsTypeAndBytes) {
  const ValueCase &c = GetParam();
  write(c.file);
  Query q = query(kKey, c.value);
  ASSERT_EQ(q.open, ERROR_SUCCESS);
  EXPECT_EQ(q.query, c.query);
  if (c.query == ERROR_SUCCESS) {
    EXPECT_EQ(q.type, c.type);
    EXPECT_EQ(q.data, tembra::testing::fromHex(c.data));
  }
}

const std::string kPlain = std::string(kHeader) + kSection;

// A dword and a missing value are also read through DeviceInit in the
// settings test.
INSTANTIATE_TEST_SUITE_P(
    Values, RegistryValueTest,
    ::testing::Values(
        ValueCase{"Qword", L"Q", ERROR_SUCCESS, REG_QWORD, "0102030405060708",
                  kPlain + "\"Q\"=hex(b):01,02,03,04,05,06,07,08\r\n"},
        ValueCase{"BinaryOverContinuationLines", L"B", ERROR_SUCCESS, REG_BINARY, "deadbeef01",
                  kPlain + "\"B\"=hex:de,ad,\\\r\n  be,ef,\\\r\n  01\r\n\"Next\"=dword:1\r\n"},
        ValueCase{"ValueAfterContinuation", L"Next", ERROR_SUCCESS, REG_DWORD, "07000000",
                  kPlain + "\"B\"=hex:de,ad,\\\r\n  be,ef\r\n\"Next\"=dword:00000007\r\n"},
        ValueCase{"StringWithEscapes", L"Name", ERROR_SUCCESS, REG_SZ, "61005c006200220063000000",
                  kPlain + "\"Name\"=\"a\\\\b\\\"c\"\r\n"},
        ValueCase{"Utf16FileWithBom", L"HasSM4", ERROR_SUCCESS, REG_DWORD, "10000000",
                  utf16le(kPlain + "\"HasSM4\"=dword:00000010\r\n")},
        ValueCase{"Utf16NonAsciiString", L"S", ERROR_SUCCESS, REG_SZ, "e9003a260000",
                  std::string("\xFF\xFE", 2) + utf16le(kPlain).substr(2) +
                      std::string("\"\0S\0\"\0=\0\"\0\xE9\0\x3A\x26\"\0\r\0\n\0", 20)},
        ValueCase{"Utf8FileWithBom", L"T", ERROR_SUCCESS, REG_SZ, "e9000000",
                  "\xEF\xBB\xBF" + kPlain + "\"T\"=\"\xC3\xA9\"\r\n"},
        ValueCase{"KeyPathIgnoresCase", L"HasSM3", ERROR_SUCCESS, REG_DWORD, "09000000",
                  std::string(kHeader) +
                      "[hkey_local_machine\\SOFTWARE\\orvel\\Pki\\DEVICES\\tembrakey]\r\n"
                      "\"HasSM3\"=dword:00000009\r\n"},
        ValueCase{"OtherSectionsIgnored", L"HasSM3", ERROR_FILE_NOT_FOUND, 0, "",
                  std::string(kHeader) +
                      "[HKEY_LOCAL_MACHINE\\Software\\ORVEL\\PKI\\Devices\\Other]\r\n"
                      "\"HasSM3\"=dword:00000001\r\n" +
                      kSection + "\"Mine\"=dword:2\r\n" +
                      "[HKEY_LOCAL_MACHINE\\Software\\ORVEL\\PKI\\Devices\\TembraKey\\Sub]\r\n"
                      "\"HasSM3\"=dword:00000001\r\n"}),
    [](const ::testing::TestParamInfo<ValueCase> &p) { return std::string(p.param.name); });

// Malformed lines are skipped, and the lines around them still count.
struct MalformedCase {
  const char *name;
  std::string line;
};
void PrintTo(const MalformedCase &c, std::ostream *os) {
  *os << c.name;
}

class RegistryMalformedTest : public RegistryFileTest,
                              public ::testing::WithParamInterface<MalformedCase> {};

TEST_P(RegistryMalformedTest, LineIsSkipped) {
  write(kPlain + "\"Before\"=dword:00000001\r\n" + GetParam().line +
        "\r\n\"After\"=dword:00000002\r\n");
  EXPECT_EQ(query(kKey, L"Bad").query, ERROR_FILE_NOT_FOUND);
  Query before = query(kKey, L"Before");
  Query after = query(kKey, L"After");
  EXPECT_EQ(before.data, (std::vector<BYTE>{1, 0, 0, 0}));
  EXPECT_EQ(after.data, (std::vector<BYTE>{2, 0, 0, 0}));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, RegistryMalformedTest,
    ::testing::Values(MalformedCase{"DwordNotHex", "\"Bad\"=dword:xyz"},
                      MalformedCase{"DwordTooLong", "\"Bad\"=dword:123456789"},
                      MalformedCase{"HexByteTooLong", "\"Bad\"=hex:01,234"},
                      MalformedCase{"HexEmptyItem", "\"Bad\"=hex:01,,02"},
                      MalformedCase{"UnterminatedString", "\"Bad\"=\"abc"},
                      MalformedCase{"TextAfterString", "\"Bad\"=\"abc\" x"},
                      MalformedCase{"UnknownEscape", "\"Bad\"=\"a\\nb\""},
                      MalformedCase{"UnknownType", "\"Bad\"=qword:1"},
                      MalformedCase{"Garbage", "this is not a registry line"},
                      MalformedCase{"NulBytes", std::string("\"Bad\"=dword:0\0\0", 15)}),
    [](const ::testing::TestParamInfo<MalformedCase> &p) { return std::string(p.param.name); });

struct KeyCase {
  const char *name;
  bool createFile;
  std::string file;
  const wchar_t *subKey;
  LONG open;
};
void PrintTo(const KeyCase &c, std::ostream *os) {
  *os << c.name;
}

class RegistryKeyTest : public RegistryFileTest, public ::testing::WithParamInterface<KeyCase> {};

TEST_P(RegistryKeyTest, OpensOnlyKeysTheFileNames) {
  const KeyCase &c = GetParam();
  if (c.createFile) write(c.file);
  HKEY key = nullptr;
  EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, c.subKey, 0, KEY_READ, &key), c.open);
  if (c.open == ERROR_SUCCESS) {
    EXPECT_NE(key, nullptr);
    RegCloseKey(key);
  } else {
    EXPECT_EQ(key, nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Keys, RegistryKeyTest,
    ::testing::Values(
        KeyCase{"MissingFile", false, "", kKey, ERROR_FILE_NOT_FOUND},
        KeyCase{"EmptyFile", true, "", kKey, ERROR_FILE_NOT_FOUND},
        KeyCase{"HeaderOnly", true, kHeader, kKey, ERROR_FILE_NOT_FOUND},
        KeyCase{"SectionWithoutValues", true, kPlain, kKey, ERROR_SUCCESS},
        KeyCase{"ParentOfASection", true, kPlain, L"Software\\ORVEL\\PKI", ERROR_SUCCESS},
        KeyCase{"PrefixIsNotAKey", true, kPlain, L"Software\\ORVEL\\PKI\\Devices\\Tembra",
                ERROR_FILE_NOT_FOUND},
        KeyCase{"DeletedSection", true,
                std::string(kHeader) +
                    "[-HKEY_LOCAL_MACHINE\\Software\\ORVEL\\PKI\\Devices\\TembraKey]\r\n",
                kKey, ERROR_FILE_NOT_FOUND},
        KeyCase{"OtherRoot", true,
                std::string(kHeader) +
                    "[HKEY_CURRENT_USER\\Software\\ORVEL\\PKI\\Devices\\TembraKey]\r\n",
                kKey, ERROR_FILE_NOT_FOUND}),
    [](const ::testing::TestParamInfo<KeyCase> &p) { return std::string(p.param.name); });

TEST_F(RegistryFileTest, QueryFollowsWindowsBufferRules) {
  write(kPlain + "\"S\"=\"abc\"\r\n");  // 8 bytes of UTF-16LE with terminator
  HKEY key = nullptr;
  ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, KEY_READ, &key), ERROR_SUCCESS);
  // A buffer too short for the value (ERROR_MORE_DATA) is read through
  // DeviceInit in the settings test.
  BYTE buffer[16];
  memset(buffer, 0xEE, sizeof buffer);
  DWORD size = 0;
  EXPECT_EQ(RegQueryValueExW(key, L"S", nullptr, nullptr, nullptr, &size), ERROR_SUCCESS);
  EXPECT_EQ(size, 8u);

  size = 8;
  EXPECT_EQ(RegQueryValueExW(key, L"S", nullptr, nullptr, buffer, &size), ERROR_SUCCESS);
  EXPECT_EQ(std::vector<BYTE>(buffer, buffer + 9),
            (std::vector<BYTE>{'a', 0, 'b', 0, 'c', 0, 0, 0, 0xEE}));

  EXPECT_EQ(RegQueryValueExW(key, L"S", nullptr, nullptr, buffer, nullptr),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
  EXPECT_EQ(RegQueryValueExW(nullptr, L"S", nullptr, nullptr, nullptr, &size),
            ERROR_INVALID_HANDLE);
}

}  // namespace

#endif  // !_WIN32
