// The installation thread, driven as the state machine drives it: the
// go-ahead after a passed check, the acknowledgement after the verdict.
#include "pkg_fixture.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>
#include <sys/resource.h>
#include <thread>

namespace
{

using testing::HasSubstr;
using testing::Not;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

int wait_for_status(std::initializer_list<int> wanted)
{
    for (auto end = std::chrono::steady_clock::now() + 120s; std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(2ms))
        for (int w : wanted)
            if (get_install_status() == w)
                return w;
    return -1;
}

struct run_result {
    int verdict;
    std::string out, err;
};

// One installation run on its own thread; `before_go` runs between the
// passed check and the go-ahead.
run_result run_install(
    const char *pkg, long reason, const std::function<void()> &before_go = [] {})
{
    static char path[256];
    snprintf(path, sizeof path, "%s", pkg);
    validation_thrd_arg arg = {path, reason, -1};
    CaptureStdout();
    CaptureStderr();
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, nullptr, pkg_install_thrd_proc, &arg), 0);
    int verdict = wait_for_status(
        {INSTALL_STT_ARTIFACT_OK, INSTALL_STT_CRC_ERROR, INSTALL_STT_ARTIFACT_ERROR});
    if (verdict == INSTALL_STT_ARTIFACT_OK) {
        before_go();
        post_install_sem();
        verdict = wait_for_status({INSTALL_STT_INSTALL_COMPLEATE, INSTALL_STT_INSTALL_FAILURE});
    }
    post_install_sem();
    pthread_join(thread, nullptr);
    EXPECT_EQ(get_install_status(), INSTALL_STT_IN_PROGRESS) << "the verdict was acknowledged";
    std::string out = GetCapturedStdout();
    return {verdict, out, GetCapturedStderr()};
}

size_t count(const std::string &text, const std::string &part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        n++;
    return n;
}

std::set<std::string> card_files(const SimRoot &root)
{
    std::set<std::string> names;
    for (const auto &e : fs::directory_iterator(root.path("dev/mmcblk0p1")))
        names.insert(e.path().filename().string());
    return names;
}

bool card_mounted(const SimRoot &root)
{
    return fs::is_symlink(root.path("mnt/emmc"));
}

TEST(PkgInstall, APackageBuiltBySwuPackIsInstalledOntoTheCard)
{
    PkgSim sim;
    const SimRoot &root = sim.root;
    std::string big;
    for (int i = 0; i < 300000; i++)
        big.push_back(static_cast<char>(i * 131 % 251));
    root.write("art/app.bin", big);
    root.write("art/pkg_ver.txt", "[pkg_data]\nversion=2.0\n");
    root.write("dev/mmcblk0p1/app.bin", "old version");
    root.write("dev/mmcblk0p1/keep.txt", "not in the package");
    std::string tool_out;
    ASSERT_EQ(run_program({SWU_BIN_DIR "/swu-pack", "-o", "pkg.swu", "--bitmask", "3",
                           "art/app.bin", "art/pkg_ver.txt"},
                          root.path("tool.log"), &tool_out),
              0)
        << tool_out;

    run_result r = run_install("pkg.swu", 1);
    EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out << r.err;
    EXPECT_THAT(r.out, HasSubstr("[pkg data]  ->artifacts_bitmask: 0x3, ->crc:"));
    EXPECT_THAT(r.out, HasSubstr("file count in src dir: 2\n"));
    EXPECT_THAT(r.out, HasSubstr("copied fname: app.bin | name len: 7\n"));
    EXPECT_EQ(root.read("tmp/pkg/app.bin"), big);
    EXPECT_EQ(root.read("dev/mmcblk0p1/app.bin"), big);
    EXPECT_EQ(root.read("dev/mmcblk0p1/pkg_ver.txt"), "[pkg_data]\nversion=2.0\n");
    EXPECT_EQ(root.read("dev/mmcblk0p1/keep.txt"), "not in the package");
    EXPECT_FALSE(card_mounted(root));
    EXPECT_EQ(r.err, "");
}

TEST(PkgInstall, HostileArtifactNamesAreCopiedAndCheckedAsPlainNames)
{
    PkgSim sim;
    const SimRoot &root = sim.root;
    const std::vector<std::string> names = {
        "sp ace.bin",         "quo'te.bin",        "d\"q.bin",           "semi;colon.bin",
        "$(touch pwned).bin", "`touch pwned`.bin", "star*.bin",          "new\nline.bin",
        "-leading.bin",       "back\\slash.bin",   std::string(127, 'n')};
    std::vector<pack_member> members;
    for (const std::string &n : names)
        members.push_back(file_member(n, "content of " + n));
    sim.pack("pkg.swu", members);

    run_result r = run_install("pkg.swu", 1);
    EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out << r.err;
    EXPECT_THAT(r.out, Not(HasSubstr("[sim] refused")));
    for (const std::string &n : names)
        EXPECT_EQ(root.read("dev/mmcblk0p1/" + n), "content of " + n) << n;
    EXPECT_FALSE(fs::exists("pwned"));
}

TEST(PkgInstall, AFailedAttemptRecoversTheCardAndTriesOnceMore)
{
    struct rlimit file_size_limit;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &file_size_limit), 0);
    struct {
        const char *name;
        std::function<void(const SimRoot &)> arrange;
        std::function<void()> before_go;
        std::vector<std::pair<std::string, size_t>> out, err; // text and times seen
        int verdict;
    } const cases[] = {
        {"card can't be mounted",
         [](const SimRoot &r) { r.write("sim/fail/mount", "1"); },
         [] {},
         {},
         {{"mount faild: Input/output error\n", 1}, {"umount Faild....: Invalid argument\n", 2}},
         INSTALL_STT_INSTALL_COMPLEATE},
        {"mount point of another file-system type, twice",
         [](const SimRoot &r) { r.write("sim/fstype", "0xEF53"); },
         [] {},
         {},
         {{"mount faild", 0}, {"umount Faild....: Invalid argument\n", 4}},
         INSTALL_STT_INSTALL_FAILURE},
        {"old card file can't be removed",
         [](const SimRoot &r) { r.write("dev/mmcblk0p1/b.bin/inside", ""); },
         [] {},
         {{"cpy_files_2_emmc faild\n", 1}},
         {{"ERROR : remove faild : Directory not empty\n", 1}},
         INSTALL_STT_INSTALL_COMPLEATE},
        {"unmount before the digests fails",
         [](const SimRoot &r) { r.fail("umount", 1, 5); },
         [] {},
         {{"cpy_files_2_emmc faild\n", 1}},
         {{"umount_failed...: Input/output error\n", 1}},
         INSTALL_STT_INSTALL_COMPLEATE},
        {"copies that move only part of a file",
         [](const SimRoot &) {},
         [&] {
             // The card then takes no file beyond 64 KiB, in both attempts.
             signal(SIGXFSZ, SIG_IGN);
             struct rlimit lim = {65536, file_size_limit.rlim_max};
             setrlimit(RLIMIT_FSIZE, &lim);
         },
         {{"os_cpy_file failed...\n", 2}, {"cpy_files_2_emmc faild\n", 2}},
         {},
         INSTALL_STT_INSTALL_FAILURE},
        {"microcontroller can't be reached, twice",
         [](const SimRoot &r) { r.write("tmp/pkg/st.bin", "image"); },
         [] {},
         {{"ERROR OPENNING UART TTY", 2}, {"installing st sim", 0}},
         {},
         INSTALL_STT_INSTALL_FAILURE},
        {"st.bin of an earlier package on the card",
         [](const SimRoot &r) { r.write("dev/mmcblk0p1/st.bin", "old image"); },
         [] {},
         {{"ERROR OPENNING UART TTY", 1}},
         {},
         INSTALL_STT_INSTALL_COMPLEATE},
    };
    for (const auto &c : cases) {
        PkgSim sim;
        sim.root.write("dev/mmcblk0p1/old.txt", "gone after a recovery");
        sim.pack("pkg.swu",
                 {file_member("a.bin", "a"), file_member("b.bin", std::string(200000, 'b'))});
        c.arrange(sim.root);
        run_result r = run_install("pkg.swu", 1, c.before_go);
        setrlimit(RLIMIT_FSIZE, &file_size_limit);

        EXPECT_EQ(r.verdict, c.verdict) << c.name << "\n" << r.out << r.err;
        EXPECT_EQ(count(r.out, "[sim] fdisk: new partition table on /dev/mmcblk0\n"), 1u) << c.name;
        EXPECT_EQ(count(r.out, "[sim] mkfs.vfat: empty file system on /dev/mmcblk0p1\n"), 1u)
            << c.name;
        for (const auto &[text, times] : c.out)
            EXPECT_EQ(count(r.out, text), times) << c.name << ": " << text << "\n" << r.out;
        for (const auto &[text, times] : c.err)
            EXPECT_EQ(count(r.err, text), times) << c.name << ": " << text << "\n" << r.err;
        if (c.verdict == INSTALL_STT_INSTALL_COMPLEATE) {
            EXPECT_EQ(card_files(sim.root), (std::set<std::string>{"a.bin", "b.bin"})) << c.name;
        }
        EXPECT_FALSE(card_mounted(sim.root)) << c.name;
    }
}

TEST(PkgInstall, WhatIsNotARegularFileAtTheTopIsNoArtifact)
{
    PkgSim sim;
    const SimRoot &root = sim.root;
    root.write("dev/mmcblk0p1/st.bin", "left on the card");
    sim.pack("pkg.swu", {file_member("sub/inner.bin", "x"),
                         link_member("lnk", PACK_SYMLINK, "sub/inner.bin")});
    // Reason bit 4: the card's st.bin is left alone (no UART would answer).
    run_result r = run_install("pkg.swu", 6);
    EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out << r.err;
    EXPECT_THAT(r.out, HasSubstr("file count in src dir: 0\n"));
    EXPECT_THAT(r.out, Not(HasSubstr("ERROR OPENNING UART TTY")));
    EXPECT_EQ(card_files(root), std::set<std::string>{"st.bin"});

    artifact_desc_t *list = nullptr;
    uint32_t n = 0;
    root.write("tmp/pkg/" + std::string(127, 'n'), "fits");
    CaptureStdout();
    ASSERT_EQ(list_pkg_content(&list, &n), 0);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(list[0].fname_len, 127u);
    free(list);
    root.write("tmp/pkg/" + std::string(128, 'n'), "too long");
    EXPECT_EQ(list_pkg_content(&list, &n), -1);
    EXPECT_EQ(list, nullptr);
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("artifact name of 128 bytes refused"));

    fs::remove_all(root.path("tmp/pkg"));
    CaptureStderr();
    EXPECT_EQ(list_pkg_content(&list, &n), -1);
    EXPECT_EQ(GetCapturedStderr(), "opendir failed...: No such file or directory\n");
}

TEST(PkgInstall, ARunStartsWithNoVerdictAndWithoutEarlierSignals)
{
    PkgSim sim;
    // A package that can't be opened publishes no verdict; the thread then
    // waits for a signal, and the status must not show an earlier run's.
    g_instatll_status = INSTALL_STT_INSTALL_FAILURE;
    char missing[] = "missing.swu";
    validation_thrd_arg arg = {missing, 1, 99};
    CaptureStderr();
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, pkg_install_thrd_proc, &arg), 0);
    while (arg.ret != -1)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(get_install_status(), INSTALL_STT_IN_PROGRESS);
    post_install_sem();
    pthread_join(thread, nullptr);
    EXPECT_EQ(GetCapturedStderr(), "open pkg failed: No such file or directory\n");

    // Signals given before a thread starts don't let it install.
    post_install_sem();
    post_install_sem();
    sim.pack("pkg.swu", {file_member("a.bin", "a")});
    run_result r = run_install("pkg.swu", 1, [] {
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(get_install_status(), INSTALL_STT_ARTIFACT_OK) << "no go-ahead yet";
    });
    EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE);
}

// The microcontroller simulator on the card's UART, for one test.
class Stm32Sim
{
  public:
    Stm32Sim(const SimRoot &root, std::vector<std::string> options)
    {
        options.insert(options.begin(), SWU_BIN_DIR "/stm32-sim");
        pid_ = spawn_program(options, root.path("stm32-sim.log"));
        for (int i = 0; i < 5000 && !fs::is_symlink(root.path("dev/ttyUL1")); i++)
            std::this_thread::sleep_for(2ms);
    }
    ~Stm32Sim()
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }

  private:
    pid_t pid_;
};

TEST(PkgInstall, TheCardsImageProgramsTheMicrocontrollerWhoseFailureIsOnlyLogged)
{
    if (!fs::exists(SWU_BIN_DIR "/stm32-sim"))
        GTEST_SKIP() << "stm32-sim is not built";
    std::string image(1001, '\0');
    for (size_t i = 0; i < image.size(); i++)
        image[i] = static_cast<char>(i * 7);
    for (const auto &[nak, logged] :
         {std::pair<const char *, const char *>{nullptr, "SUCCESS to update STM"},
          {"init", "ERROR update STM"}}) {
        PkgSim sim;
        sim.pack("pkg.swu", {file_member("st.bin", image)});
        Stm32Sim mcu(sim.root,
                     nak ? std::vector<std::string>{"--nak", nak} : std::vector<std::string>{});
        run_result r = run_install("pkg.swu", 1);
        EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out << r.err;
        EXPECT_THAT(r.out, HasSubstr(logged)) << sim.root.read("stm32-sim.log");
        EXPECT_THAT(r.out, HasSubstr("installing st sim ........\n\n"));
        EXPECT_THAT(r.out, Not(HasSubstr("[sim] fdisk")));
    }
}

} // namespace
