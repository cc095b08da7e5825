// Preloaded into a program before all its libraries: places every heap block of 512 bytes or more
// against an inaccessible page, and makes freed blocks inaccessible, so that a read or write beyond
// a block, or after it is freed, ends the program with SIGSEGV. That includes a library's assembly,
// of which the sanitizers see nothing.
//
// A block is aligned as its caller asked, so that up to 15 bytes may lie between its end and the
// page, or more where more alignment was asked for. They, and those between the block and the
// beginning of its first page, are filled, and checked when the block is freed. Smaller blocks, and
// those aligned to more than a page, are the C library's. Address space is never used twice.
//
// A program in which a larger block cannot be guarded ends with SIGABRT: what it does next would
// prove nothing.
//
// What SDL reads of a picture at its upload is checked, too: it gets a copy that ends at such a
// page.
#include <SDL2/SDL_render.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// The C library's own, by the names that it exports for allocators such as this one.
// NOLINTBEGIN: the names are the library's.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}
// NOLINTEND

namespace {

// glibc maps larger blocks one by one; smaller ones share pages, and there are too many of them.
constexpr std::size_t kSmallestGuarded = 512;  // bytes

constexpr std::size_t kPage = 4096;                         // bytes
constexpr std::size_t kArena = std::size_t{1} << 40;        // bytes of address space
constexpr std::size_t kUsualAlignment = 2 * sizeof(void*);  // what malloc() promises
constexpr unsigned char kFilling = 0xC5;

struct Arena {
    unsigned char* begin;
    std::size_t* sizes;  // of the block that begins in a page, by page
    std::atomic<std::size_t> used;
};

unsigned char* reserve(std::size_t bytes, int protection) {
    void* begin =
        mmap(nullptr, bytes, protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return begin == MAP_FAILED ? nullptr : static_cast<unsigned char*>(begin);
}

[[noreturn]] void die(const char* message) {
    static_cast<void>(!write(STDERR_FILENO, message, std::strlen(message)));
    std::abort();
}

Arena& arena() {
    // Before any constructor has run: the first block may be asked for by the loader.
    static Arena arena = {.begin = reserve(kArena, PROT_NONE),
                          .sizes = reinterpret_cast<std::size_t*>(reserve(
                              kArena / kPage * sizeof(std::size_t), PROT_READ | PROT_WRITE)),
                          .used = kPage};  // the first page guards what lies before it
    if (arena.begin == nullptr || arena.sizes == nullptr) {
        die("heap guard: no address space\n");
    }
    return arena;
}

std::size_t round_up(std::size_t size, std::size_t unit) {
    return (size + unit - 1) / unit * unit;
}

bool is_guarded(const void* block) {
    const auto* byte = static_cast<const unsigned char*>(block);
    return byte >= arena().begin && byte < arena().begin + kArena;
}

std::size_t& size_of(const void* block) {
    return arena()
        .sizes[static_cast<std::size_t>(static_cast<const unsigned char*>(block) - arena().begin) /
               kPage];
}

// Zeros; null where there is no memory, or too many blocks for the kernel. `alignment` is a power
// of two and no more than a page.
void* allocate(std::size_t size, std::size_t alignment) {
    if (size > kArena) {
        return nullptr;
    }
    const std::size_t usable = round_up(size, kPage);
    const std::size_t offset = arena().used.fetch_add(usable + kPage);
    if (offset + usable + kPage > kArena) {
        return nullptr;
    }
    unsigned char* const begin = arena().begin + offset;
    if (mprotect(begin, usable, PROT_READ | PROT_WRITE) != 0) {
        return nullptr;
    }
    unsigned char* const end = begin + usable;
    unsigned char* const block = end - round_up(size, alignment);
    std::fill(begin, block, kFilling);
    std::fill(block + size, end, kFilling);
    size_of(block) = size;
    return block;
}

// What the C library gives where allocate() gives nothing: nothing either, as without the guard.
void* nothing(const void* block) {
    if (block != nullptr) {
        die("heap guard: a block that cannot be guarded\n");
    }
    return nullptr;
}

bool is_filled(const unsigned char* begin, const unsigned char* end) {
    return std::all_of(begin, end, [](unsigned char c) { return c == kFilling; });
}

void release(void* block) {
    const std::size_t size = size_of(block);
    if (size == 0) {
        die("heap guard: freed twice, or not a block\n");
    }
    auto* const begin = static_cast<unsigned char*>(block);
    auto* const end = reinterpret_cast<unsigned char*>(
        round_up(reinterpret_cast<std::uintptr_t>(begin + size), kPage));
    auto* const first_page =
        reinterpret_cast<unsigned char*>(reinterpret_cast<std::uintptr_t>(begin) / kPage * kPage);
    if (!is_filled(begin + size, end)) {
        die("heap guard: written past the end of a block\n");
    }
    if (!is_filled(first_page, begin)) {
        die("heap guard: written before the beginning of a block\n");
    }
    size_of(block) = 0;
    const auto bytes = static_cast<std::size_t>(end - first_page);
    // Gives the memory back; the address stays taken. The mapping is a new one: a private one
    // that was written to is part of a core dump (core(5)).
    if (mmap(first_page, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED,
             -1, 0) == MAP_FAILED) {
        die("heap guard: a freed block that cannot be guarded\n");
    }
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
    if (size < kSmallestGuarded) {
        return __libc_malloc(size);
    }
    void* const block = allocate(size, kUsualAlignment);
    return block != nullptr ? block : nothing(__libc_malloc(size));
}

void free(void* block) {
    const int error = errno;  // which free() keeps
    if (is_guarded(block)) {
        release(block);
    } else {
        __libc_free(block);
    }
    errno = error;
}

void* calloc(std::size_t count, std::size_t size) {
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    if (bytes < kSmallestGuarded) {
        return __libc_calloc(count, size);
    }
    void* const block = allocate(bytes, kUsualAlignment);
    return block != nullptr ? block : nothing(__libc_calloc(count, size));
}

std::size_t malloc_usable_size(void* block) {
    if (block != nullptr && is_guarded(block)) {
        return size_of(block);
    }
    static auto* const real = next<std::size_t(void*)>("malloc_usable_size");
    return real(block);
}

void* realloc(void* block, std::size_t size) {
    if (block == nullptr) {
        return malloc(size);
    }
    if (!is_guarded(block) && size < kSmallestGuarded) {
        return __libc_realloc(block, size);
    }
    if (size == 0) {
        free(block);
        return nullptr;
    }
    void* moved = malloc(size);
    if (moved != nullptr) {
        std::memcpy(moved, block, std::min(size, malloc_usable_size(block)));
        free(block);
    }
    return moved;
}

void* memalign(std::size_t alignment, std::size_t size) {
    if (size < kSmallestGuarded || alignment > kPage) {
        return __libc_memalign(alignment, size);
    }
    // Of any other alignment, the C library makes the next power of two.
    void* const block = allocate(size, std::max(std::bit_ceil(alignment), kUsualAlignment));
    return block != nullptr ? block : nothing(__libc_memalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0 || alignment == 0) {
        return EINVAL;
    }
    void* const made = memalign(alignment, size);
    if (made == nullptr) {
        return ENOMEM;
    }
    *block = made;
    return 0;
}

int SDL_UpdateTexture(SDL_Texture* texture, const SDL_Rect* area, const void* pixels, int pitch) {
    static auto* const real =
        next<int(SDL_Texture*, const SDL_Rect*, const void*, int)>("SDL_UpdateTexture");
    static auto* const query =
        next<int(SDL_Texture*, Uint32*, int*, int*, int*)>("SDL_QueryTexture");
    int height = 0;
    if (area != nullptr || pixels == nullptr || pitch <= 0 ||
        query(texture, nullptr, nullptr, nullptr, &height) != 0) {
        return real(texture, area, pixels, pitch);
    }
    const std::size_t bytes = static_cast<std::size_t>(pitch) * static_cast<std::size_t>(height);
    void* const copy = allocate(bytes, 1);
    if (copy == nullptr) {
        die("heap guard: a picture that cannot be guarded\n");
    }
    std::memcpy(copy, pixels, bytes);
    const int result = real(texture, area, copy, pitch);
    free(copy);
    return result;
}

}  // extern "C"
