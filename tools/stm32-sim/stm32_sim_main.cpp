// stm32-sim: the STM32 supervisor microcontroller's side of the UART link, on
// a pseudo-terminal linked where the terminal software expects its UART
// ($SWU_ROOT/dev/ttyUL1 by default). It answers the status, version, LED,
// button, shutdown and bootloader commands and the whole programming
// sequence, keeps its flash in a state file, and can misbehave on purpose
// (NAK, silence, bad CRC-8, noise, split or paced output) for tests.
#include "stm32_device.h"

#include "lib/st_control/stm_com/zynq_st_uart_link.h"
#include "lib/st_control/stm_com/zynq_st_uart_prot.h"
#include "platform/platform.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <limits.h>
#include <map>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace
{

using steady = std::chrono::steady_clock;

volatile sig_atomic_t g_stop = 0;
volatile sig_atomic_t g_shutdown_request = 0;

void on_stop(int)
{
    g_stop = 1;
}
void on_usr1(int)
{
    g_shutdown_request = 1;
}

struct step_name {
    const char *name;
    uint8_t opc;
};
constexpr step_name STEPS[] = {
    {"status", STM32_STATUS_REQ},      {"led", STM32_LED_CTRL},
    {"shutdown", STM32_SHUTDOWN},      {"version", STM32_VERSION_REQ},
    {"init", STM32_INIT_SW_UPDATE},    {"erase", STM32_ERASE_API},
    {"start", STM32_PROGRAM_START},    {"bytes", STM32_PROGRAM_BYTES},
    {"verify", STM32_PROGRAM_VERIFIY}, {"done", STM32_PROGRAM_DONE},
    {"read", STM32_PROGRAM_READ},      {"button", STM32_BTN_CTRL_REQ},
};

const char *opc_name(uint8_t opc)
{
    for (const auto &s : STEPS)
        if (s.opc == opc)
            return s.name;
    return "?";
}

// "STEP" (every such request) or "STEP:N" (only the Nth, counting from 1).
struct step_rule {
    uint8_t opc;
    unsigned nth;
};

bool parse_rule(const std::string &text, step_rule &rule)
{
    std::string name = text.substr(0, text.find(':'));
    rule.nth = 0;
    if (name.size() < text.size()) {
        char *end = nullptr;
        unsigned long n = strtoul(text.c_str() + name.size() + 1, &end, 10);
        if (*end != '\0' || n == 0)
            return false;
        rule.nth = static_cast<unsigned>(n);
    }
    for (const auto &s : STEPS)
        if (name == s.name) {
            rule.opc = s.opc;
            return true;
        }
    return false;
}

bool rule_hits(const std::vector<step_rule> &rules, uint8_t opc, unsigned count)
{
    for (const auto &r : rules)
        if (r.opc == opc && (r.nth == 0 || r.nth == count))
            return true;
    return false;
}

struct sim_config {
    std::string link;
    bool verbose = false;
    std::vector<step_rule> nak, silent, bad_crc, other_before, truncate, hangup;
    size_t noise = 0;
    size_t split = 0;
    int split_gap_ms = 2;
    bool pace = false;
    unsigned baud = 230400;
    long shutdown_after_ms = -1;
};

std::string hex(const uint8_t *p, size_t n)
{
    std::string s;
    char b[4];
    for (size_t k = 0; k < n && k < 8; k++) {
        snprintf(b, sizeof(b), "%02x", p[k]);
        s += b;
    }
    if (n > 8)
        s += "...";
    return s;
}

class sim_link
{
  public:
    sim_link(int master, const sim_config &cfg) : fd_(master), cfg_(cfg) {}

    // A reply must not start before the request could have crossed the line.
    void not_before(steady::time_point t) { not_before_ = t; }

    steady::duration line_time(size_t bytes) const
    {
        return std::chrono::duration_cast<steady::duration>(
            std::chrono::duration<double>(static_cast<double>(bytes) * 10.0 / cfg_.baud));
    }

    // `cut`: only the first half of the frame goes out.
    void send_frame(uint8_t opc, const std::vector<uint8_t> &payload, bool bad_crc,
                    const char *note, bool cut = false)
    {
        stm::msg_t msg;
        stm_build_msg(&msg, opc, payload.data(), static_cast<uint8_t>(payload.size()));
        if (bad_crc)
            msg.buf[msg.length] ^= 0xFF;
        std::vector<uint8_t> out = noise();
        const auto *raw = reinterpret_cast<const uint8_t *>(&msg);
        size_t len = msg.length + STM_FRAME_OVERHEAD;
        out.insert(out.end(), raw, raw + (cut ? len / 2 : len));
        if (cfg_.verbose)
            printf("stm32-sim: tx opc=%u (%s) len=%u data=%s%s\n", opc, opc_name(opc), msg.length,
                   hex(msg.buf, msg.length).c_str(), note);
        size_t piece = cfg_.split > 0 ? cfg_.split : out.size();
        for (size_t k = 0; k < out.size(); k += piece) {
            if (k > 0 && !cfg_.pace)
                std::this_thread::sleep_for(std::chrono::milliseconds(cfg_.split_gap_ms));
            write_paced(out.data() + k, std::min(piece, out.size() - k));
        }
    }

  private:
    // Bytes without a whole preamble, ending in a broken start of one, so the
    // receiver has to resynchronise.
    std::vector<uint8_t> noise()
    {
        std::vector<uint8_t> n;
        for (size_t k = 0; k < cfg_.noise; k++) {
            seed_ ^= seed_ << 13;
            seed_ ^= seed_ >> 17;
            seed_ ^= seed_ << 5;
            uint8_t b = static_cast<uint8_t>(seed_);
            n.push_back(b == 0xEF ? 0x00 : b);
        }
        static constexpr uint8_t tails[3][3] = {{0xEF}, {0xEF, 0xBE}, {0xEF, 0xBE, 0xAD}};
        if (cfg_.noise > 0) {
            size_t t = tail_++ % 3;
            n.insert(n.end(), tails[t], tails[t] + t + 1);
        }
        return n;
    }

    void write_paced(const uint8_t *p, size_t n)
    {
        if (cfg_.pace) {
            // The bytes appear when their last one would have crossed the line.
            auto start = std::max({steady::now(), line_free_, not_before_});
            line_free_ = start + line_time(n);
            std::this_thread::sleep_until(line_free_);
        }
        while (n > 0) {
            ssize_t w = write(fd_, p, n);
            if (w > 0) {
                p += w;
                n -= static_cast<size_t>(w);
                continue;
            }
            if (w < 0 && errno == EINTR)
                continue;
            if (w < 0 && errno == EAGAIN) {
                struct pollfd pfd = {fd_, POLLOUT, 0};
                if (poll(&pfd, 1, 1000) > 0)
                    continue;
            }
            printf("stm32-sim: nobody reads the line, %zu bytes dropped\n", n);
            return;
        }
    }

    int fd_;
    const sim_config &cfg_;
    steady::time_point line_free_{};
    steady::time_point not_before_{};
    uint32_t seed_ = 0x2545F491;
    size_t tail_ = 0;
};

// The terminal's path under the simulation root; empty without SWU_ROOT.
std::string default_under_root(const char *abs_path)
{
    const char *root = getenv("SWU_ROOT");
    if (root == nullptr || root[0] == '\0')
        return {};
    return plat_path(abs_path);
}

int open_pty(std::string &slave_name, int &slave_fd)
{
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        perror("stm32-sim: pseudo-terminal");
        return -1;
    }
    char name[PATH_MAX];
    if (ptsname_r(master, name, sizeof(name)) != 0) {
        perror("stm32-sim: ptsname");
        return -1;
    }
    slave_name = name;
    // Held open for the whole run: the master then never sees a hang-up
    // between two programs that open the line one after the other.
    slave_fd = open(name, O_RDWR | O_NOCTTY);
    if (slave_fd < 0) {
        perror(name);
        return -1;
    }
    struct termios t;
    tcgetattr(slave_fd, &t);
    cfmakeraw(&t);
    cfsetspeed(&t, B230400);
    tcsetattr(slave_fd, TCSANOW, &t);
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    return master;
}

bool make_link(const std::string &target, const std::string &link)
{
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(link).parent_path(), ec);
    struct stat st;
    if (lstat(link.c_str(), &st) == 0) {
        if (!S_ISLNK(st.st_mode)) {
            fprintf(stderr, "stm32-sim: %s exists and is not a link\n", link.c_str());
            return false;
        }
        unlink(link.c_str()); // left behind by an earlier run
    }
    if (symlink(target.c_str(), link.c_str()) != 0) {
        perror(link.c_str());
        return false;
    }
    return true;
}

void remove_link(const std::string &target, const std::string &link)
{
    char buf[PATH_MAX];
    ssize_t n = readlink(link.c_str(), buf, sizeof(buf) - 1);
    if (n > 0) {
        buf[n] = '\0';
        if (target == buf)
            unlink(link.c_str());
    }
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);

    sim_config cfg;
    stm32_options dev_opt;
    std::string state_path = default_under_root("/sim/stm32.state");
    cfg.link = default_under_root("/dev/ttyUL1");
    std::string start, recovery = "no", api_version, boot_version, image;
    std::vector<std::string> nak, silent, bad_crc, other_before, truncate, hangup;

    CLI::App app{"stm32-sim: the STM32 supervisor microcontroller on a pseudo-terminal"};
    app.add_option("--link", cfg.link, "where to link the line (default $SWU_ROOT/dev/ttyUL1)");
    app.add_option("--state", state_path,
                   "flash and versions file (default $SWU_ROOT/sim/stm32.state)");
    app.add_option("--start", start, "start in the application or the bootloader")
        ->check(CLI::IsMember({"app", "boot"}));
    app.add_option("--image", image, "load this image into the flash as if programmed");
    app.add_option("--recovery", recovery, "recovery flag of the status reply")
        ->check(CLI::IsMember({"yes", "no", "none"}));
    app.add_option("--api-version", api_version, "application version without a state file");
    app.add_option("--boot-version", boot_version, "bootloader version");
    app.add_flag("--stay-in-app", dev_opt.stay_in_app,
                 "ignore the order to restart into the bootloader");
    app.add_option("--nak", nak, "answer 0x55 at STEP[:N] (N: only its Nth request)");
    app.add_option("--silent", silent, "answer nothing at STEP[:N]");
    app.add_option("--bad-crc", bad_crc, "answer STEP[:N] with a wrong CRC-8");
    app.add_option("--truncate", truncate, "send only the first half of the answer to STEP[:N]");
    app.add_option("--hangup-after", hangup,
                   "close the line and stop after answering STEP[:N], as a pulled cable");
    app.add_option("--other-before", other_before,
                   "send an unasked shutdown request just before the answer to STEP[:N]");
    app.add_option("--verify-len", dev_opt.verify_len, "payload bytes of the verify answer")
        ->check(CLI::Range(0, 255));
    app.add_flag("--wrong-verify", dev_opt.wrong_verify, "report a wrong CRC-32 at verify");
    app.add_option("--read-chunk", dev_opt.read_chunk, "bytes per read-back answer (0: as asked)")
        ->check(CLI::Range(0, 255));
    app.add_option("--noise", cfg.noise, "noise bytes before every frame sent");
    app.add_option("--split", cfg.split, "write frames in pieces of at most N bytes");
    app.add_option("--split-gap-ms", cfg.split_gap_ms, "pause between pieces when not paced");
    app.add_flag("--pace", cfg.pace, "pace both directions at the line rate");
    app.add_option("--baud", cfg.baud, "line rate for --pace (bit/s, 10 bits a byte)")
        ->check(CLI::Range(1200u, 4000000u));
    app.add_option("--shutdown-after", cfg.shutdown_after_ms,
                   "send an unasked shutdown request this many ms after start (also SIGUSR1)");
    app.add_flag("-v,--verbose", cfg.verbose, "print a line per frame received and sent");
    app.footer("Steps: status version led button shutdown init erase start bytes verify done "
               "read.\nA programmed application reports the CRC-32 of its image as version.");
    CLI11_PARSE(app, argc, argv);

    if (cfg.link.empty() || state_path.empty()) {
        fprintf(stderr, "stm32-sim: set SWU_ROOT or give --link and --state\n");
        return 2;
    }
    for (auto [texts, rules] :
         {std::pair{&nak, &cfg.nak}, std::pair{&silent, &cfg.silent},
          std::pair{&bad_crc, &cfg.bad_crc}, std::pair{&other_before, &cfg.other_before},
          std::pair{&truncate, &cfg.truncate}, std::pair{&hangup, &cfg.hangup}}) {
        for (const auto &t : *texts) {
            step_rule r;
            if (!parse_rule(t, r)) {
                fprintf(stderr, "stm32-sim: unknown step '%s'\n", t.c_str());
                return 2;
            }
            rules->push_back(r);
        }
    }
    dev_opt.state_path = state_path;
    if (!start.empty())
        dev_opt.start_in_app = start == "app";
    dev_opt.recovery = recovery == "yes" ? STM32_ACK : recovery == "no" ? STM32_NAK : -1;
    if (!api_version.empty())
        dev_opt.api_version = static_cast<uint32_t>(strtoul(api_version.c_str(), nullptr, 0));
    if (!boot_version.empty())
        dev_opt.boot_version = static_cast<uint32_t>(strtoul(boot_version.c_str(), nullptr, 0));

    stm32_device device(dev_opt);
    if (!image.empty() && !device.load_image(image)) {
        fprintf(stderr, "stm32-sim: can't load image %s\n", image.c_str());
        return 2;
    }

    struct sigaction sa = {};
    sa.sa_handler = on_stop;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sa.sa_handler = on_usr1;
    sigaction(SIGUSR1, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::string slave_name;
    int slave_fd = -1;
    int master = open_pty(slave_name, slave_fd);
    if (master < 0 || !make_link(slave_name, cfg.link))
        return 1;
    printf("stm32-sim: ready on %s at %s (%s)\n", slave_name.c_str(), cfg.link.c_str(),
           device.mode() == STM32_APPLICATION ? "application" : "bootloader");

    sim_link line(master, cfg);
    auto started = steady::now();
    bool shutdown_sent = false;
    bool hung_up = false;
    std::map<uint8_t, unsigned> seen;
    stm::msg_t rx;
    std::memset(&rx, 0, sizeof(rx));
    steady::time_point first_byte = started;

    while (!g_stop) {
        if (cfg.shutdown_after_ms >= 0 && !shutdown_sent &&
            steady::now() - started >= std::chrono::milliseconds(cfg.shutdown_after_ms)) {
            shutdown_sent = true;
            g_shutdown_request = 1;
        }
        if (g_shutdown_request) {
            g_shutdown_request = 0;
            line.send_frame(STM32_SHUTDOWN_REQ, {}, false, " (unasked shutdown request)");
        }

        struct pollfd pfd = {master, POLLIN, 0};
        if (poll(&pfd, 1, 20) <= 0)
            continue;
        uint8_t buf[4096];
        ssize_t n = read(master, buf, sizeof(buf));
        if (n <= 0) {
            // No program has the line open: nothing to read until one does.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        auto arrived = steady::now();
        for (ssize_t k = 0; k < n; k++) {
            if (parse_get_state() == IDLE)
                first_byte = arrived;
            if (parse_msg(&buf[k], 1, &rx) != 1)
                continue;

            uint8_t opc = rx.opc;
            unsigned count = ++seen[opc];
            if (cfg.verbose)
                printf("stm32-sim: rx opc=%u (%s) len=%u data=%s\n", opc, opc_name(opc), rx.length,
                       hex(rx.buf, rx.length).c_str());
            line.not_before(first_byte + line.line_time(rx.length + STM_FRAME_OVERHEAD));

            if (rule_hits(cfg.silent, opc, count)) {
                if (cfg.verbose)
                    printf("stm32-sim: silent at %s #%u\n", opc_name(opc), count);
            } else if (rule_hits(cfg.nak, opc, count)) {
                line.send_frame(opc, {STM32_NAK}, false, " (nak)");
            } else {
                std::string event;
                auto reply = device.handle(opc, rx.buf, rx.length, event);
                if (!event.empty() && cfg.verbose)
                    printf("stm32-sim: %s\n", event.c_str());
                if (reply) {
                    if (rule_hits(cfg.other_before, opc, count)) {
                        line.send_frame(STM32_SHUTDOWN_REQ, {}, false, " (unasked, before reply)");
                        // Long enough for the reader to take it in its own read.
                        std::this_thread::sleep_for(std::chrono::milliseconds(50));
                    }
                    bool bad = rule_hits(cfg.bad_crc, opc, count);
                    bool cut = rule_hits(cfg.truncate, opc, count);
                    line.send_frame(opc, *reply, bad,
                                    bad   ? " (bad crc)"
                                    : cut ? " (first half only)"
                                          : "",
                                    cut);
                }
            }
            std::memset(&rx, 0, sizeof(rx));
            if (rule_hits(cfg.hangup, opc, count)) {
                hung_up = true;
                g_stop = 1;
                break;
            }
        }
    }

    remove_link(slave_name, cfg.link);
    close(slave_fd);
    close(master);
    if (hung_up)
        printf("stm32-sim: hung up\n");
    printf("stm32-sim: stopped\n");
    return 0;
}
