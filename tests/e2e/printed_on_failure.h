// What a program wrote, for the one who reads a test's failure.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <iostream>

#include "tests/support/child_process.h"

namespace vesper::test {

// Prints what `process` has written, both streams, once this object ends in a test that has failed,
// or because of an exception.
class PrintedOnFailure {
  public:
    explicit PrintedOnFailure(ChildProcess& process) : process_(process) {}
    ~PrintedOnFailure() {
        if (testing::Test::HasFailure() || std::uncaught_exceptions() > 0) {
            std::cout << process_.out() << process_.err() << std::flush;
        }
    }
    PrintedOnFailure(const PrintedOnFailure&) = delete;
    PrintedOnFailure& operator=(const PrintedOnFailure&) = delete;

  private:
    ChildProcess& process_;
};

}  // namespace vesper::test
