// Replacing C functions at link time.
//
// A test program linked with -Wl,--wrap=NAME (vesper_add_test's WRAP) sends every call of NAME to
// __wrap_NAME. VESPER_HOOK(NAME, result, parameters, arguments), once per program, defines that
// function together with a std::function named hook_NAME:
//
//     VESPER_HOOK(SDL_CreateRenderer, SDL_Renderer*, (SDL_Window * window, int index, Uint32
//     flags),
//                 (window, index, flags))
//
//     TEST_F(ReceiverSetUp, ...) {
//         hook_SDL_CreateRenderer = [](auto...) { return nullptr; };
//
// An empty hook means the real function, which a hook reaches as __real_NAME. Hooks are set while
// no other thread runs; derive a fixture from HookedTest, which empties all of them after each
// test.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace vesper::test {

// Functions that empty one hook each; filled by VESPER_HOOK.
inline std::vector<void (*)()>& hook_resets() {
    static std::vector<void (*)()> resets;
    return resets;
}

struct HookRegistration {
    explicit HookRegistration(void (*reset)()) { hook_resets().push_back(reset); }
};

class HookedTest : public testing::Test {
  protected:
    void TearDown() override {
        for (void (*reset)() : hook_resets()) {
            reset();
        }
    }
};

}  // namespace vesper::test

// The two functions get their names by asm labels, and not by C linkage, because what they stand
// for may be a C++ function whose types C does not have.
//
// NOLINTBEGIN: the names are the linker's.
#define VESPER_HOOK(name, result, parameters, arguments)                      \
    result __real_##name parameters __asm__("__real_" #name);                 \
    static std::function<result parameters> hook_##name;                      \
    static const vesper::test::HookRegistration registration_##name(          \
        [] { hook_##name = nullptr; });                                       \
    result __wrap_##name parameters __asm__("__wrap_" #name);                 \
    result __wrap_##name parameters {                                         \
        return hook_##name ? hook_##name arguments : __real_##name arguments; \
    }
// NOLINTEND
