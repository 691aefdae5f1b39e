// GoogleTest entry for tests that run daemons on the system's fixed ports: the
// process first moves into a private network namespace of its own (loopback
// up, multicast routed to it), so such tests run in parallel without meeting
// each other or the host's network. Child processes inherit the namespace.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <sched.h>

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests))
        return RUN_ALL_TESTS();
    if (unshare(CLONE_NEWNET) != 0) {
        fprintf(stderr,
                "these tests need a private network namespace (unshare: %s); run them as root\n",
                strerror(errno));
        return 1;
    }
    if (system("ip link set lo up && ip route add 224.0.0.0/4 dev lo src 127.0.0.1") != 0) {
        fprintf(stderr, "could not bring up loopback with a multicast route in the namespace\n");
        return 1;
    }
    return RUN_ALL_TESTS();
}
