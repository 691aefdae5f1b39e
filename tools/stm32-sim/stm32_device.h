// The simulated STM32 supervisor microcontroller: what it does with each
// frame the Zynq sends and what it answers, in its application or in its
// bootloader. Its flash and versions live in a state file, so a later run
// sees what an earlier one programmed. Knows nothing of the line; the
// simulator's main loop carries frames to and from it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Start of the application area and its size in the simulated flash.
inline constexpr uint32_t SIM_FLASH_BASE = 0x08020000;
inline constexpr uint32_t SIM_FLASH_AREA = 0x60000;

struct stm32_options {
    std::string state_path;
    std::optional<bool> start_in_app; // unset: from the state file
    int recovery = 0x55;              // second status byte; -1 sends only one
    uint32_t api_version = 0x00010000;
    uint32_t boot_version = 0x00010000;
    bool stay_in_app = false;  // ignore the order to restart into the bootloader
    int verify_len = 4;        // payload bytes of the verify reply
    bool wrong_verify = false; // report a CRC that differs from the image's
    int read_chunk = 0;        // bytes per read-back answer; 0: as asked
};

struct stm32_device {
    explicit stm32_device(const stm32_options &opt);

    // Handles one request; the reply payload, or nothing when the STM32
    // answers nothing. `event` receives a line for the log when something
    // worth telling happened (restart, erase, programmed).
    std::optional<std::vector<uint8_t>> handle(uint8_t opc, const uint8_t *data, uint8_t len,
                                               std::string &event);

    // Loads a flash image as if programmed (the application is then present).
    bool load_image(const std::string &path);

    uint8_t mode() const { return mode_; }

  private:
    void save() const;
    bool load();

    stm32_options opt_;
    uint8_t mode_;
    uint32_t api_version_;
    uint32_t boot_version_;
    bool app_present_ = false;
    bool incomplete_ = false;
    uint8_t led_ = 0;
    uint8_t button_ = 0;
    bool update_open_ = false;
    bool erased_ = false;
    bool started_ = false;
    uint32_t announced_ = 0;
    std::vector<uint8_t> received_;
    std::vector<uint8_t> flash_;
};
