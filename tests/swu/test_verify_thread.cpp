// The verification state with a real installation thread (host simulation).
#include "handler_test.h"
#include "support/sim_root.h"

#include <chrono>
#include <thread>

namespace
{

TEST(SwuVerify, EachPackageGetsACheckOfItsOwn)
{
    SimRoot root;
    root.enter();
    swu_harness h;
    h.connect();
    std::ofstream("garbage.pkg") << std::string(100, 'x');
    strcpy(g_pkg_name, "garbage.pkg");
    for (int round = 0; round < 2; round++) {
        SCOPED_TRACE(round);
        set_install_status(INSTALL_STT_ARTIFACT_OK); // a verdict left from before
        uint8_t event = SM_EVNT_NO_EVENT;
        for (int i = 0; i < 500 && event == SM_EVNT_NO_EVENT; i++) {
            h.session_age(0);
            event = h.run(SM_STATE_VERIFY);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(event, SM_EVNT_INT_ERROR);
        for (int i = 0; i < 500 && g_install_thrd_alive; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(g_install_thrd_alive, 0) << "the acknowledged thread ends";
    }
}

} // namespace
