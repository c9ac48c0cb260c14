// Formatting routines over the C library's formatter. The formatter always
// reports the full length of its output, which tells a cut output apart
// from an error: that is what lets snprintf_s keep the cut text when count
// is below destMax.
#include "securec.h"

#include <cstdint>
#include <cstdio>

namespace {

constexpr size_t kFormatMaxCount = 0x7FFFFFFE;
constexpr size_t kCountUnlimited = SIZE_MAX;

bool DestMaxInRange(size_t destMax)
{
    return destMax != 0 && destMax <= SECUREC_STRING_MAX_LEN;
}

int Fail(char *dest)
{
    dest[0] = '\0';
    return -1;
}

// Writes at most `limit` - 1 characters and a terminator; returns the full
// length of the output, or -1 on a formatter error.
int FormatInto(char *dest, size_t limit, const char *format, va_list argList)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    return std::vsnprintf(dest, limit, format, argList);
#pragma GCC diagnostic pop
}

}  // namespace

int vsnprintf_s(char *dest, size_t destMax, size_t count, const char *format, va_list argList)
{
    if (dest == nullptr || !DestMaxInRange(destMax)) {
        return -1;
    }
    if (format == nullptr || (count > kFormatMaxCount && count != kCountUnlimited)) {
        return Fail(dest);
    }
    if (count < destMax) {
        int written = FormatInto(dest, count + 1, format, argList);
        if (written < 0) {
            return Fail(dest);
        }
        // A cut output stays in dest, terminated after count characters.
        return static_cast<size_t>(written) > count ? -1 : written;
    }
    int written = FormatInto(dest, destMax, format, argList);
    if (written < 0 || static_cast<size_t>(written) >= destMax) {
        return Fail(dest);
    }
    return written;
}

int snprintf_s(char *dest, size_t destMax, size_t count, const char *format, ...)
{
    va_list argList;
    va_start(argList, format);
    int ret = vsnprintf_s(dest, destMax, count, format, argList);
    va_end(argList);
    return ret;
}

int sprintf_s(char *dest, size_t destMax, const char *format, ...)
{
    va_list argList;
    va_start(argList, format);
    // Output that does not fit whole empties dest: the rule of a count of
    // destMax or more. The all-ones count says so for every valid destMax;
    // destMax itself is not a valid count at 0x7FFFFFFF.
    int ret = vsnprintf_s(dest, destMax, kCountUnlimited, format, argList);
    va_end(argList);
    return ret;
}
