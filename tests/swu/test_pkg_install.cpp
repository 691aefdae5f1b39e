// The installation thread, driven as the state machine drives it: the
// go-ahead after a passed check, the acknowledgement after the verdict.
#include "pkg_fixture.h"
#include "support/process.h"
#include "support/stm32_sim.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>
#include <sys/resource.h>
#include <thread>

namespace
{

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

struct install_result {
    int verdict;
    std::string out, err;
};

// One installation run on its own thread; `before_go` runs between the
// passed check and the go-ahead.
install_result run_install(
    const char *pkg, long reason, const std::function<void()> &before_go = [] {})
{
    static char path[256];
    snprintf(path, sizeof path, "%s", pkg);
    validation_thrd_arg arg = {path, reason, -1};
    CaptureStdout();
    CaptureStderr();
    // As the verification state does: the last run's verdict stays until
    // the next run starts.
    set_install_status(INSTALL_STT_IN_PROGRESS);
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
    EXPECT_EQ(get_install_status(), verdict) << "the verdict stays until the next run";
    std::string out = GetCapturedStdout();
    return {verdict, out, GetCapturedStderr()};
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

// A terminal that trusts the key `k`, which swu-pack made in its root.
void trust_new_key(const PkgSim &sim)
{
    ASSERT_EQ(run_to_end({SWU_BIN_DIR "/swu-pack", "keygen", "k"}, sim.root.dir()).exit_code, 0);
    sim.root.write("etc/swu/trusted.pub", sim.root.read("k.pub"));
}

// `pkg` built as a technician types it, with swu-pack signing it by `key`
// (unsigned without one).
void pack_signed(const PkgSim &sim, const std::string &pkg, std::vector<std::string> options,
                 const std::vector<std::pair<std::string, std::string>> &artifacts,
                 const char *key = "k")
{
    std::vector<std::string> argv = {SWU_BIN_DIR "/swu-pack", "-o", pkg};
    if (key != nullptr)
        argv.insert(argv.end(), {"--sign", key});
    argv.insert(argv.end(), options.begin(), options.end());
    for (const auto &[name, data] : artifacts) {
        sim.root.write("in/" + name, data);
        argv.push_back("in/" + name);
    }
    run_result r = run_to_end(argv, sim.root.dir());
    ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
}

TEST(PkgInstall, ArtifactsOfAnyNameAreCopiedOntoTheCardBesideOtherFiles)
{
    PkgSim sim;
    const SimRoot &root = sim.root;
    std::string big;
    for (int i = 0; i < 300000; i++)
        big.push_back(static_cast<char>(i * 131 % 251));
    root.write("dev/mmcblk0p1/app.bin", "old version");
    root.write("dev/mmcblk0p1/keep.txt", "not in the package");
    // Names hostile to a shell are copied and checked as plain names.
    const std::vector<std::string> names = {
        "sp ace.bin",         "quo'te.bin",        "d\"q.bin",           "semi;colon.bin",
        "$(touch pwned).bin", "`touch pwned`.bin", "star*.bin",          "new\nline.bin",
        "-leading.bin",       "back\\slash.bin",   std::string(127, 'n')};
    std::vector<pack_member> members = {file_member("app.bin", big)};
    for (const std::string &n : names)
        members.push_back(file_member(n, "content of " + n));
    sim.pack("pkg.swu", members, 3);

    install_result r = run_install("pkg.swu", 1);
    EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out << r.err;
    EXPECT_THAT(r.out, HasSubstr("[pkg data]  ->artifacts_bitmask: 0x3, ->crc:"));
    EXPECT_THAT(r.out, HasSubstr("file count in src dir: 12\n"));
    EXPECT_THAT(r.out, HasSubstr("copied fname: app.bin | name len: 7\n"));
    EXPECT_THAT(r.out, Not(HasSubstr("[sim] refused")));
    EXPECT_EQ(root.read("dev/mmcblk0p1/app.bin"), big);
    for (const std::string &n : names)
        EXPECT_EQ(root.read("dev/mmcblk0p1/" + n), "content of " + n) << n;
    EXPECT_EQ(root.read("dev/mmcblk0p1/keep.txt"), "not in the package");
    EXPECT_FALSE(fs::exists("pwned"));
    EXPECT_FALSE(card_mounted(root));
    EXPECT_EQ(r.err, "");
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
    };
    for (const auto &c : cases) {
        PkgSim sim;
        sim.root.write("dev/mmcblk0p1/old.txt", "gone after a recovery");
        sim.pack("pkg.swu",
                 {file_member("a.bin", "a"), file_member("b.bin", std::string(200000, 'b'))});
        c.arrange(sim.root);
        install_result r = run_install("pkg.swu", 1, c.before_go);
        setrlimit(RLIMIT_FSIZE, &file_size_limit);

        EXPECT_EQ(r.verdict, c.verdict) << c.name << "\n" << r.out << r.err;
        EXPECT_EQ(occurrences(r.out, "[sim] fdisk: new partition table on /dev/mmcblk0\n"), 1u)
            << c.name;
        EXPECT_EQ(occurrences(r.out, "[sim] mkfs.vfat: empty file system on /dev/mmcblk0p1\n"), 1u)
            << c.name;
        for (const auto &[text, times] : c.out)
            EXPECT_EQ(occurrences(r.out, text), times) << c.name << ": " << text << "\n" << r.out;
        for (const auto &[text, times] : c.err)
            EXPECT_EQ(occurrences(r.err, text), times) << c.name << ": " << text << "\n" << r.err;
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
    install_result r = run_install("pkg.swu", 6);
    EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out << r.err;
    EXPECT_THAT(r.out, HasSubstr("file count in src dir: 0\n"));
    EXPECT_THAT(r.out, Not(HasSubstr("ERROR OPENNING UART TTY")));
    EXPECT_EQ(card_files(root), std::set<std::string>{"st.bin"});

    // One name too long for the listing fails it, rather than be left out.
    artifact_desc_t *list = nullptr;
    uint32_t n = 0;
    root.write("tmp/pkg/" + std::string(128, 'n'), "too long");
    CaptureStdout();
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
    set_install_status(INSTALL_STT_INSTALL_FAILURE);
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
    install_result r = run_install("pkg.swu", 1, [] {
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(get_install_status(), INSTALL_STT_ARTIFACT_OK) << "no go-ahead yet";
    });
    EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE);
}

TEST(PkgInstall, TheCardsImageProgramsTheMicrocontrollerUnlessTheReasonKeepsIt)
{
    std::string image(1001, '\0');
    for (size_t i = 0; i < image.size(); i++)
        image[i] = static_cast<char>(i * 7);
    // An error boot alone does not keep the microcontroller's firmware.
    const long keep = SWU_REASON_ERROR_BOOT | SWU_REASON_KEEP_MCU;
    for (long reason : {long{SWU_REASON_ERROR_BOOT}, keep}) {
        PkgSim sim;
        sim.pack("pkg.swu", {file_member("st.bin", image)});
        Stm32Sim mcu(sim.root);
        install_result r = run_install("pkg.swu", reason);
        EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out << r.err;
        const bool programmed = (reason & SWU_REASON_KEEP_MCU) == 0;
        EXPECT_EQ(occurrences(r.out, "SUCCESS to update STM"), programmed ? 1u : 0u) << reason;
        EXPECT_EQ(occurrences(r.out, "installing st sim ........\n\n"), programmed ? 1u : 0u);
        EXPECT_EQ(mcu.flash().substr(0, image.size()) == image, programmed) << mcu.log();
        EXPECT_EQ(sim.root.read("dev/mmcblk0p1/st.bin"), image);
    }
}

// Which manifests pass is the manifest's own test; here, what a refusal
// spares and what at the key's path asks for a signature.
TEST(PkgInstall, WithATrustedKeyOnlyAPackageSignedByItReachesTheCard)
{
    using root_fn = std::function<void(const SimRoot &)>;
    const root_fn trust_k = [](const SimRoot &r) {
        r.write("etc/swu/trusted.pub", r.read("k.pub"));
    };
    const auto link_key = [](const char *to) {
        return root_fn(
            [to](const SimRoot &r) { fs::create_symlink(to, r.path("etc/swu/trusted.pub")); });
    };
    const struct {
        const char *name;
        const char *key; // signed with; null: unsigned
        root_fn trust;   // what the key's path holds
        std::string why; // "": installed
    } cases[] = {
        {"signed", "k", trust_k, ""},
        {"unsigned", nullptr, trust_k, "unsigned"},
        {"wrong key", "other", trust_k, "does not verify"},
        {"dangling key link", nullptr, link_key("missing.pub"), "cannot read the key"},
        {"key link loop", nullptr, link_key("trusted.pub"), "cannot read the key"},
        {"no key in the file", nullptr,
         [](const SimRoot &r) { r.write("etc/swu/trusted.pub", "not a key\n"); },
         "does not hold a key"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        PkgSim sim;
        for (const char *key : {"k", "other"})
            ASSERT_EQ(
                run_to_end({SWU_BIN_DIR "/swu-pack", "keygen", key}, sim.root.dir()).exit_code, 0);
        sim.root.mkdir("etc/swu");
        c.trust(sim.root);
        sim.root.write("tmp/pkg/left.bin", "left by an earlier package");
        pack_signed(sim, "pkg.swu", {}, {{"app.bin", "new app"}, {"st.bin", "image"}}, c.key);
        Stm32Sim mcu(sim.root);
        install_result r = run_install("pkg.swu", 1);
        if (c.why.empty()) {
            EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out << r.err;
            EXPECT_THAT(r.out, HasSubstr("package signature verified\n"));
            EXPECT_EQ(sim.root.read("dev/mmcblk0p1/app.bin"), "new app");
            EXPECT_FALSE(sim.root.exists("dev/mmcblk0p1/left.bin"));
            continue;
        }
        EXPECT_EQ(r.verdict, INSTALL_STT_ARTIFACT_ERROR) << r.out;
        EXPECT_THAT(r.out, HasSubstr("package refused, signature check failed: "));
        EXPECT_THAT(r.out, HasSubstr(c.why));
        EXPECT_TRUE(fs::is_empty(sim.root.path("dev/mmcblk0p1"))) << "the card was touched";
        EXPECT_EQ(mcu.count("erase"), 0u) << mcu.log();
    }
}

} // namespace

TEST(PkgInstall, WithATrustedKeyTheStagingPathAndTheCardsCopiesAreChecked)
{
    PkgSim sim;
    trust_new_key(sim);
    pack_signed(sim, "pkg.swu", {}, {{"app.bin", "signed app"}, {"st.bin", "image"}});

    // A link at the staging path is replaced, its target left as it was.
    sim.root.write("outside/precious", "untouched");
    fs::create_directory_symlink(sim.root.path("outside"), sim.root.path("tmp/pkg"));
    Stm32Sim mcu(sim.root);
    install_result r = run_install("pkg.swu", 1);
    EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out << r.err;
    EXPECT_EQ(sim.root.read("outside/precious"), "untouched");
    EXPECT_EQ(std::distance(fs::directory_iterator(sim.root.path("outside")), {}), 1);
    EXPECT_EQ(fs::symlink_status(sim.root.path("tmp/pkg")).type(), fs::file_type::directory);
    EXPECT_EQ(fs::status(sim.root.path("tmp/pkg")).permissions() & fs::perms::all,
              fs::perms::owner_all);
    const size_t erased = mcu.count("application area erased");
    EXPECT_EQ(erased, 1u) << mcu.log();

    // An artifact swapped after the check, or one added, is caught on the card
    // before the microcontroller is touched, and does not stay there.
    for (const char *swap : {"app.bin", "added.sh"}) {
        SCOPED_TRACE(swap);
        pack_signed(sim, "again.swu", {}, {{"app.bin", "signed app"}, {"st.bin", "image"}});
        r = run_install("again.swu", 1,
                        [&] { sim.root.write(std::string("tmp/pkg/") + swap, "evil"); });
        EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_FAILURE) << r.out;
        EXPECT_EQ(occurrences(r.out,
                              "installation refused, the card's copy differs from the signed "
                              "package: "),
                  2u)
            << "both attempts";
        EXPECT_TRUE(fs::is_empty(sim.root.path("dev/mmcblk0p1"))) << "left on the card";
        EXPECT_EQ(mcu.count("application area erased"), erased)
            << "the microcontroller was touched";
    }
}

TEST(PkgInstall, ASignedPackageOlderThanTheCardsNeedsADowngradeSignature)
{
    const struct {
        const char *version; // of the package's version file; null: none
        bool downgrade;
        bool installed;
    } cases[] = {
        {"2.0.0", false, true},  {"2.0.1", false, true}, {"1.9.9", false, false},
        {nullptr, false, false}, {"1.9.9", true, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.version ? c.version : "none") +
                     (c.downgrade ? " downgrade" : ""));
        PkgSim sim;
        trust_new_key(sim);
        sim.root.write("dev/mmcblk0p1/pkg_ver.txt", "[pkg_data]\nversion=2.0.0\n");
        std::vector<std::pair<std::string, std::string>> artifacts = {{"app.bin", "app"}};
        if (c.version != nullptr)
            artifacts.push_back({"pkg_ver.txt", std::string("[pkg_data]\nversion=") + c.version});
        pack_signed(sim, "pkg.swu",
                    c.downgrade ? std::vector<std::string>{"--downgrade"}
                                : std::vector<std::string>{},
                    artifacts);
        install_result r = run_install("pkg.swu", 1);
        if (c.installed) {
            EXPECT_EQ(r.verdict, INSTALL_STT_INSTALL_COMPLEATE) << r.out;
            EXPECT_EQ(sim.root.read("dev/mmcblk0p1/app.bin"), "app");
            continue;
        }
        EXPECT_EQ(r.verdict, INSTALL_STT_ARTIFACT_ERROR) << r.out;
        EXPECT_THAT(r.out, HasSubstr(std::string("package refused: version ") +
                                     (c.version ? c.version : "0.0.0") +
                                     " is older than the installed 2.0.0 and not signed as a "
                                     "downgrade\n"));
        EXPECT_FALSE(sim.root.exists("dev/mmcblk0p1/app.bin"));
    }
    // Only a signed package can say it is a downgrade.
    PkgSim sim;
    sim.root.write("in/app.bin", "app");
    run_result r = run_to_end({SWU_BIN_DIR "/swu-pack", "-o", "p.swu", "--downgrade", "in/app.bin"},
                              sim.root.dir());
    EXPECT_NE(r.exit_code, 0);
    EXPECT_THAT(r.out + r.err, HasSubstr("--downgrade requires --sign"));
}
