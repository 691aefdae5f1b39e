// The handler tests' fixture: a connected client's harness in a fresh working
// directory, where the package files land.
#pragma once

#include "support/sim_root.h"
#include "support/swu_harness.h"

#include <gtest/gtest.h>

#include <filesystem>

// One answer with its destination and exact bytes; a sequence number of 0
// in `expected` stands for whatever the answer carries.
inline void expect_sent(const sent_msg &m, uint32_t ip, uint16_t port, byte_vec expected)
{
    EXPECT_EQ(m.ip, ip);
    EXPECT_EQ(m.port, port);
    if (m.data.size() >= 2 && expected.size() >= 2 && expected[0] == 0 && expected[1] == 0) {
        expected[0] = m.data[0];
        expected[1] = m.data[1];
    }
    EXPECT_EQ(m.data, expected);
}

class HandlerTest : public ::testing::Test
{
  protected:
    HandlerTest()
    {
        root_.enter();
        h.connect();
    }

    SimRoot root_; // constructed first, gone last: the harness's files go with it
    swu_harness h;
};
