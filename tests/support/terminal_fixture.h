// A simulated terminal for whole-daemon tests: a fresh simulation root laid
// out as the terminal's file system, the microcontroller simulator on its
// UART, the update daemon running in a working directory of its own, a
// listener for its advertisements, and client sessions to talk to it.
//
// The daemon binds the system's fixed ports, so every test case runs in a
// network namespace of its own (the NETNS test entry).
#pragma once

#include "pack.h"
#include "support/process.h"
#include "support/sim_root.h"
#include "swu-client/lib/swu_client.h"
#include "swu/pkg_footer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
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
    std::string identity = "ID";
    std::string version_file = "[pkg_data]\nversion=1.2.3\n";
    std::vector<std::string> daemon_args;         // -S -F -L -Z -M -R
    std::vector<std::string> sim_args;            // misbehaviour of the microcontroller
    bool run_sim = true;                          // false: nothing answers on the UART
    std::function<void(const SimRoot &)> prepare; // changes to the laid-out root
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

class TerminalTest : public ::testing::Test
{
  protected:
    static constexpr uint32_t REBOOT_MODE_UNSET = 0xFFFFFFFF;

    void SetUp() override { old_st_bin_ = test_bytes(2048, 1); }

    void TearDown() override
    {
        swuc_listen_close(&adv_);
        swu_.stop();
        sim_.stop();
        // The sanitizer builds report in the programs' output; a report that
        // does not stop the program (ThreadSanitizer's) must still fail.
        for (const TestProcess *p : {&swu_, &sim_})
            for (const char *report :
                 {"ThreadSanitizer", "AddressSanitizer", "runtime error:", "LeakSanitizer"})
                EXPECT_EQ(p->count(report), 0u) << report << " reported";
        // SWU_TEST_VERBOSE=1 shows the programs' output of passing tests too.
        if (HasFailure() || getenv("SWU_TEST_VERBOSE") != nullptr) {
            printf("---- swu output ----\n%s\n", swu_.output().c_str());
            printf("---- stm32-sim output (last 3000 bytes) ----\n%s\n",
                   tail(sim_.output(), 3000).c_str());
        }
    }

    // Lays out the root, starts the simulator and the daemon, and waits for
    // the daemon's first advertisement.
    void start(const TerminalSetup &setup = {})
    {
        setup_ = setup;
        root_.registers(setup.initiate_reg, setup.err_boot_reg, REBOOT_MODE_UNSET);
        std::string block0 = "<orVanId>" + setup.identity + "</orVanId>";
        block0.resize(4096, '\xFF');
        root_.write("dev/mtd0", block0);
        root_.write("dev/mtd1", std::string(4096, '\xFF'));
        root_.write("dev/mmcblk0p1/pkg_ver.txt", setup.version_file);
        root_.write("dev/mmcblk0p1/st.bin", old_st_bin_);
        root_.write("dev/mmcblk0p1/old.txt", "left by an earlier update\n");
        for (const char *dir : {"mnt", "tmp", "var/log", "work", "client", "sim"})
            root_.mkdir(dir);
        if (setup.prepare)
            setup.prepare(root_);
        root_.write("client/old_st.bin", old_st_bin_);

        if (setup.run_sim) {
            std::vector<std::string> sim_argv = {SWU_BIN_DIR "/stm32-sim", "-v", "--image",
                                                 root_.path("client/old_st.bin")};
            sim_argv.insert(sim_argv.end(), setup.sim_args.begin(), setup.sim_args.end());
            ASSERT_TRUE(sim_.start(sim_argv, root_.dir(), root_.path("sim/sim.log")));
            ASSERT_TRUE(sim_.wait_output("stm32-sim: ready", 10s)) << sim_.output();
        }

        ASSERT_EQ(swuc_listen_open(&adv_, htonl(INADDR_LOOPBACK)), 0) << strerror(errno);
        std::vector<std::string> argv = {SWU_BIN_DIR "/swu"};
        argv.insert(argv.end(), setup.daemon_args.begin(), setup.daemon_args.end());
        ASSERT_TRUE(swu_.start(argv, work_dir(), root_.path("var/log/swu.log")));
        ASSERT_EQ(swuc_listen_next(&adv_, &first_adv_, 10000 * SLOW), 0)
            << "no advertisement from the daemon";
        first_adv_at_ = swuc_now_ms();
    }

    std::string work_dir() const { return root_.path("work"); }

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

    // Raw bytes as a package file under client/<name> (no footer added).
    std::string write_client_file(const std::string &name, const std::string &bytes)
    {
        root_.write("client/" + name, bytes);
        return root_.path("client/" + name);
    }

    static pack_member file_member(const std::string &name, const std::string &data)
    {
        pack_member m;
        m.name = name;
        m.data = data;
        return m;
    }

    // Streams the file at `path` as `name` with a window of 16.
    int send_file(swuc_session *s, const std::string &path, const std::string &name)
    {
        swuc_stream_opts opts;
        swuc_progress progress;
        return swuc_send_file(s, path.c_str(), name.c_str(), &opts, {}, &progress);
    }

    // Follows the installation to its end; the final report.
    swuc_status follow(swuc_session *s, int expect_result = 0)
    {
        swuc_follow_opts opts;
        opts.poll_ms = 200;
        opts.timeout_ms = 60000 * SLOW;
        swuc_status last;
        EXPECT_EQ(swuc_follow_install(s, &opts, {}, &last), expect_result) << last.text;
        return last;
    }

    // Acknowledges the error state, which returns the terminal to idle.
    void ack_error(swuc_session *s) { ASSERT_EQ(swuc_ack_error(s), 0) << "no restart response"; }

    // The simulated microcontroller's flash, from its state file.
    std::string mcu_flash() const
    {
        std::string state = root_.read("sim/stm32.state");
        size_t at = state.find("\nflash ");
        if (at == std::string::npos)
            return {};
        size_t eol = state.find('\n', at + 1);
        size_t size = std::stoul(state.substr(at + 7, eol - at - 7));
        return state.substr(eol + 1, size);
    }

    // The three registers of the simulated misc device.
    uint32_t reg(int index) const
    {
        std::string bytes = root_.read("dev/ovmisc");
        uint32_t v = 0;
        for (int i = 3; i >= 0; i--)
            v = v << 8 | static_cast<uint8_t>(bytes.at(static_cast<size_t>(index * 4 + i)));
        return v;
    }

    bool card_mounted() const { return std::filesystem::is_symlink(root_.path("mnt/emmc")); }
    std::string card_file(const std::string &name) const
    {
        return root_.read("dev/mmcblk0p1/" + name);
    }

    static std::string tail(const std::string &s, size_t n)
    {
        return s.size() <= n ? s : s.substr(s.size() - n);
    }

    TerminalSetup setup_;
    SimRoot root_;
    TestProcess sim_;
    TestProcess swu_;
    swuc_listener adv_;
    swuc_advert first_adv_ = {};
    int64_t first_adv_at_ = 0;
    std::string old_st_bin_;
};
