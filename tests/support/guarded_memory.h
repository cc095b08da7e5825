// Memory that ends at an inaccessible page: a read or write beyond it crashes at once, even in a
// library's assembly, where the sanitizers see nothing.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace vesper::test {

// `T` is a plain number. The memory is writable and initially zero.
template <typename T>
class GuardedMemory {
  public:
    explicit GuardedMemory(std::size_t count) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t bytes = count * sizeof(T);
        const std::size_t usable = (bytes + page - 1) / page * page;
        mapped_bytes_ = usable + page;
        mapping_ = static_cast<std::uint8_t*>(mmap(nullptr, mapped_bytes_, PROT_READ | PROT_WRITE,
                                                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_NE(mapping_, MAP_FAILED);
        EXPECT_EQ(mprotect(mapping_ + usable, page, PROT_NONE), 0);
        values_ = {reinterpret_cast<T*>(mapping_ + usable - bytes), count};
    }
    ~GuardedMemory() { munmap(mapping_, mapped_bytes_); }
    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;

    [[nodiscard]] T* data() const { return values_.data(); }
    [[nodiscard]] std::size_t size() const { return values_.size(); }
    [[nodiscard]] std::span<T> values() const { return values_; }

  private:
    std::uint8_t* mapping_ = nullptr;
    std::size_t mapped_bytes_ = 0;
    std::span<T> values_;
};

}  // namespace vesper::test
