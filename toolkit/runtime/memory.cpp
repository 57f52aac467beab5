#include "toolkit/runtime/memory.h"

#include <cstdint>
#include <cstring>

#include "lib/heap.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"

void kiv_allocfail(const char *tag, unsigned size) {
  // %d as the report gives it: a size of 2^31 or more prints negative.
  kiv_logerror(nullptr, tag ? tag : "kiv_alloc", KIV_SEV_FATAL, KIV_ENOMEM,
               "failed to allocate %d bytes", static_cast<int>(size));
  kivev_event ev{};
  ev.id = KIVEV_OUT_OF_MEMORY;
  ev.size = size;
  ev.text = tag ? tag : "kiv_alloc";
  kivev_emit(&ev);
}

void *kiv_alloc(unsigned size, const char *tag) {
  if (size == 0) return nullptr;
  void *p = xrealloc(nullptr, size, nullptr);
  if (!p) kiv_allocfail(tag, size);
  return p;
}

void *kiv_zalloc(unsigned size, const char *tag) {
  void *p = kiv_alloc(size, tag);
  if (p) memset(p, 0, size);
  return p;
}

void *kiv_allocsize(size_t size, const char *tag) {
  if (size > UINT32_MAX) {
    kiv_allocfail(tag, UINT32_MAX);
    return nullptr;
  }
  return kiv_alloc(static_cast<unsigned>(size), tag);
}

char *kiv_copytext(const char *text, size_t length, const char *tag) {
  // length + 1 would wrap to 0 at the top of size_t; such a text cannot be copied anyway.
  char *copy = static_cast<char *>(kiv_allocsize(length == SIZE_MAX ? length : length + 1, tag));
  if (copy) {
    memcpy(copy, text, length);
    copy[length] = '\0';
  }
  return copy;
}

void *kiv_realloc(void *block, unsigned size, const char *tag) {
  if (size == 0) {
    xfree(block);
    return nullptr;
  }
  if (!block) return kiv_alloc(size, tag);
  void *p = xrealloc(block, size, nullptr);
  if (!p) {
    kiv_allocfail(tag, size);
    return block;
  }
  return p;
}
