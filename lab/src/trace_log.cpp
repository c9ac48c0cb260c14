#include "qmlab/trace_log.h"

#include <cctype>
#include <cstring>

#include "qmlab/sandbox.h"

namespace qmlab {

namespace {

// Reads "[...]" at pos: the text between the brackets, or false.
bool Bracket(const std::string &text, size_t &pos, std::string &inside)
{
    if (pos >= text.size() || text[pos] != '[') {
        return false;
    }
    size_t close = text.find(']', pos + 1);
    if (close == std::string::npos || text.find('\n', pos) < close) {
        return false;
    }
    inside = text.substr(pos + 1, close - pos - 1);
    pos = close + 1;
    return true;
}

bool AllOf(const std::string &s, int (*pred)(int))
{
    if (s.empty()) {
        return false;
    }
    for (unsigned char c : s) {
        if (pred(c) == 0) {
            return false;
        }
    }
    return true;
}

int IsLowerHex(int c)
{
    return std::isdigit(c) != 0 || (c >= 'a' && c <= 'f') ? 1 : 0;
}

std::string TrimRight(std::string s)
{
    while (!s.empty() && s.back() == ' ') {
        s.pop_back();
    }
    return s;
}

// Parses a record head at pos; on success fills r and returns its length.
size_t ParseHead(const std::string &text, size_t start, TraceRecord &r)
{
    size_t pos = start;
    std::string seq, time, key, level, module, place;
    if (!Bracket(text, pos, seq) || !AllOf(seq, ::isdigit) || !Bracket(text, pos, time) ||
        !Bracket(text, pos, key) || key.size() != 16 || !AllOf(key, IsLowerHex) || !Bracket(text, pos, level) ||
        !Bracket(text, pos, module) || !Bracket(text, pos, place)) {
        return 0;
    }
    size_t colon = place.rfind(": ");
    if (colon == std::string::npos || !AllOf(place.substr(colon + 2), ::isdigit)) {
        return 0;
    }
    r.sequence = std::stol(seq);
    r.time = time;
    r.magic = static_cast<uint32_t>(std::stoul(key.substr(0, 8), nullptr, 16));
    r.module = static_cast<uint32_t>(std::stoul(key.substr(8, 2), nullptr, 16));
    r.zero = static_cast<uint32_t>(std::stoul(key.substr(10, 2), nullptr, 16));
    r.keyLine = static_cast<uint32_t>(std::stoul(key.substr(12, 4), nullptr, 16));
    r.level = TrimRight(level);
    r.moduleName = TrimRight(module);
    r.function = place.substr(0, colon);
    r.line = std::stol(place.substr(colon + 2));
    return pos - start;
}

}  // namespace

std::vector<TraceRecord> ParseTraceLog(const std::string &text)
{
    std::vector<TraceRecord> out;
    size_t pos = 0;
    size_t msgStart = std::string::npos;
    while (pos < text.size()) {
        size_t cand = text.find('[', pos);
        if (cand == std::string::npos) {
            break;
        }
        TraceRecord r;
        size_t len = cand + 1 < text.size() && std::isdigit(static_cast<unsigned char>(text[cand + 1])) != 0
                         ? ParseHead(text, cand, r)
                         : 0;
        if (len == 0) {
            pos = cand + 1;
            continue;
        }
        if (!out.empty()) {
            out.back().message = text.substr(msgStart, cand - msgStart);
            out.back().raw += out.back().message;
        }
        r.raw = text.substr(cand, len);
        out.push_back(std::move(r));
        msgStart = cand + len;
        pos = msgStart;
    }
    if (!out.empty()) {
        out.back().message = text.substr(msgStart);
        out.back().raw += out.back().message;
    }
    return out;
}

std::vector<TraceRecord> ReadTraceLog(const std::string &path)
{
    auto text = ReadFile(path);
    return text ? ParseTraceLog(*text) : std::vector<TraceRecord>{};
}

bool TraceContains(const std::vector<TraceRecord> &records, const std::string &text)
{
    for (const auto &r : records) {
        if (r.message.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace qmlab
