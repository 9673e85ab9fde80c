#include "softskf/core/token.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace tembra {
namespace softskf {

void SecurityState::clear() {
  user = false;
  admin = false;
  hasTokenKey = false;
  secureZero(tokenKey.data(), tokenKey.size());
  dropKeys();
}

void SecurityState::dropKeys() {
  keys.clear();  // each ReadyKey wipes its key material
  keysPinSalt.clear();
}

namespace {

std::string securityKey(const DeviceLocation &device, const std::string &app) {
  std::string key = device.store;
  key += '\0';
  key += device.name;
  key += '\0';
  key += app;
  return key;
}

std::string percentEncoded(const char *value) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (const char *p = value; *p != '\0'; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (c > 0x20 && c < 0x7f && c != '%' && c != '=') {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(digits[c >> 4]);
      out.push_back(digits[c & 15]);
    }
  }
  return out;
}

}  // namespace

SecurityState &Token::security(const DeviceLocation &device, const std::string &app,
                               const std::vector<uint8_t> &instanceId) {
  SecurityState &state = m_security[securityKey(device, app)];
  if (state.instanceId != instanceId) {
    state.clear();
    state.instanceId = instanceId;
  }
  return state;
}

void Token::forgetSecurity(const DeviceLocation &device, const std::string &app) {
  auto it = m_security.find(securityKey(device, app));
  if (it != m_security.end()) {
    it->second.clear();
    m_security.erase(it);
  }
}

void Token::dropAllKeys() {
  for (auto &entry : m_security) entry.second.dropKeys();
}

Token &token() {
  // Never destroyed before the last call: a static object outlives the
  // library's users within the process; the token keys in it are wiped by
  // SecurityState's members on destruction at exit.
  static Token instance;
  return instance;
}

Call::Call(const char *function)
    : m_token(softskf::token()),
      m_lock(m_token.mutex),
      m_function(function),
      m_recording(m_token.calls.recording()) {
  if (m_recording) m_line = function;
}

Call &Call::handle(const char *name, HANDLE h) {
  if (!m_recording) return *this;
  m_line += ' ';
  m_line += name;
  m_line += '=';
  m_line += m_token.handles.describe(h);
  return *this;
}

Call &Call::number(const char *name, ULONG value) {
  if (!m_recording) return *this;
  char text[16];
  snprintf(text, sizeof text, "%lu", static_cast<unsigned long>(value));
  m_line += ' ';
  m_line += name;
  m_line += '=';
  m_line += text;
  return *this;
}

Call &Call::hex(const char *name, ULONG value) {
  if (!m_recording) return *this;
  char text[16];
  snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(value));
  m_line += ' ';
  m_line += name;
  m_line += '=';
  m_line += text;
  return *this;
}

Call &Call::text(const char *name, const char *value) {
  if (!m_recording) return *this;
  m_line += ' ';
  m_line += name;
  m_line += '=';
  m_line += value == nullptr ? std::string("0") : percentEncoded(value);
  return *this;
}

Call &Call::bytes(const char *name, const uint8_t *p, size_t n) {
  if (!m_recording) return *this;
  static const char digits[] = "0123456789ABCDEF";
  m_line += ' ';
  m_line += name;
  m_line += '=';
  for (size_t i = 0; p != nullptr && i < n; ++i) {
    m_line.push_back(digits[p[i] >> 4]);
    m_line.push_back(digits[p[i] & 15]);
  }
  return *this;
}

bool Call::faulted(ULONG &result) {
  if (m_recording) m_index = m_token.calls.append(m_line);
  return !m_token.faults.empty() && m_token.faults.take(m_function, result);
}

void Call::output(const char *name, HANDLE h) {
  if (!m_recording) return;
  std::string text = m_hasOutput ? " " : " -> ";
  text += name;
  text += '=';
  text += m_token.handles.describe(h);
  m_hasOutput = true;
  m_token.calls.extend(m_index, text);
}

ULONG answerBytes(const uint8_t *data, size_t len, BYTE *out, ULONG *outLen) {
  if (outLen == nullptr) return SAR_INVALIDPARAMERR;
  ULONG capacity = *outLen;
  *outLen = static_cast<ULONG>(len);
  if (out == nullptr) return SAR_OK;
  if (capacity < len) return SAR_BUFFER_TOO_SMALL;
  if (len > 0) memcpy(out, data, len);
  return SAR_OK;
}

std::string multiString(const std::vector<std::string> &names) {
  std::string out;
  for (const std::string &name : names) {
    out += name;
    out += '\0';
  }
  out += '\0';
  return out;
}

ULONG takeName(const char *value, size_t maxLen, std::string &name) {
  if (value == nullptr) return SAR_INVALIDPARAMERR;
  size_t len = strnlen(value, maxLen + 1);
  if (len == 0 || len > maxLen) return SAR_NAMELENERR;
  name.assign(value, len);
  return SAR_OK;
}

}  // namespace softskf
}  // namespace tembra
