#include "softskf/core/handles.h"

#include <stdio.h>

#include <vector>

namespace tembra {
namespace softskf {

namespace {

// A handle value: kind in the top nibble of 32 bits, number below. Numbers
// are never reused within a process.
constexpr uintptr_t kKindShift = 28;
constexpr uintptr_t kNumberMask = (uintptr_t(1) << kKindShift) - 1;

uintptr_t valueOf(HANDLE h) {
  return reinterpret_cast<uintptr_t>(h);
}

const char kKindLetter[] = {'?', 'D', 'A', 'C', 'K', 'H'};

}  // namespace

HANDLE HandleTable::insert(HandleKind kind, Entry entry) {
  uint32_t &next = m_next[static_cast<uint32_t>(kind)];
  ++next;
  uintptr_t value = (uintptr_t(static_cast<uint32_t>(kind)) << kKindShift) | (next & kNumberMask);
  entry.kind = kind;
  m_entries[value] = std::move(entry);
  return reinterpret_cast<HANDLE>(value);
}

HANDLE HandleTable::add(std::unique_ptr<DeviceObject> object) {
  Entry e{HandleKind::Device, std::move(object), nullptr, nullptr, nullptr, nullptr};
  return insert(HandleKind::Device, std::move(e));
}
HANDLE HandleTable::add(std::unique_ptr<ApplicationObject> object) {
  Entry e{HandleKind::Application, nullptr, std::move(object), nullptr, nullptr, nullptr};
  return insert(HandleKind::Application, std::move(e));
}
HANDLE HandleTable::add(std::unique_ptr<ContainerObject> object) {
  Entry e{HandleKind::Container, nullptr, nullptr, std::move(object), nullptr, nullptr};
  return insert(HandleKind::Container, std::move(e));
}
HANDLE HandleTable::add(std::unique_ptr<KeyObject> object) {
  Entry e{HandleKind::Key, nullptr, nullptr, nullptr, std::move(object), nullptr};
  return insert(HandleKind::Key, std::move(e));
}
HANDLE HandleTable::add(std::unique_ptr<HashObject> object) {
  Entry e{HandleKind::Hash, nullptr, nullptr, nullptr, nullptr, std::move(object)};
  return insert(HandleKind::Hash, std::move(e));
}

HandleTable::Entry *HandleTable::find(HANDLE h, HandleKind kind) {
  auto it = m_entries.find(valueOf(h));
  if (it == m_entries.end() || it->second.kind != kind) return nullptr;
  return &it->second;
}

DeviceObject *HandleTable::device(HANDLE h) {
  Entry *e = find(h, HandleKind::Device);
  return e ? e->device.get() : nullptr;
}
ApplicationObject *HandleTable::application(HANDLE h) {
  Entry *e = find(h, HandleKind::Application);
  return e ? e->application.get() : nullptr;
}
ContainerObject *HandleTable::container(HANDLE h) {
  Entry *e = find(h, HandleKind::Container);
  return e ? e->container.get() : nullptr;
}
KeyObject *HandleTable::key(HANDLE h) {
  Entry *e = find(h, HandleKind::Key);
  return e ? e->key.get() : nullptr;
}
HashObject *HandleTable::hash(HANDLE h) {
  Entry *e = find(h, HandleKind::Hash);
  return e ? e->hash.get() : nullptr;
}

DeviceObject *HandleTable::deviceById(uint32_t id) {
  uintptr_t value = (uintptr_t(static_cast<uint32_t>(HandleKind::Device)) << kKindShift) | id;
  return device(reinterpret_cast<HANDLE>(value));
}

ApplicationObject *HandleTable::applicationById(uint32_t id) {
  uintptr_t value = (uintptr_t(static_cast<uint32_t>(HandleKind::Application)) << kKindShift) | id;
  return application(reinterpret_cast<HANDLE>(value));
}

bool HandleTable::remove(HANDLE h, HandleKind kind) {
  auto it = m_entries.find(valueOf(h));
  if (it == m_entries.end() || it->second.kind != kind) return false;
  m_entries.erase(it);
  return true;
}

void HandleTable::removeChildrenOfDevice(uint32_t device) {
  for (auto it = m_entries.begin(); it != m_entries.end();) {
    const Entry &e = it->second;
    bool child = (e.application && e.application->device == device) ||
                 (e.container && e.container->device == device) ||
                 (e.key && e.key->device == device) || (e.hash && e.hash->device == device);
    it = child ? m_entries.erase(it) : std::next(it);
  }
}

void HandleTable::removeChildrenOfApplication(uint32_t application) {
  for (auto it = m_entries.begin(); it != m_entries.end();) {
    bool child = it->second.container && it->second.container->application == application;
    it = child ? m_entries.erase(it) : std::next(it);
  }
}

uint32_t HandleTable::idOf(HANDLE h) {
  return static_cast<uint32_t>(valueOf(h) & kNumberMask);
}

std::string HandleTable::describe(HANDLE h) const {
  if (h == nullptr) return "0";
  uintptr_t kind = valueOf(h) >> kKindShift;
  char text[32];
  if (kind >= 1 && kind <= 5 && idOf(h) != 0) {
    snprintf(text, sizeof text, "%c%u", kKindLetter[kind], static_cast<unsigned>(idOf(h)));
  } else {
    snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(valueOf(h)));
  }
  return text;
}

}  // namespace softskf
}  // namespace tembra
