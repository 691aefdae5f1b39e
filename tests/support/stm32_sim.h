// The microcontroller simulator on a simulation root's UART for one test:
// started verbose (every frame in its output) and stopped with the test.
#pragma once

#include "support/process.h"
#include "support/sim_root.h"

#include <chrono>
#include <string>
#include <vector>

class Stm32Sim
{
  public:
    Stm32Sim(const SimRoot &root, std::vector<std::string> args = {}) : root_(root)
    {
        root.mkdir("sim");
        args.insert(args.begin(), {SWU_BIN_DIR "/stm32-sim", "-v"});
        EXPECT_TRUE(process_.start(args, root.dir()));
        EXPECT_TRUE(process_.wait_output("stm32-sim: ready", std::chrono::seconds(10)))
            << process_.output();
    }

    std::string log() const { return process_.output(); }
    size_t count(const std::string &needle) const { return process_.count(needle); }
    // Frames that get no answer may be logged a moment after a command returned.
    bool wait_for(const std::string &needle, size_t times = 1) const
    {
        return process_.wait_output(needle, std::chrono::seconds(2), times);
    }

    // The flash as the simulator keeps it in its state file.
    std::string flash() const
    {
        std::string state = root_.read("sim/stm32.state");
        size_t at = state.find("\nflash ");
        if (at == std::string::npos)
            return {};
        size_t eol = state.find('\n', at + 1);
        return state.substr(eol + 1, std::stoul(state.substr(at + 7, eol - at - 7)));
    }

    // Ends the simulator so that everything it logged has been read.
    void stop() { process_.stop(); }

  private:
    TestProcess process_;
    const SimRoot &root_;
};
