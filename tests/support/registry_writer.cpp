// The provider's registry settings for tests: on POSIX the .reg file named
// by ORVEL_PKI_REGISTRY_FILE, on Windows the real key under HKLM.
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/provider_test_support.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace tembra {
namespace test {

namespace {

const char kRegistryHeader[] = "Windows Registry Editor Version 5.00\r\n\r\n";

#ifndef _WIN32

const char kKeySection[] = "[HKEY_LOCAL_MACHINE\\Software\\ORVEL\\PKI\\Devices\\TembraKey]\r\n";

void writeRegistryFile(const std::string &content) {
  const char *path = getenv("ORVEL_PKI_REGISTRY_FILE");
  ASSERT_NE(path, nullptr) << "ORVEL_PKI_REGISTRY_FILE is not set";
  FILE *file = fopen(path, "wb");
  ASSERT_NE(file, nullptr) << "cannot write " << path;
  fwrite(content.data(), 1, content.size(), file);
  fclose(file);
}

std::string quoted(const std::string &text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

#else

const wchar_t kSubKey[] = L"Software\\ORVEL\\PKI\\Devices\\TembraKey";

std::wstring widen(const std::string &text) {
  if (text.empty()) return std::wstring();
  int count =
      MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(count), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], count);
  return out;
}

bool parseHexList(const std::string &text, std::vector<BYTE> &out) {
  out.clear();
  std::string digits;
  for (char c : text) {
    if (c == ' ' || c == '\\' || c == '\r' || c == '\n' || c == '\t') continue;
    if (c == ',') {
      if (digits.empty()) return false;
      out.push_back(static_cast<BYTE>(strtoul(digits.c_str(), nullptr, 16)));
      digits.clear();
    } else {
      digits += c;
    }
  }
  if (!digits.empty()) out.push_back(static_cast<BYTE>(strtoul(digits.c_str(), nullptr, 16)));
  return true;
}

// The `reg export` text of a value to its type and bytes.
bool toRegistryData(const std::string &text, DWORD &type, std::vector<BYTE> &data) {
  if (!text.empty() && text[0] == '"') {
    if (text.size() < 2 || text.back() != '"') return false;
    std::string content;
    for (size_t i = 1; i + 1 < text.size(); ++i) {
      if (text[i] == '\\' && i + 2 < text.size()) ++i;
      content += text[i];
    }
    std::wstring wide = widen(content);
    type = REG_SZ;
    data.assign(reinterpret_cast<const BYTE *>(wide.c_str()),
                reinterpret_cast<const BYTE *>(wide.c_str()) + (wide.size() + 1) * sizeof(wchar_t));
    return true;
  }
  if (text.compare(0, 6, "dword:") == 0) {
    DWORD value = static_cast<DWORD>(strtoul(text.c_str() + 6, nullptr, 16));
    type = REG_DWORD;
    data.assign(reinterpret_cast<const BYTE *>(&value), reinterpret_cast<const BYTE *>(&value) + 4);
    return true;
  }
  if (text.compare(0, 4, "hex:") == 0) {
    type = REG_BINARY;
    return parseHexList(text.substr(4), data);
  }
  if (text.compare(0, 4, "hex(") == 0) {
    size_t close = text.find("):");
    if (close == std::string::npos) return false;
    type = static_cast<DWORD>(strtoul(text.substr(4, close - 4).c_str(), nullptr, 16));
    return parseHexList(text.substr(close + 2), data);
  }
  return false;
}

#endif

}  // namespace

#ifndef _WIN32

void writeRegistry(const std::vector<RegistryValue> &values) {
  std::string content = std::string(kRegistryHeader) + kKeySection;
  for (const RegistryValue &value : values)
    content += quoted(value.name) + "=" + value.data + "\r\n";
  writeRegistryFile(content + "\r\n");
}

void removeRegistryKey() {
  writeRegistryFile(kRegistryHeader);
}

#else

void writeRegistry(const std::vector<RegistryValue> &values) {
  removeRegistryKey();
  HKEY key = nullptr;
  LONG result = RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSubKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                &key, nullptr);
  ASSERT_EQ(result, ERROR_SUCCESS) << "RegCreateKeyExW";
  for (const RegistryValue &value : values) {
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    if (!toRegistryData(value.data, type, data)) {
      ADD_FAILURE() << "unreadable registry value text: " << value.data;
      continue;
    }
    result = RegSetValueExW(key, widen(value.name).c_str(), 0, type,
                            data.empty() ? nullptr : data.data(), static_cast<DWORD>(data.size()));
    EXPECT_EQ(result, ERROR_SUCCESS) << "RegSetValueExW " << value.name;
  }
  RegCloseKey(key);
}

void removeRegistryKey() {
  LONG result = RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSubKey);
  if (result == ERROR_SUCCESS || result == ERROR_FILE_NOT_FOUND) {
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kSubKey);
  }
}

#endif

}  // namespace test
}  // namespace tembra
