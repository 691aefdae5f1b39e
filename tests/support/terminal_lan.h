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

#include "support/terminal_fixture.h"

#include <atomic>
#include <cstdio>
#include <thread>
#include <unistd.h>

class TerminalLan
{
  public:
    static constexpr const char *CLIENT = "10.77.0.1";
    static constexpr const char *STRANGER = "10.77.0.66";

    struct station {
        std::string id, addr, ns;
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
        t->id = id;
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
    size_t size() const { return stations_.size(); }

    static void sh(const std::string &command) { ASSERT_EQ(system(command.c_str()), 0) << command; }

  private:
    std::vector<std::unique_ptr<station>> stations_;
};

// A host that is not the terminal: from its own address and the terminal's
// protocol port it sends the datagrams it is given, every 20 ms, until it is
// destroyed.
class Stranger
{
  public:
    struct datagram {
        std::vector<uint8_t> bytes;
        sockaddr_in to;
    };

    explicit Stranger(std::vector<datagram> sends, const char *from = TerminalLan::STRANGER)
        : sends_(std::move(sends))
    {
        fd_ = unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in me = to(from, PROTO_SWU_PORT);
        in_addr ifa = me.sin_addr;
        setsockopt(fd_.get(), IPPROTO_IP, IP_MULTICAST_IF, &ifa, sizeof ifa);
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr *>(&me), sizeof me), 0)
            << strerror(errno);
        thread_ = std::thread([this] {
            while (!stop_) {
                for (const datagram &d : sends_)
                    sendto(fd_.get(), d.bytes.data(), d.bytes.size(), 0,
                           reinterpret_cast<const sockaddr *>(&d.to), sizeof d.to);
                std::this_thread::sleep_for(20ms);
            }
        });
    }
    ~Stranger()
    {
        stop_ = true;
        thread_.join();
    }

    static sockaddr_in to(const char *addr, uint16_t port)
    {
        sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(port);
        inet_pton(AF_INET, addr, &sa.sin_addr);
        return sa;
    }

    // An advertisement of a free terminal `id` running `version`, to the group.
    static datagram advert(const std::string &id, uint16_t major, bool busy = false)
    {
        self_adv_t adv = {};
        adv.hdr.opcode = SWU_SELF_ADVERTISE_OPCD;
        adv.rx_port = PROTO_SWU_PORT;
        adv.curr_sw_v[0] = major;
        adv.connection_status = busy ? SWU_CON_STATUS_BUSY : SWU_CON_STATUS_AVAIL;
        adv.orvanID_len = static_cast<uint8_t>(id.size());
        memcpy(adv.orvanID, id.data(), std::min(id.size(), sizeof adv.orvanID));
        datagram d{std::vector<uint8_t>(PROTO_SELF_ADV_SIZE), to(PROTO_ADV_GROUP, PROTO_ADV_PORT)};
        EXPECT_EQ(proto_encode_self_adv(d.bytes.data(), d.bytes.size(), &adv),
                  int(PROTO_SELF_ADV_SIZE));
        return d;
    }

  private:
    std::vector<datagram> sends_;
    unique_fd fd_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
