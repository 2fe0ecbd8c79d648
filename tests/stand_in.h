// SPDX-License-Identifier: Apache-2.0
// How a test takes the place of a function of the C library.
#pragma once

// Where off_t would have 32 bits, glibc's headers map the name to that of a large-file variant.
#if defined(__GLIBC__) && !defined(__LP64__) && defined(_FILE_OFFSET_BITS) && \
    _FILE_OFFSET_BITS == 64
#define LARGE(name) #name "64"
#else
#define LARGE(name) #name
#endif

// Defines a function with the C library's symbol and another name in C++: the declarations of C
// libraries differ in exception specifications, overloads for fortified calls and parameter types.
#define STAND_IN(symbol, result, name, ...)   \
    result name(__VA_ARGS__) __asm__(symbol); \
    result name(__VA_ARGS__)
