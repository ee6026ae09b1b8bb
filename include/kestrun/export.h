// kestrun/export.h: marks what the shared library shows to its users; all else is hidden.
#pragma once

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "Kestrun stores its integers as the processor holds them and needs a little-endian machine"
#endif
#ifdef __cplusplus
static_assert(sizeof(void*) == 8 && sizeof(long) == 8, "Kestrun needs a 64-bit system with a 64-bit long");
#endif

#define KESTRUN_EXPORT __attribute__((visibility("default")))
