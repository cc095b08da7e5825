// The guard under which other tests run once more: what it ends, and what it leaves alone.
#include <gtest/gtest.h>

#include <csignal>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace vesper::test {
namespace {

struct Case {
    const char* name;
    std::string way;  // as heap_misuse names it
    int signal = 0;   // that ends the program; 0: none
    std::string message = {};
};

void PrintTo(const Case& one, std::ostream* stream) {
    *stream << one.way;
}

class HeapGuardDeathTest : public testing::TestWithParam<Case> {};

TEST_P(HeapGuardDeathTest, EndsAProgramThatMisusesABlockAndNoOther) {
    ChildProcess::Environment environment;
    preload(environment, VESPER_HEAP_GUARD);
    ChildProcess program({VESPER_HEAP_MISUSE, GetParam().way}, environment);
    EXPECT_EQ(program.wait_for_end(), (Ending{.status = 0, .signal = GetParam().signal}));
    EXPECT_EQ(program.err(), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    , HeapGuardDeathTest,
    testing::Values(Case{"InOrder", "in_order"},  //
                    Case{"LastByteWritten", "write_last_byte"},
                    Case{"ByteBehindWritten", "write_behind", SIGSEGV},
                    Case{"ByteBehindRead", "read_behind", SIGSEGV},
                    Case{"ByteBehindWrittenWhereTheSizeIsNoMultipleOf16", "write_behind_unaligned",
                         SIGABRT, "heap guard: written past the end of a block\n"},
                    Case{"NextMultipleOf16Written", "write_behind_alignment", SIGSEGV},
                    Case{"NextMultipleOf16Read", "read_behind_alignment", SIGSEGV},
                    Case{"ByteBeforeWritten", "write_before", SIGABRT,
                         "heap guard: written before the beginning of a block\n"},
                    Case{"ByteBeforeWrittenWhereThePageBegins", "write_before_page", SIGSEGV},
                    Case{"FreedBlockRead", "read_freed", SIGSEGV},
                    Case{"FreedTwice", "free_twice", SIGABRT,
                         "heap guard: freed twice, or not a block\n"},
                    Case{"MoreMemoryThanThereIs", "ask_for_too_much"},
                    Case{"BlockThatCannotBeGuarded", "use_all_memory", SIGABRT,
                         "heap guard: a block that cannot be guarded\n"}),
    [](const auto& one) { return one.param.name; });

}  // namespace
}  // namespace vesper::test
