// The hook for fcntl(), which is variadic. Include it in one source of a program that wraps fcntl.
#pragma once

#include <fcntl.h>

#include <cstdarg>
#include <cstdint>
#include <functional>

#include "tests/support/hook.h"

// NOLINTBEGIN: the names are the linker's, and fcntl is variadic.
extern "C" int __real_fcntl(int fd, int command, ...);
static std::function<int(int fd, int command, long argument)> hook_fcntl;
static const vesper::test::HookRegistration registration_fcntl([] { hook_fcntl = nullptr; });
extern "C" int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    // As wide as the widest: the coverage counters are written under a lock, which is a pointer.
    void* argument = command == F_GETFL || command == F_GETFD ? nullptr : va_arg(arguments, void*);
    va_end(arguments);
    return hook_fcntl ? hook_fcntl(fd, command,
                                   static_cast<int>(reinterpret_cast<std::intptr_t>(argument)))
                      : __real_fcntl(fd, command, argument);
}
// NOLINTEND
