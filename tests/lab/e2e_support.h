// Helpers of the end-to-end scenarios over the driver requests, the trace
// file and the attribute writes.
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qmlab/lab.h"

namespace qmlab::test {

// Requests of one kind that have been answered, in arrival order.
inline std::vector<DriverRequest> Answered(const DriverEmulator &drv, DriverOp op)
{
    std::vector<DriverRequest> out;
    for (auto &r : drv.Requests(op)) {
        if (r.answered) {
            out.push_back(std::move(r));
        }
    }
    return out;
}

inline bool WaitAnswered(const DriverEmulator &drv, DriverOp op, size_t n, Clock::duration timeout)
{
    return drv.WaitFor(
        [op, n](const std::vector<DriverRequest> &all) {
            return static_cast<size_t>(std::count_if(all.begin(), all.end(), [op](const DriverRequest &r) {
                       return r.op == op && r.answered;
                   })) >= n;
        },
        timeout);
}

// The first answered request of `op` for one device number.
inline bool WaitAnsweredFor(const DriverEmulator &drv, DriverOp op, const std::string &devNum,
                            Clock::duration timeout)
{
    return drv.WaitFor(
        [&](const std::vector<DriverRequest> &all) {
            return std::any_of(all.begin(), all.end(), [&](const DriverRequest &r) {
                return r.op == op && r.answered && r.DevNum() == devNum;
            });
        },
        timeout);
}

// The texts of every ADD so far, by device number (the last one wins).
inline std::map<std::string, std::string> AddTexts(const DriverEmulator &drv)
{
    std::map<std::string, std::string> out;
    for (const auto &r : drv.Requests(DriverOp::Add)) {
        out[r.DevNum()] = r.text;
    }
    return out;
}

inline size_t CountAdds(const DriverEmulator &drv, const std::string &devNum)
{
    auto adds = drv.Requests(DriverOp::Add);
    return static_cast<size_t>(
        std::count_if(adds.begin(), adds.end(), [&](const DriverRequest &r) { return r.DevNum() == devNum; }));
}

// Trace records whose message contains `text`.
inline size_t TraceCount(const std::vector<TraceRecord> &records, const std::string &text)
{
    return static_cast<size_t>(std::count_if(records.begin(), records.end(), [&](const TraceRecord &r) {
        return r.message.find(text) != std::string::npos;
    }));
}

inline bool WaitTraceCount(const Lab &lab, const std::string &text, size_t n, Clock::duration timeout)
{
    return Eventually([&] { return TraceCount(lab.TraceLog(), text) >= n; }, timeout);
}

// The ERROR records of the trace, messages only.
inline std::vector<std::string> TraceErrors(const std::vector<TraceRecord> &records)
{
    std::vector<std::string> out;
    for (const auto &r : records) {
        if (r.level == "ERROR") {
            out.push_back(r.message);
        }
    }
    return out;
}

// "name=value" of every recorded write into the time-out attributes of one
// sysfs object, in order.
inline std::vector<std::string> WritesTo(const Testbed &tb, const std::string &syspath)
{
    std::vector<std::string> out;
    for (const auto &w : tb.AttributeWrites()) {
        if (w.syspath == syspath) {
            out.push_back(w.name + "=" + w.value);
        }
    }
    return out;
}

inline std::vector<std::string> NotifyTexts(Lab &lab, int pid = 0)
{
    EXPECT_TRUE(lab.sandbox().Notify().Sync());
    std::vector<std::string> out;
    for (const auto &d : lab.sandbox().Notifications()) {
        if (pid == 0 || d.pid == pid) {
            out.push_back(d.text);
        }
    }
    return out;
}

}  // namespace qmlab::test
