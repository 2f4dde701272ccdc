// main() of every unit-test binary: the daemon's logger first, then the tests.
#include <gtest/gtest.h>

#include "platform/log.h"

int main(int argc, char **argv) {
    vorn_log_init();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
