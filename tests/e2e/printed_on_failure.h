// What a program wrote, for the one who reads a test's failure.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <iostream>

#include "tests/support/child_process.h"

namespace vesper::test {

// Called by a destructor: prints what `process` has written, both streams, if the test has failed
// or an exception is ending it.
inline void print_on_failure(ChildProcess& process) {
    if (testing::Test::HasFailure() || std::uncaught_exceptions() > 0) {
        std::cout << process.out() << process.err() << std::flush;
    }
}

// Calls print_on_failure() when it is destroyed.
class PrintedOnFailure {
  public:
    explicit PrintedOnFailure(ChildProcess& process) : process_(process) {}
    ~PrintedOnFailure() { print_on_failure(process_); }
    PrintedOnFailure(const PrintedOnFailure&) = delete;
    PrintedOnFailure& operator=(const PrintedOnFailure&) = delete;

  private:
    ChildProcess& process_;
};

}  // namespace vesper::test
