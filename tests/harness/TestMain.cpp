#include <gtest/gtest.h>

int main(int argc, char** argv) {
    // Forked death tests see the maps their test made; the few that need a fresh process ask
    // for re-execution themselves.
    GTEST_FLAG_SET(death_test_style, "fast");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
