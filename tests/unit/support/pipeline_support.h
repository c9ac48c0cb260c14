// Test support for the event pipeline: a scripted stand-in for the product
// driver behind the misc channel, draining of the event list the way the
// handle thread does it, and deadline-based waiting. Nothing here touches
// the host's /dev: the channel's ioctls go to the script.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "misc_ioctl.h"
#include "securec.h"
#include "udev_event.h"
#include "udev_list.h"

namespace qmtest {

// Waits until `done` holds or the deadline passes; returns the last answer.
inline bool WaitUntil(const std::function<bool()> &done, std::chrono::milliseconds deadline = std::chrono::seconds(20))
{
    auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        if (done()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= end) {
            return done();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

struct DriverCall {
    unsigned long request;
    std::string text;
    bool operator==(const DriverCall &) const = default;
};

inline const char *RequestName(unsigned long request)
{
    switch (request) {
        case MISC_IOCTL_ADD:
            return "add";
        case MISC_IOCTL_REMOVE:
            return "remove";
        case MISC_IOCTL_CHANGE:
            return "change";
        default:
            return "other";
    }
}

// The product driver as the misc channel sees it. Each request is
// recorded; its `status` comes from the queue of scripted replies (then the
// default). A negative scripted value makes the ioctl itself fail. A hold
// parks the next request inside the ioctl until Release(), so a test can
// act while the handle thread is busy in a dispatch.
class FakeDriver {
public:
    static constexpr int kFakeFd = 4242;

    FakeDriver()
    {
        Current() = this;
        UTIL_MiscSetForTest(kFakeFd, &FakeDriver::Ioctl);
    }
    ~FakeDriver()
    {
        UTIL_MiscSetForTest(-1, nullptr);
        Current() = nullptr;
    }
    FakeDriver(const FakeDriver &) = delete;
    FakeDriver &operator=(const FakeDriver &) = delete;

    void SetDefault(int status)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        default_ = status;
    }
    void Script(std::vector<int> statuses)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        script_.assign(statuses.begin(), statuses.end());
    }
    std::vector<DriverCall> Calls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    size_t CallCount()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_.size();
    }
    void ClearCalls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.clear();
    }
    void HoldNext()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        holdNext_ = true;
    }
    bool WaitHeld()
    {
        return WaitUntil([this] {
            std::lock_guard<std::mutex> lock(mutex_);
            return held_;
        });
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        holdNext_ = false;
        released_ = true;
        cond_.notify_all();
    }

private:
    static FakeDriver *&Current()
    {
        static FakeDriver *current = nullptr;
        return current;
    }

    static int Ioctl(int /* fd */, unsigned long request, void *arg)
    {
        return Current()->Handle(request, static_cast<MiscCtrlParam *>(arg));
    }

    int Handle(unsigned long request, MiscCtrlParam *param)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        std::string text = param != nullptr ? std::string(param->data, strnlen(param->data, param->bufLen)) : "";
        calls_.push_back({request, text});
        if (holdNext_) {
            holdNext_ = false;
            held_ = true;
            cond_.wait(lock, [this] { return released_; });
        }
        int status = default_;
        if (!script_.empty()) {
            status = script_.front();
            script_.pop_front();
        }
        if (status < 0) {
            return status;
        }
        if (param != nullptr) {
            param->status = static_cast<uint32_t>(status);
        }
        return 0;
    }

    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<DriverCall> calls_;
    std::deque<int> script_;
    int default_ = 1024;
    bool holdNext_ = false;
    bool held_ = false;
    bool released_ = false;
};

// Moves everything queued on the event list to `out` through the handle
// thread's own wait (UDEV_WaitAndTakeEvents), run on a helper thread and
// woken until it returns. The wait is unconditional, so one wake-up is
// enough; repeated ones cover a helper that was not waiting yet.
inline bool TakeQueued(UdevListHead *out)
{
    std::atomic<bool> done{false};
    bool took = false;
    std::thread waiter([&] {
        took = UDEV_WaitAndTakeEvents(out);
        done.store(true);
    });
    while (!done.load()) {
        UDEV_SignalEventList();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    waiter.join();
    return took;
}

// Drains the event list until at least `count` nodes arrived in `out`.
inline bool TakeAtLeast(UdevListHead *out, size_t count)
{
    return WaitUntil([&] {
        (void)TakeQueued(out);
        size_t n = 0;
        for (UdevListHead *pos = out->next; pos != out; pos = pos->next) {
            ++n;
        }
        return n >= count;
    });
}

inline std::vector<UdevEventNode *> NodesOf(UdevListHead *list)
{
    std::vector<UdevEventNode *> nodes;
    for (UdevListHead *pos = list->next; pos != list; pos = pos->next) {
        nodes.push_back(UDEV_NodeOf(pos));
    }
    return nodes;
}

// A node as the start-up scan builds it: complete, without a udev device,
// so enrichment passes it unchanged. `tag` goes into devInfo (sent with an
// add) so that nodes of one device can be told apart.
inline UdevEventNode *MakeNode(const char *action, const char *devNum, const std::string &tag = "")
{
    UdevEventNode *node = UDEV_AllocEventNode();
    if (node == nullptr) {
        return nullptr;
    }
    (void)sprintf_s(node->action, sizeof(node->action), "%s", action);
    (void)sprintf_s(node->devNum, sizeof(node->devNum), "%s", devNum);
    (void)sprintf_s(node->devInfo, sizeof(node->devInfo), "%s nvme VENDOR PRODUCT %s", devNum, tag.c_str());
    node->protocol = 1;
    return node;
}

}  // namespace qmtest
