/*
 * The interactive control calls (MCInit, MCReport, MCCheck and their like) take their integers with the
 * bytes reversed. These macros reverse an argument: MCReport(K42MC_BE32(2)), MCCheck(K42MC_BE_ADDR(p)).
 */
#ifndef K42MC_BYTEORDER_H
#define K42MC_BYTEORDER_H

#include <stdint.h>

/* A 32-bit value with its four bytes reversed; a constant expression if the argument is one. */
#define K42MC_BE32(value) ((uint32_t)__builtin_bswap32((uint32_t)(value)))

/* A pointer or an address with all its bytes reversed. */
#if UINTPTR_MAX > 0xFFFFFFFFu
#define K42MC_BE_ADDR(address) ((uintptr_t)__builtin_bswap64((uintptr_t)(address)))
#else
#define K42MC_BE_ADDR(address) ((uintptr_t)__builtin_bswap32((uintptr_t)(address)))
#endif

#endif
