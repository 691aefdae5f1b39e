// Whole transfers into a real swu daemon on loopback, in a network namespace
// of the benchmark's own (run as root):
//   - stream throughput of a 64 MiB package with windows of 1, 16 and 64;
//   - the daemon's CPU time per MiB and its anonymous memory (RssAnon) while
//     it receives 64 MiB and 600 MiB, with the CPU split by thread;
//   - the time of the package check and of the installation of a 64 MiB
//     package, from the daemon's log lines (stamped on arrival) and from the
//     status stages the client sees.
//
//   bench_stream [--swu PATH] [--runs N] [--no-big] [--keep]
//
// Everything lives under one temporary root, removed at the end (--keep
// leaves it). The 600 MiB run needs about 1.3 GB of free space there.
#include "lib/discovery.h"
#include "lib/package_inspect.h"
#include "lib/package_write.h"
#include "lib/session.h"
#include "lib/stream.h"
#include "proto/package.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sched.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace fs = std::filesystem;

namespace
{

constexpr uint64_t MiB = 1024 * 1024;
constexpr uint64_t SMALL_SIZE = 64 * MiB;
constexpr uint64_t BIG_SIZE = PKG_MAX_SIZE; // 600 MiB

int run_command(const std::vector<std::string> &args)
{
    std::vector<char *> argv;
    for (const auto &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    int st = 0;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// A private network namespace with loopback up and multicast routed to it,
// so the daemon's fixed ports meet nothing else on the machine.
bool enter_namespace()
{
    if (unshare(CLONE_NEWNET) != 0) {
        fprintf(stderr, "bench_stream: needs root for a network namespace (unshare: %s)\n",
                strerror(errno));
        return false;
    }
    return run_command({"ip", "link", "set", "lo", "up"}) == 0 &&
           run_command({"ip", "route", "add", "224.0.0.0/4", "dev", "lo", "src", "127.0.0.1"}) == 0;
}

// Fills a file with `size` pseudo-random bytes.
void write_random(const std::string &path, uint64_t size, uint64_t seed)
{
    std::ofstream out(path, std::ios::binary);
    std::vector<uint64_t> block(1 << 16);
    uint64_t x = seed | 1;
    for (uint64_t done = 0; done < size;) {
        for (auto &w : block) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            w = x;
        }
        size_t n = static_cast<size_t>(std::min<uint64_t>(size - done, block.size() * 8));
        out.write(reinterpret_cast<const char *>(block.data()), static_cast<std::streamsize>(n));
        done += n;
    }
}

struct thread_sample {
    uint64_t cpu_ticks = 0;
    uint64_t minor_faults = 0;
    uint64_t switches = 0; // voluntary and involuntary context switches
};

struct proc_sample {
    thread_sample total;
    std::map<pid_t, thread_sample> threads;
    long rss_anon_kb = 0;
};

// CPU time and faults from a stat file, context switches from the status
// file beside it.
thread_sample read_thread(const std::string &dir)
{
    thread_sample t;
    std::ifstream in(dir + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (close == std::string::npos)
        return t;
    // Fields after the command, from state (3): minflt (10), utime (14), stime (15).
    std::vector<std::string> f;
    size_t at = close + 2;
    while (at < text.size() && f.size() < 13) {
        size_t sp = text.find(' ', at);
        f.push_back(text.substr(at, sp - at));
        at = sp == std::string::npos ? text.size() : sp + 1;
    }
    if (f.size() < 13)
        return t;
    t.minor_faults = std::stoull(f[7]);
    t.cpu_ticks = std::stoull(f[11]) + std::stoull(f[12]);
    std::ifstream status(dir + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.find("ctxt_switches:") != std::string::npos)
            t.switches += strtoull(line.c_str() + line.find(':') + 1, nullptr, 10);
    return t;
}

proc_sample sample(pid_t pid, bool threads)
{
    proc_sample s;
    std::string dir = "/proc/" + std::to_string(pid);
    std::ifstream status(dir + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("RssAnon:", 0) == 0)
            s.rss_anon_kb = strtol(line.c_str() + 8, nullptr, 10);
    if (threads) {
        s.total = read_thread(dir);
        std::error_code ec;
        for (const auto &e : fs::directory_iterator(dir + "/task", ec))
            s.threads[static_cast<pid_t>(std::stol(e.path().filename().string()))] =
                read_thread(e.path().string());
    }
    return s;
}

// The daemon, its output in a file, or through a pseudo-terminal (so that it
// writes line by line) with each line stamped on arrival.
class daemon_run
{
  public:
    daemon_run(const std::string &swu, const std::string &root, const std::string &tag,
               bool stamped)
        : root_(root)
    {
        work_ = root + "/work-" + tag;
        fs::create_directories(work_);
        int out = -1;
        if (stamped) {
            master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
            grantpt(master_);
            unlockpt(master_);
            out = open(ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
            termios t;
            tcgetattr(out, &t);
            cfmakeraw(&t);
            tcsetattr(out, TCSANOW, &t);
        } else {
            out = open((root + "/swu-" + tag + ".log").c_str(),
                       O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        }
        std::string dir = work_;
        char *argv[] = {const_cast<char *>(swu.c_str()), nullptr};
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out, 1);
            dup2(out, 2);
            if (chdir(dir.c_str()) != 0)
                _exit(126);
            execve(argv[0], argv, environ);
            _exit(127);
        }
        close(out);
        if (stamped)
            reader_ = std::thread([this] { read_lines(); });
    }
    ~daemon_run()
    {
        if (pid_ > 0 && !ended_) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        if (reader_.joinable())
            reader_.join();
        if (master_ >= 0)
            close(master_);
        std::error_code ec;
        fs::remove_all(work_, ec);
    }

    pid_t pid() const { return pid_; }

    bool wait_end(int timeout_ms)
    {
        int64_t deadline = swuc_now_ms() + timeout_ms;
        while (swuc_now_ms() < deadline) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                ended_ = true;
                return true;
            }
            usleep(10000);
        }
        return false;
    }

    // Arrival time of the first line holding `needle`, or -1.
    int64_t line_at(const std::string &needle)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto &[at, text] : lines_)
            if (text.find(needle) != std::string::npos)
                return at;
        return -1;
    }

  private:
    void read_lines()
    {
        std::string partial;
        char buf[65536];
        for (;;) {
            ssize_t n = read(master_, buf, sizeof(buf));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            int64_t now = swuc_now_ms();
            partial.append(buf, static_cast<size_t>(n));
            size_t eol;
            while ((eol = partial.find('\n')) != std::string::npos) {
                std::string line = partial.substr(0, eol);
                partial.erase(0, eol + 1);
                // Only the lines that mark a step are kept; not one per packet.
                if (line.rfind("[fsm_run][event : 4]", 0) == 0)
                    continue;
                std::lock_guard<std::mutex> lock(mutex_);
                lines_.emplace_back(now, std::move(line));
            }
        }
    }

    std::string root_;
    std::string work_;
    pid_t pid_ = -1;
    bool ended_ = false;
    int master_ = -1;
    std::thread reader_;
    std::mutex mutex_;
    std::vector<std::pair<int64_t, std::string>> lines_;
};

// Opens a session to the daemon on loopback once it advertises.
bool connect_session(swuc_listener *adv, swuc_session *s)
{
    swuc_advert first;
    if (swuc_listen_next(adv, &first, 10000) != 0) {
        fprintf(stderr, "bench_stream: no advertisement from the daemon\n");
        return false;
    }
    swuc_config cfg;
    cfg.terminal = swuc_advert_terminal(first);
    cfg.local_addr = htonl(INADDR_LOOPBACK);
    conection_response_t rsp;
    if (swuc_open(s, &cfg) != 0 || swuc_connect(s, &rsp) != 0 ||
        rsp.connection_status != SWU_CON_RES_CONNECTION_CONFIRMED) {
        fprintf(stderr, "bench_stream: connection refused\n");
        return false;
    }
    return true;
}

struct mapped_file {
    const uint8_t *data = nullptr;
    uint64_t size = 0;
};

mapped_file read_file(const std::string &path)
{
    static std::vector<std::vector<uint8_t>> keep;
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    mapped_file f;
    f.size = static_cast<uint64_t>(in.tellg());
    in.seekg(0);
    keep.emplace_back(f.size);
    in.read(reinterpret_cast<char *>(keep.back().data()), static_cast<std::streamsize>(f.size));
    f.data = keep.back().data();
    return f;
}

struct stream_result {
    bool ok = false;
    double seconds = 0;
    double mib_per_s = 0;
    double cpu_s = 0; // daemon
    double client_cpu_s = 0;
    long rss_anon_start_kb = 0;
    long rss_anon_max_kb = 0;
    swuc_progress progress;
    uint64_t minor_faults = 0;
    // Per thread, in creation order: CPU seconds and context switches.
    std::vector<std::pair<double, uint64_t>> threads;
};

double cpu_of_self()
{
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// One stream of `file` into a fresh daemon with `window` packets in flight.
stream_result measure_stream(const std::string &swu, const std::string &root,
                             const std::string &tag, const mapped_file &file, uint32_t window,
                             bool console = false)
{
    stream_result r;
    swuc_listener adv;
    if (swuc_listen_open(&adv, htonl(INADDR_LOOPBACK)) != 0)
        return r;
    daemon_run d(swu, root, tag, console);
    swuc_session s;
    bool up = connect_session(&adv, &s);
    swuc_listen_close(&adv);
    if (!up)
        return r;

    file_transfer_response_t ftr;
    if (swuc_stream_request(&s, (tag + ".pkg").c_str(), file.size, &ftr) != 0) {
        fprintf(stderr, "bench_stream: stream request refused\n");
        return r;
    }
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    std::atomic<bool> stop{false};
    std::atomic<long> rss_max{0};
    proc_sample before = sample(d.pid(), true);
    r.rss_anon_start_kb = before.rss_anon_kb;
    std::thread sampler([&] {
        while (!stop) {
            long rss = sample(d.pid(), false).rss_anon_kb;
            if (rss > rss_max)
                rss_max = rss;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });

    swuc_stream_opts opts;
    opts.window = window;
    const double client_before = cpu_of_self();
    const int64_t t0 = swuc_now_ms();
    int rc = swuc_stream_data(&s, file.data, file.size, &opts, {}, &r.progress);
    const int64_t t1 = swuc_now_ms();
    r.client_cpu_s = cpu_of_self() - client_before;
    proc_sample after = sample(d.pid(), true);
    stop = true;
    sampler.join();

    r.ok = rc == 0 && swuc_stream_end(&s) == 0;
    r.seconds = static_cast<double>(t1 - t0) / 1000.0;
    r.mib_per_s = static_cast<double>(file.size) / MiB / r.seconds;
    r.cpu_s = static_cast<double>(after.total.cpu_ticks - before.total.cpu_ticks) / ticks;
    r.minor_faults = after.total.minor_faults - before.total.minor_faults;
    r.rss_anon_max_kb = std::max<long>(rss_max, after.rss_anon_kb);
    for (const auto &[tid, t] : after.threads) { // ordered by id: creation order
        auto it = before.threads.find(tid);
        thread_sample base = it != before.threads.end() ? it->second : thread_sample{};
        r.threads.emplace_back(static_cast<double>(t.cpu_ticks - base.cpu_ticks) / ticks,
                               t.switches - base.switches);
    }
    return r;
}

void print_stream(const char *what, const stream_result &r, uint64_t size)
{
    if (!r.ok) {
        printf("%-34s FAILED (acked %llu of %llu packets, %u time-outs)\n", what,
               static_cast<unsigned long long>(r.progress.acked_packets),
               static_cast<unsigned long long>(r.progress.total_packets), r.progress.timeouts);
        return;
    }
    printf("%-34s %7.1f MiB/s  %6.2f s  daemon cpu %5.2f s (%.1f ms/MiB)  client cpu %5.2f s"
           "  retransmitted %llu\n",
           what, r.mib_per_s, r.seconds, r.cpu_s,
           r.cpu_s * 1000.0 / (static_cast<double>(size) / MiB), r.client_cpu_s,
           static_cast<unsigned long long>(r.progress.retransmitted));
}

void print_threads(const stream_result &r)
{
    static const char *names[] = {"main (state machine)", "advertisement", "receive", "transmit"};
    const double packets = static_cast<double>(std::max<uint64_t>(r.progress.total_packets, 1));
    for (size_t k = 0; k < r.threads.size(); k++)
        printf("    thread %-22s cpu %5.2f s (%4.1f us/packet)  %5.2f context switches/packet\n",
               k < 4 ? names[k] : "other", r.threads[k].first, r.threads[k].first * 1e6 / packets,
               static_cast<double>(r.threads[k].second) / packets);
    printf("    minor page faults %.2f/packet\n", static_cast<double>(r.minor_faults) / packets);
}

// The least a receiver must do: one thread that copies each in-order packet
// into memory and acknowledges it. The same client against it shows what
// this machine's loopback allows, apart from the daemon.
double baseline_stream(const mapped_file &file, uint32_t window)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    int rcvbuf = 2 * MiB;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof(sa));
    getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
    timeval tv = {0, 100000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    std::atomic<bool> stop{false};
    std::vector<uint8_t> sink(file.size);
    std::thread receiver([&] {
        uint8_t buf[2048];
        uint64_t expected = 1;
        while (!stop) {
            sockaddr_in from = {};
            socklen_t from_len = sizeof(from);
            ssize_t n =
                recvfrom(fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &from_len);
            file_packet_transfer_t pkt;
            if (n <= 0 || proto_decode_file_packet_transfer(buf, static_cast<size_t>(n), &pkt))
                continue;
            if (pkt.seg_number > expected)
                continue;
            if (pkt.seg_number == expected) {
                memcpy(sink.data() + (expected - 1) * PROTO_PAYLOAD_MAX, pkt.payload,
                       pkt.payload_len);
                expected++;
            }
            uint8_t out[PROTO_PKT_ACK_SIZE];
            file_packet_ack_t ack = {{1, PCKT_TRNSFR_ACK, 0}, pkt.seg_number};
            proto_encode_file_packet_ack(out, sizeof(out), &ack);
            sendto(fd, out, sizeof(out), 0, reinterpret_cast<sockaddr *>(&from), from_len);
        }
    });
    swuc_session s;
    swuc_config cfg;
    cfg.terminal = sa;
    cfg.local_addr = htonl(INADDR_LOOPBACK);
    cfg.keepalive_ms = 1000000; // nobody to ask
    double mib_per_s = 0;
    if (swuc_open(&s, &cfg) == 0) {
        swuc_stream_opts opts;
        opts.window = window;
        int64_t t0 = swuc_now_ms();
        if (swuc_stream_data(&s, file.data, file.size, &opts, {}, nullptr) == 0)
            mib_per_s = static_cast<double>(file.size) / MiB /
                        (static_cast<double>(swuc_now_ms() - t0) / 1000.0);
    }
    stop = true;
    receiver.join();
    close(fd);
    return mib_per_s;
}

int64_t first_stage_at(const std::vector<std::pair<int64_t, unsigned>> &seen, unsigned stage)
{
    for (const auto &[at, st] : seen)
        if (st >= stage)
            return at;
    return -1;
}

// A valid 64 MiB package through check and installation, timed.
void measure_install(const std::string &swu, const std::string &root, const std::string &pkg)
{
    swuc_listener adv;
    if (swuc_listen_open(&adv, htonl(INADDR_LOOPBACK)) != 0)
        return;
    daemon_run d(swu, root, "install", true);
    swuc_session s;
    bool up = connect_session(&adv, &s);
    swuc_listen_close(&adv);
    if (!up)
        return;
    swuc_stream_opts opts;
    opts.window = 64;
    if (swuc_send_file(&s, pkg.c_str(), "install.pkg", &opts, {}, nullptr) != 0) {
        printf("install: the stream failed\n");
        return;
    }
    const int64_t stream_done = swuc_now_ms();
    std::vector<std::pair<int64_t, unsigned>> seen;
    swuc_follow_opts follow;
    follow.poll_ms = 10;
    follow.timeout_ms = 300000;
    swuc_status last;
    int rc = swuc_follow_install(
        &s, &follow,
        [&](const swuc_status &st) { seen.emplace_back(swuc_now_ms(), st.stage_code); }, &last);
    if (rc != 0) {
        printf("install: ended in stage %u: %s\n", last.stage_code, last.text.c_str());
        return;
    }
    swuc_reboot(&s);
    d.wait_end(10000);

    const int64_t upgrade_seen = first_stage_at(seen, 4);
    const int64_t finish_seen = first_stage_at(seen, 6);
    const int64_t crc_done = d.line_at("[success] extracted metadata crc");
    const int64_t verified = d.line_at("[fsm_run][event : 7]");
    const int64_t listed = d.line_at("file count in src dir");
    const int64_t installed = d.line_at("INSTALL_STT_INSTALL_COMPLEATE");
    auto span = [](int64_t from, int64_t to) {
        return from < 0 || to < 0 ? -1.0 : static_cast<double>(to - from) / 1000.0;
    };
    printf("package check and installation of a 64 MiB package (window 64):\n");
    printf("  as the client sees the stages: verification %.2f s, installation %.2f s\n",
           span(stream_done, upgrade_seen), span(upgrade_seen, finish_seen));
    printf("  from the daemon's log: CRC check %.2f s, unpacking %.2f s, installation %.2f s\n",
           span(stream_done, crc_done), span(crc_done, verified), span(listed, installed));
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string swu = (fs::path(argv[0]).parent_path() / "swu").string();
    int runs = 3;
    bool big = true;
    bool keep = false;
    for (int k = 1; k < argc; k++) {
        std::string a = argv[k];
        if (a == "--swu" && k + 1 < argc)
            swu = argv[++k];
        else if (a == "--runs" && k + 1 < argc)
            runs = std::max(1, atoi(argv[++k]));
        else if (a == "--no-big")
            big = false;
        else if (a == "--keep")
            keep = true;
        else {
            fprintf(stderr, "usage: %s [--swu PATH] [--runs N] [--no-big] [--keep]\n", argv[0]);
            return 2;
        }
    }
    swu = fs::absolute(swu).string(); // the daemon starts in its own directory
    if (access(swu.c_str(), X_OK) != 0) {
        fprintf(stderr, "bench_stream: no daemon at %s (--swu PATH)\n", swu.c_str());
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    if (!enter_namespace())
        return 1;

    char tmpl[] = "/tmp/swu-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string root = tmpl;
    setenv("SWU_ROOT", root.c_str(), 1);
    struct statvfs vfs;
    const uint64_t free_bytes =
        statvfs(root.c_str(), &vfs) == 0 ? static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize : 0;
    if (big && free_bytes < 2 * BIG_SIZE + 256 * MiB) {
        printf("only %llu MiB free under %s: skipping the 600 MiB run\n",
               static_cast<unsigned long long>(free_bytes / MiB), root.c_str());
        big = false;
    }

    // The terminal: registers, identity, a card without a microcontroller
    // image (the installation measured is the card's).
    {
        std::string regs(12, '\0');
        uint32_t initiate = 0xFAACABBA;
        memcpy(regs.data(), &initiate, 4);
        fs::create_directories(root + "/dev/mmcblk0p1");
        for (const char *dir : {"/mnt", "/tmp", "/var/log", "/client"})
            fs::create_directories(root + dir);
        std::ofstream(root + "/dev/ovmisc", std::ios::binary) << regs;
        std::string block0 = "<orVanId>BENCH</orVanId>";
        block0.resize(4096, '\xFF');
        std::ofstream(root + "/dev/mtd0", std::ios::binary) << block0;
        std::ofstream(root + "/dev/mmcblk0p1/pkg_ver.txt") << "[pkg_data]\nversion=1.0.0\n";
    }

    printf("building a 64 MiB package...\n");
    const std::string artifact = root + "/client/app.bin";
    write_random(artifact, SMALL_SIZE - 64 * 1024, 1);
    const std::string pkg = root + "/client/install.pkg";
    pack_member m;
    m.name = "app.bin";
    m.source = artifact;
    std::string err;
    if (pack_write(pkg, {m}, 1, PKG_MAX_SIZE, &err) != 0) {
        fprintf(stderr, "bench_stream: %s\n", err.c_str());
        return 1;
    }
    fs::remove(artifact);
    const mapped_file small = read_file(pkg);
    printf("package: %.1f MiB\n\n", static_cast<double>(small.size) / MiB);

    printf("baseline, the same client against a one-thread receiver in this process:\n");
    for (uint32_t window : {1u, 16u, 64u})
        printf("  window %-3u %7.1f MiB/s\n", window, baseline_stream(small, window));
    printf("\n");

    printf("stream throughput, %d run(s) each, best shown:\n", runs);
    stream_result window64;
    for (uint32_t window : {1u, 16u, 64u}) {
        stream_result best;
        for (int k = 0; k < runs; k++) {
            char tag[32];
            snprintf(tag, sizeof(tag), "w%u-%d", window, k);
            stream_result r = measure_stream(swu, root, tag, small, window);
            if (!best.ok || (r.ok && r.mib_per_s > best.mib_per_s))
                best = r;
        }
        char what[64];
        snprintf(what, sizeof(what), "64 MiB, window %u", window);
        print_stream(what, best, small.size);
        print_threads(best);
        if (window == 64)
            window64 = best;
    }
    {
        // A console, as on the terminal, makes stdout line-buffered: one
        // write for the state machine's line of every packet.
        stream_result r = measure_stream(swu, root, "console", small, 16, true);
        print_stream("64 MiB, window 16, stdout a tty", r, small.size);
        print_threads(r);
    }
    printf("  RssAnon while receiving 64 MiB: %ld kB at the start, %ld kB at most\n\n",
           window64.rss_anon_start_kb, window64.rss_anon_max_kb);

    if (big) {
        printf("writing a 600 MiB stream...\n");
        const std::string big_path = root + "/client/big.bin";
        write_random(big_path, BIG_SIZE, 2);
        const mapped_file big_file = read_file(big_path);
        fs::remove(big_path);
        stream_result r = measure_stream(swu, root, "big", big_file, 64);
        print_stream("600 MiB, window 64", r, big_file.size);
        print_threads(r);
        printf("  RssAnon while receiving 600 MiB: %ld kB at the start, %ld kB at most\n\n",
               r.rss_anon_start_kb, r.rss_anon_max_kb);
    }

    measure_install(swu, root, pkg);

    if (keep) {
        printf("kept %s\n", root.c_str());
    } else {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
    return 0;
}
