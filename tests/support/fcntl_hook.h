// The hook for fcntl(), which is variadic. Include it in one source of a program that wraps fcntl.
#pragma once

#include <fcntl.h>

#include <cstdarg>
#include <functional>

#include "tests/support/hook.h"

// NOLINTBEGIN: the names are the linker's, and fcntl is variadic.
extern "C" int __real_fcntl(int fd, int command, ...);
static std::function<int(int fd, int command, long argument)> hook_fcntl;
static const vesper::test::HookRegistration registration_fcntl([] { hook_fcntl = nullptr; });
extern "C" int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = command == F_GETFL ? 0 : va_arg(arguments, int);
    va_end(arguments);
    return hook_fcntl ? hook_fcntl(fd, command, argument) : __real_fcntl(fd, command, argument);
}
// NOLINTEND
