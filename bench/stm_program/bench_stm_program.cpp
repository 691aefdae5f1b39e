// Programs a 128 KiB image into stm32-sim paced at 230400 bit/s and compares
// the time taken with two floors: the line alone (every byte sent and
// received at 23040 bytes/s), and the line plus the exchange's fixed 10 ms
// sleep after each poll.
//
//   bench_stm_program [image KiB] [baud]
#include "lib/st_control/stm_com/zynq_st_uart_prot.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

int main(int argc, char **argv)
{
    size_t kib = argc > 1 ? strtoul(argv[1], nullptr, 0) : 128;
    unsigned baud = argc > 2 ? static_cast<unsigned>(strtoul(argv[2], nullptr, 0)) : 230400;
    double bytes_per_s = baud / 10.0;

    char tmpl[] = "/tmp/bench-stm-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        return 1;
    std::string root = tmpl;
    setenv("SWU_ROOT", root.c_str(), 1);
    fs::create_directories(root + "/mnt/emmc");

    std::string image_path = root + "/mnt/emmc/st.bin";
    std::vector<uint8_t> image(kib * 1024);
    uint32_t seed = 12345;
    for (auto &b : image) {
        seed = seed * 1103515245u + 12345u;
        b = static_cast<uint8_t>(seed >> 16);
    }
    FILE *f = fopen(image_path.c_str(), "wb");
    fwrite(image.data(), 1, image.size(), f);
    fclose(f);

    std::string baud_arg = std::to_string(baud);
    pid_t sim = fork();
    if (sim == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        execl(SWU_BIN_DIR "/stm32-sim", "stm32-sim", "--pace", "--baud", baud_arg.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    }
    std::string link = root + "/dev/ttyUL1";
    for (int k = 0; k < 500 && !fs::is_symlink(link); k++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    int uart = open(link.c_str(), O_RDWR | O_NOCTTY | O_SYNC);
    int file = open(image_path.c_str(), O_RDONLY);
    if (uart < 0 || file < 0) {
        perror("bench_stm_program: open");
        kill(sim, SIGTERM);
        return 1;
    }
    stm_init_uart(uart);

    // The progress lines would only measure the terminal.
    fflush(stdout);
    int saved = dup(1);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    stm_link_stats_reset();
    auto t0 = std::chrono::steady_clock::now();
    int rc = stm_update_file(uart, file);
    auto t1 = std::chrono::steady_clock::now();
    fflush(stdout);
    dup2(saved, 1);

    stm_link_stats_t s = g_stm_link_stats;
    double elapsed = std::chrono::duration<double>(t1 - t0).count();
    double line = static_cast<double>(s.bytes_sent + s.bytes_received) / bytes_per_s;
    double sleeps = 0.010 * static_cast<double>(s.polls);
    double floor = line + sleeps;

    printf("image            %zu bytes, %u bit/s (%.0f bytes/s), result %d\n", image.size(), baud,
           bytes_per_s, rc);
    printf("bytes            %llu sent, %llu received\n",
           static_cast<unsigned long long>(s.bytes_sent),
           static_cast<unsigned long long>(s.bytes_received));
    printf("polls            %llu\n", static_cast<unsigned long long>(s.polls));
    printf("elapsed          %.3f s\n", elapsed);
    printf("line time        %.3f s\n", line);
    printf("poll sleeps      %.3f s (10 ms x polls)\n", sleeps);
    printf("remainder        %.3f s (wake-up latency, sleep overshoot, syscalls)\n",
           elapsed - floor);
    printf("ratio vs line    %.3f\n", elapsed / line);
    printf("ratio vs floor   %.3f\n", elapsed / floor);

    close(file);
    close(uart);
    kill(sim, SIGTERM);
    waitpid(sim, nullptr, 0);
    fs::remove_all(root);
    return rc == 0 ? 0 : 1;
}
