// Bounded string and memory routines. Every copy, fill, concatenation,
// formatting and scan in the daemon goes through these with the
// destination's size. None of them logs; callers log their own failure.
#pragma once

#include <cstdarg>
#include <cstddef>

using errno_t = int;

// Error values of the copy and fill routines. Bit 128 means that the
// destination was reset (memcpy_s: zeroed over destMax bytes; memset_s:
// filled; string routines: emptied).
constexpr errno_t EOK = 0;
constexpr errno_t SECUREC_EINVAL = 22;                 // destination null
constexpr errno_t SECUREC_ERANGE = 34;                 // destMax 0 or above the limit
constexpr errno_t SECUREC_EINVAL_AND_RESET = 22 + 128; // source null
constexpr errno_t SECUREC_ERANGE_AND_RESET = 34 + 128; // destination too small
constexpr errno_t SECUREC_EOVERLAP_AND_RESET = 54 + 128;

constexpr size_t SECUREC_MEM_MAX_LEN = 0x7FFFFFFF;
constexpr size_t SECUREC_STRING_MAX_LEN = 0x7FFFFFFF;

errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count);
errno_t memset_s(void *dest, size_t destMax, int c, size_t count);
errno_t strcpy_s(char *dest, size_t destMax, const char *src);
errno_t strncpy_s(char *dest, size_t destMax, const char *src, size_t count);
errno_t strcat_s(char *dest, size_t destMax, const char *src);

// Formatting: the number of characters written, or -1 (see each contract).
int sprintf_s(char *dest, size_t destMax, const char *format, ...) __attribute__((format(printf, 3, 4)));
int snprintf_s(char *dest, size_t destMax, size_t count, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
int vsnprintf_s(char *dest, size_t destMax, size_t count, const char *format, va_list argList)
    __attribute__((format(printf, 4, 0)));

// Scanning: "%d", "%i" (decimal, 0 octal, 0x hexadecimal), "%s" and literal
// characters. Every "%s" target is followed by its size as a size_t.
// Returns the number of conversions stored, or -1 when the source or format
// is null or the source is empty.
int sscanf_s(const char *buffer, const char *format, ...);
int vsscanf_s(const char *buffer, const char *format, va_list argList);

char *strtok_s(char *strToken, const char *strDelimit, char **context);
