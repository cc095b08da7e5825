#include "tests/support/allocation_log.h"

#include <cstdlib>
#include <new>

#ifdef __clang__
#if __has_feature(thread_sanitizer)
// The shared runtime of clang 14 crashes if a library allocates while it is being initialized,
// before the runtime is. This runs before all libraries' initialization, as the static runtime's
// own does.
extern "C" void __tsan_init();

namespace {
using Initializer = void (*)();
[[gnu::section(".preinit_array"), gnu::used]] const Initializer initialize_sanitizer = __tsan_init;
}  // namespace
#endif
#endif

namespace vesper::test {

namespace {

thread_local AllocationLog* current_log = nullptr;
thread_local int allocations_until_failure = 0;  // 0: none is to fail

void* allocate(std::size_t size) {
    if (allocations_until_failure > 0 && --allocations_until_failure == 0) {
        return nullptr;
    }
    void* const address = std::malloc(size == 0 ? 1 : size);
    if (address != nullptr && current_log != nullptr) {
        current_log->add({.address = address, .size = size});
    }
    return address;
}

void* allocate_or_throw(std::size_t size) {
    void* const address = allocate(size);
    if (address == nullptr) {
        throw std::bad_alloc();
    }
    return address;
}

void release(void* address) {
    if (address != nullptr && current_log != nullptr) {
        current_log->add_release(address);
    }
    std::free(address);
}

}  // namespace

void AllocationLog::add(Allocation allocation) {
    if (allocation_count_ == kCapacity) {
        std::abort();
    }
    allocations_[allocation_count_++] = allocation;
}

void AllocationLog::add_release(const void* address) {
    if (release_count_ == kCapacity) {
        std::abort();
    }
    releases_[release_count_++] = address;
}

std::span<const AllocationLog::Allocation> AllocationLog::allocations() const {
    return std::span(allocations_).first(allocation_count_);
}

std::span<const void* const> AllocationLog::releases() const {
    return std::span(releases_).first(release_count_);
}

void watch_allocations(AllocationLog* log) {
    current_log = log;
}

AllocationLog allocations_of(const std::function<void()>& action) {
    AllocationLog log;
    watch_allocations(&log);
    action();
    watch_allocations(nullptr);
    return log;
}

void fail_allocation(int n) {
    allocations_until_failure = n;
}

}  // namespace vesper::test

void* operator new(std::size_t size) {
    return vesper::test::allocate_or_throw(size);
}
void* operator new[](std::size_t size) {
    return vesper::test::allocate_or_throw(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return vesper::test::allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return vesper::test::allocate(size);
}
void operator delete(void* address) noexcept {
    vesper::test::release(address);
}
void operator delete[](void* address) noexcept {
    vesper::test::release(address);
}
void operator delete(void* address, std::size_t) noexcept {
    vesper::test::release(address);
}
void operator delete[](void* address, std::size_t) noexcept {
    vesper::test::release(address);
}
void operator delete(void* address, const std::nothrow_t&) noexcept {
    vesper::test::release(address);
}
void operator delete[](void* address, const std::nothrow_t&) noexcept {
    vesper::test::release(address);
}
