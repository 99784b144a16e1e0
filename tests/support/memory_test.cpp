// The allocation counter and the out-of-memory sweep.

#include "support/memory.h"

#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "support/peer.h"

using namespace support;

// NOLINTBEGIN(clang-analyzer-unix.Malloc): blocks are lost here to see that it is noticed

TEST(Memory, counts_what_is_allocated_and_what_is_kept)
{
    void *kept = nullptr;
    Usage usage = measure([&] {
        free(malloc(10));
        kept = calloc(3, 7);
        kept = realloc(kept, 40);
        free(strdup("the C library's own allocations too"));
    });
    EXPECT_EQ(usage.allocations, 4U);
    EXPECT_EQ(usage.kept, 1);
    ASSERT_EQ(usage.blocks.size(), 1U);
    EXPECT_EQ(usage.blocks[0].number, 3U);
    EXPECT_EQ(usage.blocks[0].size, 40U);

    EXPECT_EQ(measure([&] { free(kept); }).kept, -1);
}

TEST(Memory, sees_the_allocations_inside_liblber)
{
    BerElement *ber = nullptr;
    EXPECT_GE(measure([&] { ber = ber_alloc_t(0); }).kept, 1);
    EXPECT_LE(measure([&] { ber_free(ber, 1); }).kept, -1);
}

TEST(Memory, fails_the_allocation_asked_for_once_or_all_from_there_on)
{
    for (Fail mode : {Fail::once, Fail::from_then_on}) {
        void *blocks[4] = {};
        Usage usage = measure_failing(mode, 2, [&] {
            for (void *&block : blocks)
                block = malloc(1);
        });
        EXPECT_TRUE(usage.struck);
        EXPECT_NE(blocks[0], nullptr);
        EXPECT_EQ(blocks[1], nullptr);
        EXPECT_EQ(blocks[2] == nullptr, mode == Fail::from_then_on);
        EXPECT_EQ(blocks[3] == nullptr, mode == Fail::from_then_on);
        for (void *block : blocks)
            free(block);
    }
}

TEST(Memory, a_failed_realloc_leaves_the_block)
{
    char *block = strdup("abc");
    char *moved = nullptr;
    Usage usage = measure_failing(Fail::once, 1, [&] {
        moved = static_cast<char *>(realloc(block, 1000));
        if (moved == nullptr)
            moved = block;
    });
    EXPECT_TRUE(usage.struck);
    EXPECT_EQ(usage.kept, 0);
    EXPECT_STREQ(moved, "abc");
    EXPECT_EQ(measure([&] { free(moved); }).kept, -1);
}

TEST(Memory, a_sweep_fails_each_allocation_in_turn_and_ends_with_an_untouched_run)
{
    auto body = [](Step &step) {
        step.run([] {
            void *first = malloc(1);
            void *second = malloc(1); // lost on purpose when it is the only one
            free(first);
            if (first != nullptr)
                free(second);
            return first == nullptr ? 1 : second == nullptr ? 2 : 0;
        });
    };
    std::vector<Outcome> outcomes = sweep(Fail::once, body);
    ASSERT_EQ(outcomes.size(), 3U);
    EXPECT_EQ(outcomes[0].describe(), "rc 1, 1 lost");
    EXPECT_EQ(outcomes[1].describe(), "rc 2, 0 lost");
    EXPECT_EQ(outcomes[2].describe(), "rc 0, 0 lost");
    EXPECT_FALSE(outcomes[2].struck);
    EXPECT_EQ(sweep(Fail::from_then_on, body)[0].describe(), "rc 1, 0 lost");
}

TEST(Memory, what_the_body_releases_after_the_operation_is_not_lost)
{
    Outcome outcome = run_failing(Fail::never, 0, [](Step &step) {
        void *handed_out = nullptr;
        void *lost = nullptr;
        step.run([&] {
            handed_out = malloc(1);
            lost = malloc(1);
            return 0;
        });
        free(handed_out);
        free(malloc(1)); // the body's own
        ASSERT_NE(lost, nullptr);
    });
    EXPECT_EQ(outcome.describe(), "rc 0, 1 lost");
    EXPECT_EQ(outcome.allocations, 2U);
}

TEST(Memory, an_assertion_of_a_dependency_is_named_even_without_memory)
{
    Outcome outcome = run_failing(Fail::from_then_on, 1, [](Step &step) {
        step.run([] { return ber_flush2(nullptr, nullptr, 0); });
    });
    EXPECT_TRUE(outcome.died.starts_with("Aborted: ber_flush2: Assertion `")) << outcome;
}

TEST(Memory, a_crash_in_a_sweep_is_an_outcome_with_its_last_words)
{
    std::vector<Outcome> outcomes = sweep(Fail::once, [](Step &step) {
        step.run([] {
            void *block = malloc(1);
            if (block == nullptr) {
                static_cast<void>(fputs("earlier\nno memory at all\n", stderr));
                abort();
            }
            free(block);
            return 0;
        });
    });
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes[0].died, "Aborted: no memory at all");
    EXPECT_EQ(outcomes[1].died, "");
}

TEST(Memory, what_a_body_throws_is_an_outcome_too)
{
    Outcome outcome =
        run_failing(Fail::never, 0, [](Step &) { throw std::runtime_error("no peer"); });
    EXPECT_EQ(outcome.died, "failed: no peer");
}

// NOLINTEND(clang-analyzer-unix.Malloc)
