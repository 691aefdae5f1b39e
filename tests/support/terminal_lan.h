// Several terminals on one LAN: each daemon runs in a network namespace of its
// own, joined by a veth pair to a bridge in the test's namespace. The bridge
// holds the client's address and a stranger's, a second host that can send
// whatever a test gives it. Each terminal has its own simulation root and
// microcontroller simulator.
//
// Needs the NETNS test entry (the bridge lives in the test case's private
// namespace); the terminals' namespaces are named after the test process and
// removed with the LAN.
#pragma once

#include "support/stranger.h"
#include "support/terminal_fixture.h"

#include <cstdio>
#include <unistd.h>

class TerminalLan
{
  public:
    static constexpr const char *CLIENT = "10.77.0.1";
    static constexpr const char *STRANGER = "10.77.0.66";

    struct station {
        std::string addr, ns;
        std::unique_ptr<SimRoot> root;
        std::unique_ptr<Stm32Sim> sim;
        TestProcess swu;
    };

    TerminalLan()
    {
        sh("ip link add lan type bridge mcast_snooping 0 && ip link set lan up && "
           "ip addr add " +
           std::string(CLIENT) + "/24 dev lan && ip addr add " + STRANGER +
           "/24 dev lan && ip route replace 224.0.0.0/4 dev lan");
    }
    ~TerminalLan()
    {
        // Last in, first out: each root gives SWU_ROOT back to the one before.
        while (!stations_.empty()) {
            stations_.back()->swu.stop();
            sh("ip netns del " + stations_.back()->ns);
            stations_.pop_back();
        }
    }
    TerminalLan(const TerminalLan &) = delete;
    TerminalLan &operator=(const TerminalLan &) = delete;

    // Starts a terminal of identity `id` at 10.77.0.<10 + its number> and
    // waits for its daemon to advertise. Its address.
    std::string add(const std::string &id, const TerminalSetup &setup = {})
    {
        auto t = std::make_unique<station>();
        const size_t n = stations_.size();
        t->addr = "10.77.0." + std::to_string(10 + n);
        t->ns = "swu-" + std::to_string(getpid()) + "-" + std::to_string(n);
        const std::string veth = "t" + std::to_string(n);
        sh("ip netns add " + t->ns + " && ip link add " + veth +
           " type veth peer name eth0 netns " + t->ns + " && ip link set " + veth +
           " master lan up && ip -n " + t->ns + " link set lo up && ip -n " + t->ns +
           " link set eth0 up && ip -n " + t->ns + " addr add " + t->addr +
           "/24 dev eth0 && ip -n " + t->ns + " route add 224.0.0.0/4 dev eth0");
        t->root = std::make_unique<SimRoot>(); // SWU_ROOT for the programs started now
        t->sim = lay_out_terminal(*t->root, setup, id, test_bytes(2048, 1));
        std::vector<std::string> argv = {"ip", "netns", "exec", t->ns, SWU_BIN_DIR "/swu"};
        argv.insert(argv.end(), setup.daemon_args.begin(), setup.daemon_args.end());
        EXPECT_TRUE(t->swu.start(argv, t->root->path("work")));
        EXPECT_TRUE(t->swu.wait_output("SWU App Version", 10s * SLOW)) << t->swu.output();
        stations_.push_back(std::move(t));
        return stations_.back()->addr;
    }

    station &at(size_t i) { return *stations_.at(i); }

    static void sh(const std::string &command) { ASSERT_EQ(system(command.c_str()), 0) << command; }

  private:
    std::vector<std::unique_ptr<station>> stations_;
};
