#include "toolkit/runtime/memory.h"

#include <cstdint>
#include <cstring>

#include "lib/heap.h"

namespace {

// Written by the start-up before the first thread, read by every allocation after.
kiv_allocreporter reporter;

}  // namespace

void kiv_setallocreporter(kiv_allocreporter report) { reporter = report; }

void kiv_allocfail(const char *tag, unsigned size) {
  if (reporter) reporter(tag ? tag : "kiv_alloc", size);
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
