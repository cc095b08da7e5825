// A rule that must hold for any input.
#pragma once

#include <sanitizer/common_interface_defs.h>

#include <cstdlib>

namespace vesper::fuzz {

// Ends the run, naming the broken rule, when it does not hold; libFuzzer then keeps the input. The
// sanitizer prints, because the fuzzers run with standard error closed.
inline void require(bool holds, const char* rule) {
    if (!holds) {
        __sanitizer_report_error_summary(rule);
        std::abort();
    }
}

}  // namespace vesper::fuzz
