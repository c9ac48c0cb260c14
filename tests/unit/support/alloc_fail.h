// Runs out of memory on demand: the test binary replaces the global
// operator new (support/alloc_fail.cpp), which fails with std::bad_alloc on
// the calling thread once a budget of allocations is spent.
#pragma once

#include <cstdint>

namespace qmtest {

// While it lives, this thread's next `allocations` operator new calls
// succeed and every later one throws.
class AllocationBudget {
public:
    explicit AllocationBudget(int64_t allocations);
    ~AllocationBudget();
    AllocationBudget(const AllocationBudget &) = delete;
    AllocationBudget &operator=(const AllocationBudget &) = delete;
};

// While it lives, this thread allocates without a budget (a test's own
// bookkeeping inside a call under a budget, such as a captured log line).
class AllocationBudgetPause {
public:
    AllocationBudgetPause();
    ~AllocationBudgetPause();
    AllocationBudgetPause(const AllocationBudgetPause &) = delete;
    AllocationBudgetPause &operator=(const AllocationBudgetPause &) = delete;

private:
    int64_t saved_;
};

}  // namespace qmtest
