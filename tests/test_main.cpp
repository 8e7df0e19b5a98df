// test_main.cpp -- main() of every test binary: each test process gets a network of its own before any test starts
// a server.
#include <gtest/gtest.h>

#include "private_network.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    kelvane_test::enter_private_network();
    return RUN_ALL_TESTS();
}
