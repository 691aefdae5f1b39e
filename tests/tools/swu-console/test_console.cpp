// swu-console's HTTP API against a real daemon, and its page in a real
// browser: what the page may reach, whom the console answers, and a rollout
// followed from the plan to the terminal's confirmation.
#include "lib/exit_codes.h"
#include "support/stranger.h"
#include "support/terminal_lan.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

using nlohmann::json;

class ConsoleTest : public TerminalTest
{
  protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        root_.mkdir("client/packages");
    }
    void TearDown() override
    {
        console_.stop();
        for (const char *report : {"AddressSanitizer", "runtime error:", "LeakSanitizer"})
            EXPECT_EQ(console_.output().find(report), std::string::npos) << report << " reported";
        if (HasFailure())
            printf("---- swu-console output ----\n%s\n", console_.output().c_str());
        TerminalTest::TearDown();
    }

    // Starts the console (`console_` unless told otherwise) on `listen` over
    // client/packages; the address it prints.
    std::string start_console(const std::string &listen = "127.0.0.1:18080",
                              TestProcess *p = nullptr, const std::string &local = "127.0.0.1")
    {
        TestProcess &console = p != nullptr ? *p : console_;
        EXPECT_TRUE(console.start({SWU_BIN_DIR "/swu-console", "--listen", listen, "--packages",
                                   root_.path("client/packages"), "--local", local},
                                  root_.dir()));
        EXPECT_TRUE(console.wait_output("\n", 5s * SLOW)) << console.output();
        const std::string out = console.output();
        const size_t at = out.find("open ");
        return at == std::string::npos ? "" : out.substr(at + 5, out.find('\n', at) - at - 5);
    }

    // A package of version `version` in client/packages.
    std::string package(const std::string &name, const std::string &version,
                        const std::string &st_bin = "x")
    {
        return make_package("packages/" + name,
                            {file_member("pkg_ver.txt", "[pkg_data]\nversion=" + version + "\n"),
                             file_member("app.bin", test_bytes(50000, 7)),
                             file_member("st.bin", st_bin)});
    }

    httplib::Client http(int port = 18080, const char *host = "127.0.0.1")
    {
        httplib::Client c(host, port);
        c.set_read_timeout(30, 0);
        return c;
    }

    json get(const std::string &path, int want = 200)
    {
        return answer(http().Get(path.c_str()), path, want);
    }
    json post(const std::string &path, const json &body, int want = 200)
    {
        return answer(http().Post(path.c_str(), body.dump(), "application/json"), path, want);
    }
    static json answer(const httplib::Result &r, const std::string &path, int want)
    {
        EXPECT_TRUE(r) << path;
        if (!r)
            return nullptr;
        EXPECT_EQ(r->status, want) << path << ": " << r->body;
        return json::parse(r->body, nullptr, false);
    }

    // Polls the state until `done` holds it; the last state.
    json wait_state(const std::function<bool(const json &)> &done,
                    std::chrono::milliseconds timeout = 10s)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout * SLOW;
        json s;
        while (std::chrono::steady_clock::now() < deadline) {
            s = get("/api/state");
            if (s.is_object() && done(s))
                return s;
            std::this_thread::sleep_for(200ms);
        }
        ADD_FAILURE() << "state never reached: " << s.dump(1);
        return s;
    }

    static bool heard(const json &s, const std::string &identity)
    {
        for (const json &t : s["terminals"])
            if (t["identity"] == identity)
                return true;
        return false;
    }

    // Plays the terminal's boot: the daemon again, `boot` after the last one
    // ended.
    void reboot_daemon(std::chrono::milliseconds boot = 0ms)
    {
        ASSERT_TRUE(swu_.wait_end(60s * SLOW)) << "no reboot: " << get("/api/state").dump(1);
        std::this_thread::sleep_for(boot);
        ASSERT_TRUE(next_.start({SWU_BIN_DIR "/swu"}, root_.path("work")));
    }

    TestProcess console_, next_;
};

// A raw request, for what a well-behaved client library never sends. The
// status line of the answer.
std::string raw_request(int port, const std::string &request)
{
    unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&to), sizeof to) != 0)
        return "";
    EXPECT_EQ(send(fd.get(), request.data(), request.size(), 0), ssize_t(request.size()));
    char buf[256] = {};
    ssize_t n = recv(fd.get(), buf, sizeof buf - 1, 0);
    std::string answer(buf, n > 0 ? static_cast<size_t>(n) : 0);
    return answer.substr(0, answer.find("\r\n"));
}

TEST_F(ConsoleTest, ListsTerminalsAndReachesOnlyThePackagesOfItsDirectory)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string v2 = package("v2.swu", "2.0.0");
    package("empty-st.swu", "2.0.0", "");
    root_.write("client/outside.swu", root_.read("client/packages/v2.swu"));
    std::filesystem::create_symlink(root_.path("client/outside.swu"),
                                    root_.path("client/packages/link.swu"));
    start_console();

    json s = wait_state([](const json &st) { return heard(st, "ID"); });
    EXPECT_EQ(s["terminals"][0]["installed_version"], "1.2.3");
    EXPECT_EQ(s["terminals"][0]["busy"], false);
    EXPECT_EQ(s["terminals"][0]["name"], "127.0.0.1");
    EXPECT_LT(s["terminals"][0]["silent_s"].get<double>(), 4.0);

    EXPECT_EQ(
        get("/api/packages"),
        json::parse(
            R"([{"package":"empty-st.swu","size":)" +
            std::to_string(std::filesystem::file_size(root_.path("client/packages/empty-st.swu"))) +
            R"(,"uploaded":false},{"package":"v2.swu","size":)" +
            std::to_string(std::filesystem::file_size(v2)) + R"(,"uploaded":false}])"));
    json c = get("/api/check?package=v2.swu");
    EXPECT_EQ(c["result"], "ok");
    EXPECT_EQ(c["version"], "2.0.0");
    EXPECT_EQ(c["signed"], false);
    EXPECT_EQ(c["members"].size(), 3u);
    c = get("/api/check?package=empty-st.swu");
    EXPECT_EQ(c["result"], "refused");
    EXPECT_NE(c["findings"].dump().find("st.bin"), std::string::npos) << c;
    for (const char *escape :
         {"link.swu", "..%2Foutside.swu", "%2Fetc%2Fpasswd", "uploaded%2F..%2Fv2.swu", "", "."})
        get(std::string("/api/check?package=") + escape, 404);

    // Uploads land in the console's own directory, capped at the largest
    // package; the cap is enforced before the body is read.
    auto up = http().Post("/api/upload?name=up.swu", root_.read("client/packages/v2.swu"),
                          "application/octet-stream");
    ASSERT_TRUE(up);
    EXPECT_EQ(up->status, 200) << up->body;
    EXPECT_EQ(json::parse(up->body)["package"], "uploaded/up.swu");
    EXPECT_EQ(get("/api/check?package=uploaded%2Fup.swu")["result"], "ok");
    EXPECT_FALSE(root_.exists("client/packages/up.swu"));
    up = http().Post("/api/upload?name=..%2Fx.swu", "x", "application/octet-stream");
    ASSERT_TRUE(up);
    EXPECT_EQ(up->status, 400);
    EXPECT_EQ(raw_request(18080, "POST /api/upload?name=big.swu HTTP/1.1\r\n"
                                 "Host: 127.0.0.1:18080\r\n"
                                 "Content-Type: application/octet-stream\r\n"
                                 "Content-Length: " +
                                     std::to_string(PKG_MAX_SIZE + 1) + "\r\n\r\n"),
              "HTTP/1.1 413 Payload Too Large");

    // A page left open (its event stream) does not keep the console from
    // ending.
    std::atomic<int> events{0};
    std::thread page(
        [&] { http().Get("/api/events", [&](const char *, size_t) { return ++events > 0; }); });
    for (int i = 0; i < 50 && events == 0; i++)
        std::this_thread::sleep_for(100ms);
    EXPECT_GT(events, 0);
    console_.stop();
    EXPECT_EQ(console_.exit_code(), 0);
    page.join();
}

TEST_F(ConsoleTest, AnswersOnlyItsOwnHostAndOriginAndAwayFromLoopbackOnlyTheToken)
{
    ASSERT_NO_FATAL_FAILURE(start());
    EXPECT_EQ(start_console(), "http://127.0.0.1:18080/");
    auto page = http().Get("/");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_NE(page->body.find("<title>swu console</title>"), std::string::npos);
    for (const auto &[header, value, status] :
         std::vector<std::tuple<std::string, std::string, int>>{
             {"Host", "rebound.example:18080", 403},
             {"Origin", "http://evil.example", 403},
             {"Origin", "http://localhost:18080", 200},
             {"Host", "localhost:18080", 200}}) {
        auto r = http().Get("/api/state", {{header, value}});
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, status) << header << ": " << value;
    }
    // A cross-site form can post only the simple kinds of body.
    auto form = http().Post("/api/plan", "package=v2.swu", "application/x-www-form-urlencoded");
    ASSERT_TRUE(form);
    EXPECT_EQ(form->status, 415);
    console_.stop();

    // A wildcard address is no address a browser names.
    for (const char *bad : {"0.0.0.0:18081", "18081"})
        EXPECT_EQ(run_to_end({SWU_BIN_DIR "/swu-console", "--listen", bad}, root_.dir()).exit_code,
                  2)
            << bad;

    // Beyond loopback: the token printed at start, in the address, a header
    // or the cookie the page gets with it.
    ASSERT_EQ(system("ip addr add 10.9.9.9/32 dev lo"), 0);
    // It serves here but listens for terminals in another namespace, where
    // there are none.
    struct empty_netns {
        std::string name = "swu-console-" + std::to_string(getpid());
        empty_netns()
        {
            EXPECT_EQ(system(("ip netns add " + name + " && ip -n " + name +
                              " link set lo up && ip -n " + name + " route add 224.0.0.0/4 dev lo")
                                 .c_str()),
                      0);
        }
        ~empty_netns() { EXPECT_EQ(system(("ip netns del " + name).c_str()), 0); }
    } ns;
    TestProcess far;
    ASSERT_TRUE(far.start({SWU_BIN_DIR "/swu-console", "--listen", "10.9.9.9:18081", "--netns",
                           "/run/netns/" + ns.name},
                          root_.dir()));
    EXPECT_TRUE(far.wait_output("\n", 5s * SLOW)) << far.output();
    const std::string out = far.output();
    ASSERT_NE(out.find("http"), std::string::npos) << out;
    const std::string url = out.substr(out.find("http"), out.find('\n') - out.find("http"));
    const std::string token = url.substr(url.find("?token=") + 7);
    ASSERT_EQ(token.size(), 64u) << url;
    httplib::Client c = http(18081, "10.9.9.9");
    ASSERT_TRUE(c.Get("/api/state")) << "no answer from " << url;
    EXPECT_EQ(c.Get("/api/state")->status, 401);
    EXPECT_EQ(c.Get("/api/state?token=" + std::string(64, '0'))->status, 401);
    EXPECT_EQ(c.Get("/api/state", {{"X-Console-Token", token}})->status, 200);
    auto first = c.Get("/?token=" + token);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->status, 200);
    const std::string cookie = first->get_header_value("Set-Cookie");
    EXPECT_NE(cookie.find("HttpOnly; SameSite=Strict"), std::string::npos) << cookie;
    EXPECT_EQ(c.Get("/console.js", {{"Cookie", cookie.substr(0, cookie.find(';'))}})->status, 200);
    std::this_thread::sleep_for(3500ms); // an advertisement period
    auto s = c.Get("/api/state", {{"X-Console-Token", token}});
    EXPECT_EQ(json::parse(s->body)["terminals"], json::array()) << s->body;
    far.stop();
}

TEST_F(ConsoleTest, DryRunThenOneConfirmedRolloutAtATimeToTheTerminalsConfirmation)
{
    ASSERT_NO_FATAL_FAILURE(start());
    package("v2.swu", "2.0.0");
    package("same.swu", "1.2.3");
    start_console();
    json s = wait_state([](const json &st) { return heard(st, "ID"); });
    const std::string key = s["terminals"][0]["key"];
    const json order = {{"package", "v2.swu"}, {"terminals", {key}}};

    json p = post("/api/plan", {{"package", "same.swu"}, {"terminals", {key}}});
    EXPECT_EQ(p["terminals"][0]["take"], "skip");
    EXPECT_NE(p["terminals"][0]["why"].get<std::string>().find("--reinstall"), std::string::npos);
    post("/api/rollout", {{"plan", p["plan"]}}, 409);
    json d = post("/api/dry-run", order);
    EXPECT_EQ(d["terminals"][0]["dry_run"]["exit_code"], 0) << d;
    EXPECT_EQ(d["terminals"][0]["dry_run"]["reasons"], 1) << d;
    // The dry run's session lapses after 5 s; the plan takes the terminal
    // once it advertises itself free again.
    std::this_thread::sleep_for(5s);
    wait_state([](const json &st) {
        return st["terminals"][0]["busy"] == false && st["terminals"][0]["silent_s"] < 1.0;
    });

    p = post("/api/plan", order);
    EXPECT_EQ(p["terminals"][0]["take"], "update") << p;
    EXPECT_EQ(p["terminals"][0]["from"], "1.2.3");
    EXPECT_EQ(p["terminals"][0]["to"], "2.0.0");
    post("/api/rollout", {{"plan", "made-up"}}, 409);
    post("/api/rollout", {{"plan", p["plan"]}}, 202);
    // The plan is spent, and a second rollout waits for the first.
    post("/api/rollout", {{"plan", p["plan"]}}, 409);
    json again = post("/api/rollout", {{"plan", post("/api/plan", order)["plan"]}}, 409);
    EXPECT_NE(again["error"].get<std::string>().find("already running"), std::string::npos);

    ASSERT_NO_FATAL_FAILURE(reboot_daemon());
    s = wait_state([](const json &st) { return !st["history"].empty(); }, 90s);
    const json &t = s["rollout"]["terminals"][0];
    EXPECT_EQ(t["phase"], "confirmed") << t;
    EXPECT_EQ(s["rollout"]["summary"], "1 updated, 0 failed, 0 left alone");
}

// The page in headless Chromium (tests/tools/swu-console/browser_update.py):
// a forged name full of markup and escapes shows as text, and an update is
// followed from the package's check to the terminal's confirmation and its
// report. The
// screenshot of the finished page stays in the build directory.
TEST_F(ConsoleTest, ABrowserFollowsAnUpdateToTheConfirmation)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string forged_name = "<img src=x onerror=alert(1)>\x1b[2J";
    // Its own key (address and port), beside the real terminal's.
    Stranger forged({Stranger::advert(forged_name, 0, false, 12999)}, "127.0.0.1", 0);
    make_package("packages/v2.swu",
                 {file_member("pkg_ver.txt", "[pkg_data]\nversion=2.0.0\n"),
                  file_member("app.bin", test_bytes(4 << 20, 8)), file_member("st.bin", "st")});
    const std::string url = start_console();
    root_.mkdir("client/downloads");
    TestProcess browser;
    ASSERT_TRUE(browser.start(
        {"/usr/bin/python3", SWU_SOURCE_DIR "/tests/tools/swu-console/browser_update.py", url,
         SWU_BIN_DIR "/../console.png", root_.path("client/downloads"), forged_name},
        root_.dir()));
    for (int i = 0; i < 600 * SLOW && !swu_.ended() && !browser.ended(); i++)
        std::this_thread::sleep_for(100ms);
    ASSERT_FALSE(browser.ended()) << browser.output();
    ASSERT_NO_FATAL_FAILURE(reboot_daemon(2s));
    ASSERT_TRUE(browser.wait_end(150s * SLOW)) << browser.output();
    EXPECT_EQ(browser.exit_code(), 0) << browser.output();
    EXPECT_EQ(card_file("pkg_ver.txt"), "[pkg_data]\nversion=2.0.0\n");
}

// Two terminals on one LAN: the canary fails, which spends the failure
// budget and holds the other back; both are in the report.
class ConsoleLan : public ConsoleTest
{
  protected:
    TerminalLan lan_;
};

TEST_F(ConsoleLan, AFailedCanaryHoldsTheFleetBackAndEveryTerminalIsReported)
{
    TerminalSetup failing;
    failing.daemon_args = {"-M"}; // cannot reserve the package
    lan_.add("T-A", failing);
    lan_.add("T-B");
    package("v2.swu", "2.0.0");
    start_console("127.0.0.1:18080", nullptr, TerminalLan::CLIENT);
    json s = wait_state([](const json &st) { return heard(st, "T-A") && heard(st, "T-B"); });
    std::vector<std::string> keys;
    for (const json &t : s["terminals"])
        keys.push_back(t["key"]);
    std::sort(keys.begin(), keys.end()); // T-A first
    json p = post("/api/plan",
                  {{"package", "v2.swu"}, {"terminals", keys}, {"canary", 1}, {"max_failures", 1}});
    post("/api/rollout", {{"plan", p["plan"]}}, 202);
    s = wait_state([](const json &st) { return !st["history"].empty(); }, 60s);
    const json &ts = s["rollout"]["terminals"];
    EXPECT_EQ(ts[0]["identity"], "T-A");
    EXPECT_EQ(ts[0]["failed"], true);
    EXPECT_EQ(ts[0]["outcome"]["exit_code"], SWUC_EXIT_NO_MEMORY) << ts[0];
    EXPECT_EQ(ts[1]["phase"], "not started");
    EXPECT_NE(ts[1]["why"].get<std::string>().find("canary"), std::string::npos) << ts[1];
    EXPECT_EQ(s["rollout"]["summary"], "0 updated, 1 failed, 1 left alone");
    auto r = http().Get("/api/report?id=1");
    ASSERT_TRUE(r);
    EXPECT_EQ(std::count(r->body.begin(), r->body.end(), '\n'), 2) << r->body;
    EXPECT_NE(r->body.find(R"("identity":"T-B")"), std::string::npos) << r->body;
}

} // namespace
