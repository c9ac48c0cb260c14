// Helpers shared by the fuzz harnesses: a hard check that libFuzzer reports
// as a crash, an in-memory file with a path for the readers that take one,
// and heap buffers with guard bytes around them.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

// abort() rather than a return value: libFuzzer keeps the input that made
// the check fail as a crash artifact, with this message in the log.
[[noreturn]] __attribute__((format(printf, 3, 4))) inline void FuzzFail(const char *file, int line,
                                                                       const char *format, ...)
{
    std::fprintf(stderr, "\n*** fuzz check failed at %s:%d: ", file, line);
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stderr, format, ap);
    va_end(ap);
    std::fprintf(stderr, "\n");
    std::fflush(stderr);
    std::abort();
}

#define FUZZ_CHECK(cond, ...)                            \
    do {                                                 \
        if (!(cond)) {                                   \
            FuzzFail(__FILE__, __LINE__, __VA_ARGS__);   \
        }                                                \
    } while (0)

// Printable form of a byte range for failure messages.
inline std::string FuzzShow(const void *data, size_t len)
{
    std::string out;
    const auto *p = static_cast<const unsigned char *>(data);
    for (size_t i = 0; i < len; ++i) {
        if (p[i] >= 0x20 && p[i] < 0x7F && p[i] != '\\') {
            out.push_back(static_cast<char>(p[i]));
        } else {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02x", p[i]);
            out += hex;
        }
    }
    return out;
}

inline std::string FuzzShow(const std::string &s)
{
    return FuzzShow(s.data(), s.size());
}

// The readers under test open a path with fopen; a memfd reached through
// /proc/self/fd gives them one without writing to any real directory, and
// leaves nothing behind when the process dies on a finding.
class FuzzMemFile {
public:
    FuzzMemFile()
    {
        fd_ = memfd_create("qmudev-fuzz", 0);
        FUZZ_CHECK(fd_ >= 0, "memfd_create failed");
        std::snprintf(path_, sizeof(path_), "/proc/self/fd/%d", fd_);
    }
    ~FuzzMemFile() { close(fd_); }
    FuzzMemFile(const FuzzMemFile &) = delete;
    FuzzMemFile &operator=(const FuzzMemFile &) = delete;

    void Set(const uint8_t *data, size_t size)
    {
        FUZZ_CHECK(ftruncate(fd_, 0) == 0, "ftruncate failed");
        size_t done = 0;
        while (done < size) {
            ssize_t n = pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
            FUZZ_CHECK(n > 0, "pwrite failed");
            done += static_cast<size_t>(n);
        }
    }
    const char *Path() const { return path_; }

private:
    int fd_ = -1;
    char path_[64] = {};
};

// A heap buffer of `size` usable bytes with kGuard pattern bytes on either
// side. ASan sees the whole block as valid, so a write just past the
// declared size lands in the guard and is caught by Intact() instead.
class FuzzGuarded {
public:
    static constexpr size_t kGuard = 16;
    static constexpr unsigned char kPattern = 0xA5;

    explicit FuzzGuarded(size_t size, unsigned char fill = 0x5A) : size_(size)
    {
        block_ = static_cast<unsigned char *>(std::malloc(size + 2 * kGuard));
        FUZZ_CHECK(block_ != nullptr, "malloc failed");
        std::memset(block_, kPattern, kGuard);
        std::memset(block_ + kGuard, fill, size);
        std::memset(block_ + kGuard + size, kPattern, kGuard);
    }
    ~FuzzGuarded() { std::free(block_); }
    FuzzGuarded(const FuzzGuarded &) = delete;
    FuzzGuarded &operator=(const FuzzGuarded &) = delete;

    char *Data() { return reinterpret_cast<char *>(block_ + kGuard); }
    size_t Size() const { return size_; }
    bool Intact() const
    {
        for (size_t i = 0; i < kGuard; ++i) {
            if (block_[i] != kPattern || block_[kGuard + size_ + i] != kPattern) {
                return false;
            }
        }
        return true;
    }
    // True when the text in the buffer ends within its declared size.
    bool Terminated() const { return std::memchr(block_ + kGuard, 0, size_) != nullptr; }

private:
    unsigned char *block_ = nullptr;
    size_t size_ = 0;
};

// Splits "key=value" lines (the text seed format of some harnesses); a
// value runs to the end of its line and may hold any byte but a newline.
inline std::vector<std::pair<std::string, std::string>> FuzzKeyValueLines(const uint8_t *data, size_t size)
{
    std::vector<std::pair<std::string, std::string>> out;
    std::string text(reinterpret_cast<const char *>(data), size);
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = text.substr(pos, end - pos);
        size_t eq = line.find('=');
        if (eq != std::string::npos) {
            out.emplace_back(line.substr(0, eq), line.substr(eq + 1));
        }
        pos = end + 1;
    }
    return out;
}
