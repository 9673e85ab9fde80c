// The registry on POSIX: keys of HKEY_LOCAL_MACHINE read from a text file in
// the format Windows' `reg export` writes (UTF-16LE with BOM, or UTF-8 /
// ASCII). The file is $ORVEL_PKI_REGISTRY_FILE, else
// /etc/orvel/pki/TembraKey.reg, and it is read anew at every RegOpenKeyExW,
// so an open key is a snapshot of the file at that moment.
//
// Understood lines: the "Windows Registry Editor Version 5.00" header,
// section headers "[HKEY_LOCAL_MACHINE\Path]" (compared case-insensitively),
// and values "Name"=... or @=... holding a quoted string (\\ and \" escapes),
// dword:XXXXXXXX, hex:bytes (REG_BINARY) or hex(N):bytes (type N, hex), with
// long hex lists continued over lines ending in '\'. Anything else, and any
// malformed line, is skipped. Value names are compared case-insensitively.
#ifndef _WIN32

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <new>
#include <string>
#include <vector>

#include "platform/win_compat.h"

struct RegistryValueData {
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
};

// An open key: a snapshot of its values, by lower-cased name.
struct RegistryKey {
  std::map<std::string, RegistryValueData> values;
};

namespace {

const char kDefaultRegistryFile[] = "/etc/orvel/pki/TembraKey.reg";
const char kRootName[] = "HKEY_LOCAL_MACHINE";
// A registry export larger than this is not read.
const long kMaxFileSize = 16L * 1024 * 1024;

std::string lowerAscii(std::string text) {
  for (char &c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

void appendUtf8(std::string &out, uint32_t codePoint) {
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    out += static_cast<char>(0xC0 | (codePoint >> 6));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    out += static_cast<char>(0xE0 | (codePoint >> 12));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (codePoint >> 18));
    out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  }
}

std::string wideToUtf8(LPCWSTR text) {
  std::string out;
  if (text == nullptr) return out;
  for (; *text != 0; ++text) {
    uint32_t codePoint = static_cast<uint32_t>(*text);
    if (codePoint > 0x10FFFF) codePoint = 0xFFFD;
    appendUtf8(out, codePoint);
  }
  return out;
}

// UTF-16LE bytes (without BOM) to UTF-8; unpaired surrogates become U+FFFD.
std::string utf16leToUtf8(const std::string &bytes, size_t start) {
  std::string out;
  size_t i = start;
  while (i + 1 < bytes.size()) {
    uint32_t unit = static_cast<uint8_t>(bytes[i]) | (static_cast<uint8_t>(bytes[i + 1]) << 8);
    i += 2;
    if (unit >= 0xD800 && unit < 0xDC00 && i + 1 < bytes.size()) {
      uint32_t low = static_cast<uint8_t>(bytes[i]) | (static_cast<uint8_t>(bytes[i + 1]) << 8);
      if (low >= 0xDC00 && low < 0xE000) {
        i += 2;
        appendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
        continue;
      }
    }
    if (unit >= 0xD800 && unit < 0xE000) unit = 0xFFFD;
    appendUtf8(out, unit);
  }
  return out;
}

// UTF-8 text to UTF-16LE bytes with a terminating NUL, as REG_SZ data is
// stored on Windows. Bytes that are not valid UTF-8 become U+FFFD.
std::vector<BYTE> utf8ToUtf16leWithNul(const std::string &text) {
  std::vector<BYTE> out;
  auto pushUnit = [&out](uint32_t unit) {
    out.push_back(static_cast<BYTE>(unit & 0xFF));
    out.push_back(static_cast<BYTE>(unit >> 8));
  };
  size_t i = 0;
  while (i < text.size()) {
    uint8_t lead = static_cast<uint8_t>(text[i]);
    uint32_t codePoint = 0xFFFD;
    size_t extra = 0;
    if (lead < 0x80) {
      codePoint = lead;
    } else if ((lead & 0xE0) == 0xC0) {
      codePoint = lead & 0x1F;
      extra = 1;
    } else if ((lead & 0xF0) == 0xE0) {
      codePoint = lead & 0x0F;
      extra = 2;
    } else if ((lead & 0xF8) == 0xF0) {
      codePoint = lead & 0x07;
      extra = 3;
    }
    bool valid = lead < 0x80 || extra > 0;
    for (size_t k = 1; valid && k <= extra; ++k) {
      if (i + k >= text.size() || (static_cast<uint8_t>(text[i + k]) & 0xC0) != 0x80) {
        valid = false;
      } else {
        codePoint = (codePoint << 6) | (static_cast<uint8_t>(text[i + k]) & 0x3F);
      }
    }
    if (!valid || codePoint > 0x10FFFF) {
      codePoint = 0xFFFD;
      extra = 0;
    }
    i += 1 + extra;
    if (codePoint >= 0x10000) {
      codePoint -= 0x10000;
      pushUnit(0xD800 + (codePoint >> 10));
      pushUnit(0xDC00 + (codePoint & 0x3FF));
    } else {
      pushUnit(codePoint);
    }
  }
  pushUnit(0);
  return out;
}

bool readFile(const char *path, std::string &content) {
  FILE *file = fopen(path, "rb");
  if (file == nullptr) return false;
  content.clear();
  char chunk[4096];
  size_t got;
  bool ok = true;
  while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) {
    content.append(chunk, got);
    if (static_cast<long>(content.size()) > kMaxFileSize) {
      ok = false;
      break;
    }
  }
  if (ferror(file)) ok = false;
  fclose(file);
  return ok;
}

// The file's text as UTF-8 lines, continuation lines joined.
std::vector<std::string> logicalLines(const std::string &raw) {
  std::string text;
  if (raw.size() >= 2 && static_cast<uint8_t>(raw[0]) == 0xFF &&
      static_cast<uint8_t>(raw[1]) == 0xFE) {
    text = utf16leToUtf8(raw, 2);
  } else if (raw.size() >= 3 && raw.compare(0, 3, "\xEF\xBB\xBF") == 0) {
    text = raw.substr(3);
  } else {
    text = raw;
  }

  std::vector<std::string> lines;
  std::string pending;
  bool continuing = false;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
      line.pop_back();
    }
    if (continuing) {
      size_t first = line.find_first_not_of(" \t");
      line = first == std::string::npos ? std::string() : line.substr(first);
      pending += line;
    } else {
      pending = line;
    }
    // Only hex lists are continued; a quoted string never ends in a lone '\'.
    continuing =
        !pending.empty() && pending.back() == '\\' && pending.find("=hex") != std::string::npos;
    if (continuing) {
      pending.pop_back();
      continue;
    }
    lines.push_back(pending);
    pending.clear();
  }
  if (continuing) lines.push_back(pending);
  return lines;
}

// A quoted string starting at text[pos] == '"'; \\ and \" are the escapes.
// On success pos is just past the closing quote.
bool parseQuoted(const std::string &text, size_t &pos, std::string &out) {
  if (pos >= text.size() || text[pos] != '"') return false;
  out.clear();
  for (size_t i = pos + 1; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\\') {
      if (i + 1 >= text.size()) return false;
      char next = text[i + 1];
      if (next != '\\' && next != '"') return false;
      out += next;
      ++i;
    } else if (c == '"') {
      pos = i + 1;
      return true;
    } else {
      out += c;
    }
  }
  return false;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// 1 to `maxDigits` hex digits making up the whole text.
bool parseHexNumber(const std::string &text, size_t maxDigits, uint32_t &value) {
  if (text.empty() || text.size() > maxDigits) return false;
  value = 0;
  for (char c : text) {
    int digit = hexDigit(c);
    if (digit < 0) return false;
    value = (value << 4) | static_cast<uint32_t>(digit);
  }
  return true;
}

// "aa,bb,..." (blanks allowed around the bytes); an empty list is valid.
bool parseHexBytes(const std::string &text, std::vector<BYTE> &out) {
  out.clear();
  size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return true;
  size_t pos = first;
  while (true) {
    size_t comma = text.find(',', pos);
    std::string item =
        text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
    size_t b = item.find_first_not_of(" \t");
    size_t e = item.find_last_not_of(" \t");
    if (b == std::string::npos) return false;
    uint32_t value = 0;
    if (!parseHexNumber(item.substr(b, e - b + 1), 2, value)) return false;
    out.push_back(static_cast<BYTE>(value));
    if (comma == std::string::npos) return true;
    pos = comma + 1;
  }
}

bool parseData(const std::string &text, RegistryValueData &value) {
  if (!text.empty() && text[0] == '"') {
    size_t pos = 0;
    std::string content;
    if (!parseQuoted(text, pos, content)) return false;
    if (text.find_first_not_of(" \t", pos) != std::string::npos) return false;
    value.type = REG_SZ;
    value.data = utf8ToUtf16leWithNul(content);
    return true;
  }
  std::string lower = lowerAscii(text);
  if (lower.compare(0, 6, "dword:") == 0) {
    uint32_t number = 0;
    if (!parseHexNumber(text.substr(6), 8, number)) return false;
    value.type = REG_DWORD;
    value.data = {static_cast<BYTE>(number), static_cast<BYTE>(number >> 8),
                  static_cast<BYTE>(number >> 16), static_cast<BYTE>(number >> 24)};
    return true;
  }
  if (lower.compare(0, 4, "hex:") == 0) {
    value.type = REG_BINARY;
    return parseHexBytes(text.substr(4), value.data);
  }
  if (lower.compare(0, 4, "hex(") == 0) {
    size_t close = text.find("):", 4);
    if (close == std::string::npos) return false;
    uint32_t type = 0;
    if (!parseHexNumber(text.substr(4, close - 4), 8, type)) return false;
    value.type = type;
    return parseHexBytes(text.substr(close + 2), value.data);
  }
  return false;
}

// One value line: "Name"=data or @=data. False for a malformed line.
bool parseValueLine(const std::string &line, std::string &name, RegistryValueData &value) {
  size_t pos = 0;
  if (line[0] == '@') {
    name.clear();
    pos = 1;
  } else if (!parseQuoted(line, pos, name)) {
    return false;
  }
  if (pos >= line.size() || line[pos] != '=') return false;
  return parseData(line.substr(pos + 1), value);
}

// Builds the key named `path` (lower case, without trailing '\') from the
// registry text. False when no section names the key or one of its subkeys.
bool loadKey(const std::vector<std::string> &lines, const std::string &path, RegistryKey &key) {
  bool found = false;
  bool inKey = false;
  for (const std::string &line : lines) {
    if (line.empty() || line[0] == ';') continue;
    if (line[0] == '[') {
      inKey = false;
      if (line.back() != ']' || line.size() < 3 || line[1] == '-') continue;
      std::string section = lowerAscii(line.substr(1, line.size() - 2));
      while (!section.empty() && section.back() == '\\') section.pop_back();
      if (section == path) {
        found = inKey = true;
      } else if (section.size() > path.size() && section.compare(0, path.size(), path) == 0 &&
                 section[path.size()] == '\\') {
        found = true;  // a subkey exists, so the key does
      }
      continue;
    }
    if (!inKey) continue;
    std::string name;
    RegistryValueData value;
    if (!parseValueLine(line, name, value)) continue;
    key.values[lowerAscii(name)] = std::move(value);
  }
  return found;
}

}  // namespace

LONG RegOpenKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD ulOptions, REGSAM samDesired,
                   PHKEY phkResult) {
  (void)ulOptions;
  (void)samDesired;
  if (phkResult == nullptr) return ERROR_INVALID_PARAMETER;
  *phkResult = nullptr;
  if (hKey != HKEY_LOCAL_MACHINE) return ERROR_INVALID_HANDLE;
  try {
    std::string path = lowerAscii(std::string(kRootName) + "\\" + wideToUtf8(lpSubKey));
    while (!path.empty() && path.back() == '\\') path.pop_back();

    const char *file = getenv("ORVEL_PKI_REGISTRY_FILE");
    if (file == nullptr || file[0] == '\0') file = kDefaultRegistryFile;
    std::string content;
    if (!readFile(file, content)) return ERROR_FILE_NOT_FOUND;

    RegistryKey *key = new RegistryKey;
    if (!loadKey(logicalLines(content), path, *key)) {
      delete key;
      return ERROR_FILE_NOT_FOUND;
    }
    *phkResult = key;
    return ERROR_SUCCESS;
  } catch (...) {
    return ERROR_FILE_NOT_FOUND;  // out of memory reading the file
  }
}

LONG RegQueryValueExW(HKEY hKey, LPCWSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType,
                      LPBYTE lpData, LPDWORD lpcbData) {
  (void)lpReserved;
  if (hKey == nullptr || hKey == HKEY_LOCAL_MACHINE) return ERROR_INVALID_HANDLE;
  if (lpData != nullptr && lpcbData == nullptr) return ERROR_INVALID_PARAMETER;
  try {
    auto found = hKey->values.find(lowerAscii(wideToUtf8(lpValueName)));
    if (found == hKey->values.end()) return ERROR_FILE_NOT_FOUND;
    const RegistryValueData &value = found->second;
    if (lpType != nullptr) *lpType = value.type;
    DWORD size = static_cast<DWORD>(value.data.size());
    if (lpcbData == nullptr) return ERROR_SUCCESS;
    if (lpData != nullptr && *lpcbData < size) {
      *lpcbData = size;
      return ERROR_MORE_DATA;
    }
    if (lpData != nullptr && size > 0) memcpy(lpData, value.data.data(), size);
    *lpcbData = size;
    return ERROR_SUCCESS;
  } catch (...) {
    return ERROR_FILE_NOT_FOUND;
  }
}

LONG RegCloseKey(HKEY hKey) {
  if (hKey == HKEY_LOCAL_MACHINE) return ERROR_SUCCESS;
  if (hKey == nullptr) return ERROR_INVALID_HANDLE;
  delete hKey;
  return ERROR_SUCCESS;
}

#endif  // !_WIN32
