// A simulated terminal for whole-daemon tests: a fresh simulation root laid
// out as the terminal's file system, the microcontroller simulator on its
// UART, the update daemon running in a working directory of its own, a
// listener for its advertisements, and client sessions to talk to it.
//
// The daemon binds the system's fixed ports, so every test case runs in a
// network namespace of its own (the NETNS test entry).
#pragma once

#include "lib/discovery.h"
#include "lib/package_inspect.h"
#include "lib/package_write.h"
#include "lib/session.h"
#include "lib/stream.h"
#include "lib/sys/le_bytes.h"
#include "proto/package.h"
#include "support/pack_members.h"
#include "support/process.h"
#include "support/sim_root.h"
#include "support/stm32_sim.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace std::chrono_literals;

// Register values that give the update reason bits 1, 2 and 6.
inline constexpr uint32_t REG_INITIATE_UPDATE = 0xFAACABBA;
inline constexpr uint32_t REG_ERROR_BOOT = 0xDEADBEEF;
inline constexpr uint32_t REG_FACTORY_BOOT = 0xD00EFAAC;

// The sanitizer builds run the daemon several times slower; waits for its
// work (never for its own time-outs) stretch by this factor.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int SLOW = 4;
#else
inline constexpr int SLOW = 1;
#endif

struct TerminalSetup {
    uint32_t initiate_reg = REG_INITIATE_UPDATE;
    uint32_t err_boot_reg = 0;
    std::vector<std::string> daemon_args; // -S -F -L -Z -M -R
    std::vector<std::string> sim_args;    // misbehaviour of the microcontroller
};

// Random bytes, the same for the same seed.
inline std::string test_bytes(size_t size, unsigned seed)
{
    std::mt19937 gen(seed);
    std::string s(size, '\0');
    for (char &c : s)
        c = static_cast<char>(gen());
    return s;
}

// Lays out `root` as a terminal's file system (identity `id`, card at
// version 1.2.3 holding `old_st` as st.bin) and starts the microcontroller
// simulator on it, running `old_st`.
inline std::unique_ptr<Stm32Sim> lay_out_terminal(const SimRoot &root, const TerminalSetup &setup,
                                                  const std::string &id, const std::string &old_st)
{
    root.registers(setup.initiate_reg, setup.err_boot_reg, 0xFFFFFFFF);
    root.write("dev/mtd0", "<orVanId>" + id + "</orVanId>");
    root.write("dev/mmcblk0p1/pkg_ver.txt", "[pkg_data]\nversion=1.2.3\n");
    root.write("dev/mmcblk0p1/st.bin", old_st);
    root.write("dev/mmcblk0p1/old.txt", "left by an earlier update\n");
    root.write("client/old_st.bin", old_st);
    for (const char *dir : {"mnt", "tmp", "var/log", "work"})
        root.mkdir(dir);
    std::vector<std::string> sim_args = {"--image", root.path("client/old_st.bin")};
    sim_args.insert(sim_args.end(), setup.sim_args.begin(), setup.sim_args.end());
    return std::make_unique<Stm32Sim>(root, sim_args);
}

// One terminal per test case, in the case's own network namespace: a root
// laid out as its file system (identity "ID", card at version 1.2.3 with an
// old st.bin), the microcontroller simulator on its UART, the daemon in a
// working directory of its own, and a listener for its advertisements.
class TerminalTest : public ::testing::Test
{
  protected:
    // The client's remembered sessions stay inside this test's root.
    void SetUp() override
    {
        setenv("XDG_STATE_HOME", root_.path("client/state").c_str(), 1);
        root_.mkdir("client");
    }

    // The sanitizer builds report in the programs' output; a report that does
    // not stop the program must still fail. SWU_TEST_VERBOSE=1 shows the
    // output of passing tests too.
    void TearDown() override
    {
        swuc_listen_close(&adv_);
        swu_.stop();
        const std::string sim_out = sim_ ? sim_->log() : "";
        sim_.reset();
        for (const std::string &out : {swu_.output(), sim_out})
            for (const char *report :
                 {"ThreadSanitizer", "AddressSanitizer", "runtime error:", "LeakSanitizer"})
                EXPECT_EQ(out.find(report), std::string::npos) << report << " reported";
        if (HasFailure() || getenv("SWU_TEST_VERBOSE") != nullptr)
            printf("---- swu output ----\n%s\n---- stm32-sim output (end) ----\n%s\n",
                   swu_.output().c_str(),
                   sim_out.substr(sim_out.size() > 3000 ? sim_out.size() - 3000 : 0).c_str());
    }

    // Lays out the root, starts both programs and waits for the daemon's
    // first advertisement.
    void start(const TerminalSetup &setup = {})
    {
        sim_ = lay_out_terminal(root_, setup, "ID", old_st_bin_);
        ASSERT_EQ(swuc_listen_open(&adv_, htonl(INADDR_LOOPBACK)), 0) << strerror(errno);
        std::vector<std::string> argv = {SWU_BIN_DIR "/swu"};
        argv.insert(argv.end(), setup.daemon_args.begin(), setup.daemon_args.end());
        ASSERT_TRUE(swu_.start(argv, root_.path("work")));
        ASSERT_EQ(swuc_listen_next(&adv_, &first_adv_, 10000 * SLOW), 0)
            << "no advertisement from the daemon";
    }

    // A client session from `local` (127.0.0.1 unless told otherwise) to the
    // advertising terminal.
    void open_session(swuc_session *s, const char *local = "127.0.0.1",
                      int reply_timeout_ms = 1000 * SLOW)
    {
        swuc_config cfg;
        cfg.terminal = swuc_advert_terminal(first_adv_);
        cfg.local_addr = inet_addr(local);
        cfg.reply_timeout_ms = reply_timeout_ms;
        cfg.umd_id = "technician-7";
        ASSERT_EQ(swuc_open(s, &cfg), 0) << strerror(errno);
    }

    // Opens a session and has its connection confirmed.
    void connect(swuc_session *s, const char *local = "127.0.0.1")
    {
        open_session(s, local);
        conection_response_t rsp;
        ASSERT_EQ(swuc_connect(s, &rsp), 0) << "no connection response";
        ASSERT_EQ(rsp.connection_status, SWU_CON_RES_CONNECTION_CONFIRMED);
    }

    swuc_status status(swuc_session *s)
    {
        swuc_status st;
        EXPECT_EQ(swuc_get_status(s, &st), 0) << "no status response";
        return st;
    }

    // Writes a package of `members` under client/<name>; its path.
    std::string make_package(const std::string &name, const std::vector<pack_member> &members,
                             uint32_t bitmask = 0)
    {
        std::string path = root_.path("client/" + name);
        std::string err;
        EXPECT_EQ(pack_write(path, members, bitmask, PKG_MAX_SIZE, &err), 0) << err;
        return path;
    }

    // The three registers of the simulated misc device.
    uint32_t reg(int index) const
    {
        std::string bytes = root_.read("dev/ovmisc");
        return le_get32(reinterpret_cast<const uint8_t *>(bytes.data()) + 4 * index);
    }

    bool card_mounted() const { return std::filesystem::is_symlink(root_.path("mnt/emmc")); }
    std::string card_file(const std::string &name) const
    {
        return root_.read("dev/mmcblk0p1/" + name);
    }

    SimRoot root_;
    std::unique_ptr<Stm32Sim> sim_;
    TestProcess swu_;
    const std::string old_st_bin_ = test_bytes(2048, 1);
    swuc_listener adv_;
    swuc_advert first_adv_ = {};
};
