// The replaceable global allocation functions of this test binary: malloc
// and free underneath, so that the sanitizers still pair every allocation,
// and a per-thread budget that makes operator new fail on purpose.
#include "support/alloc_fail.h"

#include <cstdlib>
#include <new>

namespace qmtest {

namespace {

constexpr int64_t kUnlimited = -1;
thread_local int64_t t_budget = kUnlimited;

void *Allocate(std::size_t size)
{
    if (t_budget == 0) {
        throw std::bad_alloc();
    }
    if (t_budget > 0) {
        --t_budget;
    }
    void *p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

}  // namespace

AllocationBudget::AllocationBudget(int64_t allocations)
{
    t_budget = allocations < 0 ? kUnlimited : allocations;
}

AllocationBudget::~AllocationBudget()
{
    t_budget = kUnlimited;
}

AllocationBudgetPause::AllocationBudgetPause() : saved_(t_budget)
{
    t_budget = kUnlimited;
}

AllocationBudgetPause::~AllocationBudgetPause()
{
    t_budget = saved_;
}

}  // namespace qmtest

void *operator new(std::size_t size)
{
    return qmtest::Allocate(size);
}

void *operator new[](std::size_t size)
{
    return qmtest::Allocate(size);
}

void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    try {
        return qmtest::Allocate(size);
    } catch (...) {
        return nullptr;
    }
}

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    try {
        return qmtest::Allocate(size);
    } catch (...) {
        return nullptr;
    }
}

void operator delete(void *p) noexcept
{
    std::free(p);
}

void operator delete[](void *p) noexcept
{
    std::free(p);
}

void operator delete(void *p, std::size_t) noexcept
{
    std::free(p);
}

void operator delete[](void *p, std::size_t) noexcept
{
    std::free(p);
}

void operator delete(void *p, const std::nothrow_t &) noexcept
{
    std::free(p);
}

void operator delete[](void *p, const std::nothrow_t &) noexcept
{
    std::free(p);
}
