// A forged terminal: advertisements of an identity a test chooses, for the
// tools' handling of untrusted text.
#pragma once

#include "lib/sys/unique_fd.h"
#include "proto/protocol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

// Advertises from 127.0.0.1, until destroyed, a terminal whose identity is
// `identity`, answering (were it real) on `rx_port`.
class ForgedTerminal
{
  public:
    explicit ForgedTerminal(const std::string &identity, uint16_t rx_port = PROTO_SWU_PORT)
    {
        self_adv_t adv = {};
        adv.hdr.opcode = SWU_SELF_ADVERTISE_OPCD;
        adv.rx_port = rx_port;
        adv.orvanID_len = static_cast<uint8_t>(identity.size());
        memcpy(adv.orvanID, identity.data(), std::min(identity.size(), sizeof adv.orvanID));
        EXPECT_EQ(proto_encode_self_adv(datagram_, sizeof datagram_, &adv), int(sizeof datagram_));
        thread_ = std::thread([this] { run(); });
    }
    ~ForgedTerminal()
    {
        stop_ = true;
        thread_.join();
    }

  private:
    void run()
    {
        unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        in_addr lo = {htonl(INADDR_LOOPBACK)};
        setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &lo, sizeof lo);
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(PROTO_ADV_PORT);
        inet_pton(AF_INET, PROTO_ADV_GROUP, &to.sin_addr);
        while (!stop_) {
            sendto(fd.get(), datagram_, sizeof datagram_, 0, reinterpret_cast<sockaddr *>(&to),
                   sizeof to);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    uint8_t datagram_[PROTO_SELF_ADV_SIZE] = {};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
