// The scan routine and the token cutter.
//
// sscanf_s knows what the daemon's formats use: "%d", "%i", "%s" with a size,
// "%%", white space (any run of it, also none) and literal characters. Numbers
// follow strtol, so "%i" takes decimal, octal with a leading 0 and hexadecimal
// with 0x, and a value out of range wraps the way the C library's scanf does.
// A "%s" whose word does not fit its size (terminator included) fails that
// conversion, empties the target and ends the scan.
#include "securec.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kScanMaxSourceLen = 0x7FFFFFFE;

bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

const char *SkipSpace(const char *p)
{
    while (*p != '\0' && IsSpace(*p)) {
        ++p;
    }
    return p;
}

enum class Step { Stored, Mismatch, EndOfInput };

class Scanner {
public:
    Scanner(const char *input, va_list &argList) : in_(input), args_(argList) {}

    int Run(const char *format)
    {
        const char *f = format;
        while (*f != '\0') {
            Step step;
            if (IsSpace(*f)) {
                in_ = SkipSpace(in_);
                f = SkipSpace(f);
                continue;
            }
            if (*f == '%' && f[1] != '%') {
                step = Convert(f[1]);
                if (f[1] != '\0') {
                    ++f;
                }
                ++f;
            } else {
                char literal = *f;
                f += (*f == '%') ? 2 : 1;
                step = MatchLiteral(literal);
            }
            if (step == Step::EndOfInput) {
                return stored_ == 0 ? -1 : stored_;
            }
            if (step == Step::Mismatch) {
                return stored_;
            }
        }
        return stored_;
    }

private:
    Step MatchLiteral(char literal)
    {
        if (*in_ == '\0') {
            return Step::EndOfInput;
        }
        if (*in_ != literal) {
            return Step::Mismatch;
        }
        ++in_;
        return Step::Stored;
    }

    Step Convert(char conversion)
    {
        switch (conversion) {
            case 'd':
                return ConvertInt(10);
            case 'i':
                return ConvertInt(0);
            case 's':
                return ConvertString();
            default:
                return Step::Mismatch;  // not a conversion this routine knows
        }
    }

    Step ConvertInt(int base)
    {
        int *target = va_arg(args_, int *);
        in_ = SkipSpace(in_);
        if (*in_ == '\0') {
            return Step::EndOfInput;
        }
        char *end = nullptr;
        int savedErrno = errno;
        long value = std::strtol(in_, &end, base);
        errno = savedErrno;
        if (end == in_) {
            return Step::Mismatch;
        }
        in_ = end;
        if (target != nullptr) {
            *target = static_cast<int>(value);
        }
        ++stored_;
        return Step::Stored;
    }

    Step ConvertString()
    {
        char *target = va_arg(args_, char *);
        size_t size = va_arg(args_, size_t);
        in_ = SkipSpace(in_);
        if (*in_ == '\0') {
            return Step::EndOfInput;
        }
        size_t len = 0;
        while (in_[len] != '\0' && !IsSpace(in_[len])) {
            ++len;
        }
        if (target == nullptr || size == 0 || len >= size) {
            if (target != nullptr && size != 0) {
                target[0] = '\0';
            }
            return Step::Mismatch;
        }
        std::memcpy(target, in_, len);
        target[len] = '\0';
        in_ += len;
        ++stored_;
        return Step::Stored;
    }

    const char *in_;
    va_list &args_;
    int stored_ = 0;
};

}  // namespace

int vsscanf_s(const char *buffer, const char *format, va_list argList)
{
    if (buffer == nullptr || format == nullptr) {
        return -1;
    }
    size_t len = strnlen(buffer, kScanMaxSourceLen + 1);
    if (len == 0 || len > kScanMaxSourceLen) {
        return -1;
    }
    va_list args;
    va_copy(args, argList);
    int ret = Scanner(buffer, args).Run(format);
    va_end(args);
    return ret;
}

int sscanf_s(const char *buffer, const char *format, ...)
{
    va_list argList;
    va_start(argList, format);
    int ret = vsscanf_s(buffer, format, argList);
    va_end(argList);
    return ret;
}

char *strtok_s(char *strToken, const char *strDelimit, char **context)
{
    if (strDelimit == nullptr || context == nullptr) {
        return nullptr;
    }
    char *p = (strToken != nullptr) ? strToken : *context;
    if (p == nullptr) {
        return nullptr;
    }
    p += std::strspn(p, strDelimit);
    if (*p == '\0') {
        *context = p;
        return nullptr;
    }
    char *end = p + std::strcspn(p, strDelimit);
    if (*end != '\0') {
        *end = '\0';
        ++end;
    }
    *context = end;
    return p;
}
