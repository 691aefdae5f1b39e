// A forger for the tests of what the client believes.
#pragma once

#include "lib/sys/unique_fd.h"
#include "proto/codes.h"
#include "proto/protocol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

// A sender that is not the terminal: from its own address and port (the
// terminal's protocol port unless told otherwise) it sends the datagrams it
// is given, every 20 ms, until it is destroyed.
class Stranger
{
  public:
    struct datagram {
        std::vector<uint8_t> bytes;
        sockaddr_in to;
    };

    Stranger(std::vector<datagram> sends, const char *from, uint16_t port = PROTO_SWU_PORT)
        : sends_(std::move(sends))
    {
        fd_ = unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in me = to(from, port);
        in_addr ifa = me.sin_addr;
        setsockopt(fd_.get(), IPPROTO_IP, IP_MULTICAST_IF, &ifa, sizeof ifa);
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr *>(&me), sizeof me), 0)
            << strerror(errno);
        thread_ = std::thread([this] {
            while (!stop_) {
                for (const datagram &d : sends_)
                    sendto(fd_.get(), d.bytes.data(), d.bytes.size(), 0,
                           reinterpret_cast<const sockaddr *>(&d.to), sizeof d.to);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
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
    static datagram advert(const std::string &id, uint16_t major, bool busy = false,
                           uint16_t rx_port = PROTO_SWU_PORT)
    {
        self_adv_t adv = {};
        adv.hdr.opcode = SWU_SELF_ADVERTISE_OPCD;
        adv.rx_port = rx_port;
        adv.curr_sw_v[0] = major;
        adv.connection_status = busy ? SWU_CON_STATUS_BUSY : SWU_CON_STATUS_AVAIL;
        adv.orvanID_len = static_cast<uint8_t>(id.size());
        memcpy(adv.orvanID, id.data(), std::min(id.size(), sizeof adv.orvanID));
        datagram d{std::vector<uint8_t>(PROTO_SELF_ADV_SIZE), to(PROTO_ADV_GROUP, PROTO_ADV_PORT)};
        EXPECT_EQ(proto_encode_self_adv(d.bytes.data(), d.bytes.size(), &adv),
                  int(PROTO_SELF_ADV_SIZE));
        return d;
    }

    // A header-only answer (reboot, restart) or an acknowledgement of `seg`.
    static datagram header(uint8_t opcode, const sockaddr_in &dest)
    {
        datagram d{std::vector<uint8_t>(PROTO_HDR_SIZE), dest};
        msg_hdr_t hdr = {7, opcode, 0};
        proto_encode_hdr(d.bytes.data(), d.bytes.size(), &hdr);
        return d;
    }
    static datagram ack(uint64_t seg, const sockaddr_in &dest)
    {
        datagram d{std::vector<uint8_t>(PROTO_PKT_ACK_SIZE), dest};
        file_packet_ack_t a = {{7, PCKT_TRNSFR_ACK, 0}, seg};
        proto_encode_file_packet_ack(d.bytes.data(), d.bytes.size(), &a);
        return d;
    }
    static datagram status(const std::string &report, const sockaddr_in &dest)
    {
        datagram d{std::vector<uint8_t>(PROTO_STT_RSP_HEAD_SIZE + report.size()), dest};
        status_response_t rsp = {{7, STATUS_RSPNS, 0},
                                 static_cast<uint16_t>(report.size()),
                                 report.data(),
                                 report.size()};
        d.bytes.resize(static_cast<size_t>(
            proto_encode_status_response(d.bytes.data(), d.bytes.size(), &rsp)));
        return d;
    }

  private:
    std::vector<datagram> sends_;
    unique_fd fd_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
