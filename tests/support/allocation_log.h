// Watches the heap. A program that compiles allocation_log.cpp has every operator new and delete
// replaced, and a test can ask what one action allocated and freed, or make an allocation fail.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <span>

namespace vesper::test {

// What one thread did through operator new and delete. Its storage is fixed: a log that allocates
// would watch itself.
class AllocationLog {
  public:
    struct Allocation {
        const void* address;
        std::size_t size;  // bytes asked for
    };

    // Aborts when the log is full.
    void add(Allocation allocation);
    void add_release(const void* address);

    // In the order of the calls.
    [[nodiscard]] std::span<const Allocation> allocations() const;
    [[nodiscard]] std::span<const void* const> releases() const;

  private:
    static constexpr std::size_t kCapacity = 1024;

    std::array<Allocation, kCapacity> allocations_{};
    std::array<const void*, kCapacity> releases_{};
    std::size_t allocation_count_ = 0;
    std::size_t release_count_ = 0;
};

// From now on records what the calling thread does in `log`, replacing an earlier one; null ends
// that. For code that cannot be split into actions.
void watch_allocations(AllocationLog* log);

// Runs `action` and returns what the calling thread allocates and frees during it. Do not nest.
[[nodiscard]] AllocationLog allocations_of(const std::function<void()>& action);

// Makes the `n`th allocation of the calling thread from now on fail, once; 1 is the next one.
void fail_allocation(int n);

}  // namespace vesper::test
