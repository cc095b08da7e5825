// Uses the heap in the way that its one argument names, right or wrong, and ends with status 0 if
// nothing stops it. For the test of the heap guard.
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <new>
#include <string>

namespace {

// The compiler must not know what it calls: it knows what malloc() and free() do, warns of misuse,
// and leaves out both where nothing comes of them. Nor what is done to a block.
void* (*volatile const allocate)(std::size_t) = std::malloc;
void (*volatile const deallocate)(void*) = std::free;
using Bytes = volatile unsigned char*;

Bytes make(std::size_t size) {
    return static_cast<Bytes>(allocate(size));
}

void release(Bytes block) {
    deallocate(const_cast<unsigned char*>(block));
}

void write_at(std::size_t size, std::ptrdiff_t at) {
    Bytes const block = make(size);
    block[at] = 1;
    release(block);
}

void read_at(std::size_t size, std::ptrdiff_t at) {
    Bytes const block = make(size);
    static_cast<void>(block[at]);
    release(block);
}

// All of a block of `size` bytes at `block`, whose alignment is to be this.
void fill(void* block, std::size_t size, std::size_t alignment) {
    if (block == nullptr || reinterpret_cast<std::uintptr_t>(block) % alignment != 0) {
        std::exit(1);
    }
    std::fill_n(static_cast<Bytes>(block), size, static_cast<unsigned char>(1));
}

void use_in_order() {
    constexpr std::size_t kUsual = alignof(std::max_align_t);
    for (std::size_t size = 1; size <= 5000; ++size) {
        void* block = std::malloc(size);
        fill(block, size, kUsual);
        block = std::realloc(block, size + 700);
        fill(block, size + 700, kUsual);
        std::free(block);
        block = std::calloc(size, 2);
        if (Bytes const bytes = static_cast<Bytes>(block);
            bytes[0] != 0 || bytes[2 * size - 1] != 0) {
            std::exit(1);
        }
        fill(block, 2 * size, kUsual);
        std::free(block);
        block = ::operator new(size);
        fill(block, size, kUsual);
        ::operator delete(block);
    }
    for (std::size_t alignment = 1; alignment <= 65'536; alignment *= 2) {
        for (const std::size_t size : {100U, 1000U, 4096U, 5000U, 100'000U}) {
            void* const block = memalign(alignment, size);
            fill(block, size, alignment);
            std::free(block);
        }
    }
}

void free_twice() {
    Bytes const block = make(1000);
    release(block);
    release(block);
}

void read_freed() {
    Bytes const block = make(1000);
    release(block);
    static_cast<void>(block[0]);
}

// Too much for any machine: refused, as without the guard.
void ask_for_too_much() {
    if (make(PTRDIFF_MAX) != nullptr) {
        std::exit(1);
    }
    write_at(1000, 999);
}

// The kernel makes no more of the address space writable (setrlimit(2)), but the C library still
// has some of what it had.
void use_all_memory() {
    static_cast<void>(make(1));
    const rlimit none = {.rlim_cur = 0, .rlim_max = 0};
    if (setrlimit(RLIMIT_DATA, &none) != 0) {
        std::exit(1);
    }
    release(make(1000));
}

const std::map<std::string, std::function<void()>> kWays = {
    {"in_order", use_in_order},
    {"write_last_byte", [] { write_at(1000, 999); }},
    {"write_behind", [] { write_at(1024, 1024); }},
    {"read_behind", [] { read_at(1024, 1024); }},
    {"write_behind_unaligned", [] { write_at(1000, 1000); }},
    {"write_behind_alignment", [] { write_at(1000, 1008); }},
    {"read_behind_alignment", [] { read_at(1000, 1008); }},
    {"write_before", [] { write_at(1000, -1); }},
    {"write_before_page", [] { write_at(4096, -1); }},
    {"read_freed", read_freed},
    {"free_twice", free_twice},
    {"ask_for_too_much", ask_for_too_much},
    {"use_all_memory", use_all_memory},
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        return 1;
    }
    prctl(PR_SET_DUMPABLE, 0);  // it is to crash, and its address space is large
    kWays.at(argv[1])();
    return 0;
}
