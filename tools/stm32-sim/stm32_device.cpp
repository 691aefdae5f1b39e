#include "stm32_device.h"

#include "lib/st_control/stm_com/zynq_st_uart_link.h"
#include "lib/st_control/stm_com/zynq_st_uart_prot.h"
#include "lib/sys/crc.h"
#include "lib/sys/le_bytes.h"

#include <cstdio>
#include <cstring>
#include <filesystem>

namespace
{

constexpr const char *STATE_MAGIC = "stm32-sim-state 1";

std::vector<uint8_t> ack(uint8_t byte)
{
    return {byte};
}

} // namespace

stm32_device::stm32_device(const stm32_options &opt)
    : opt_(opt), api_version_(opt.api_version), boot_version_(opt.boot_version)
{
    load();
    if (opt_.start_in_app.value_or(app_present_)) {
        mode_ = STM32_APPLICATION;
        app_present_ = true;
    } else if (incomplete_) {
        mode_ = STM32_BOOTLOADER_APPLICATION_UPDATE_INCOMPLETE;
    } else if (app_present_) {
        mode_ = STM32_BOOTLOADER_APPLICATION_TRIGGERED_RESTART;
    } else {
        mode_ = STM32_BOOTLOADER_NO_APPLICATION_PRESENT;
    }
}

bool stm32_device::load()
{
    FILE *f = fopen(opt_.state_path.c_str(), "rb");
    if (f == nullptr)
        return false;
    char line[128];
    unsigned long api = 0, boot = 0, size = 0;
    int app = 0, incomplete = 0;
    bool ok = fgets(line, sizeof(line), f) != nullptr &&
              strncmp(line, STATE_MAGIC, strlen(STATE_MAGIC)) == 0 &&
              fscanf(f,
                     "api_version %lx\nboot_version %lx\napplication %d\nincomplete %d\n"
                     "flash %lu",
                     &api, &boot, &app, &incomplete, &size) == 5 &&
              fgetc(f) == '\n' && size <= SIM_FLASH_AREA;
    if (ok) {
        std::vector<uint8_t> flash(size);
        ok = fread(flash.data(), 1, size, f) == size;
        if (ok) {
            api_version_ = static_cast<uint32_t>(api);
            boot_version_ = static_cast<uint32_t>(boot);
            app_present_ = app != 0;
            incomplete_ = incomplete != 0;
            flash_ = std::move(flash);
        }
    }
    fclose(f);
    if (!ok)
        fprintf(stderr, "stm32-sim: ignoring unreadable state file %s\n", opt_.state_path.c_str());
    return ok;
}

void stm32_device::save() const
{
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(opt_.state_path).parent_path(), ec);
    std::string tmp = opt_.state_path + ".tmp";
    FILE *f = fopen(tmp.c_str(), "wb");
    if (f == nullptr) {
        perror(tmp.c_str());
        return;
    }
    fprintf(f,
            "%s\napi_version 0x%08x\nboot_version 0x%08x\napplication %d\nincomplete %d\n"
            "flash %zu\n",
            STATE_MAGIC, api_version_, boot_version_, app_present_ ? 1 : 0, incomplete_ ? 1 : 0,
            flash_.size());
    if (!flash_.empty())
        fwrite(flash_.data(), 1, flash_.size(), f);
    // Replaced whole, so a run killed mid-write never leaves half a state.
    if (fclose(f) != 0 || rename(tmp.c_str(), opt_.state_path.c_str()) != 0)
        perror(opt_.state_path.c_str());
}

bool stm32_device::load_image(const std::string &path)
{
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    std::vector<uint8_t> image(SIM_FLASH_AREA + 1);
    size_t n = fread(image.data(), 1, image.size(), f);
    fclose(f);
    if (n > SIM_FLASH_AREA)
        return false;
    image.resize((n + 7) & ~static_cast<size_t>(7), 0);
    flash_ = std::move(image);
    app_present_ = true;
    incomplete_ = false;
    api_version_ = crc32_std(0, flash_.data(), flash_.size());
    save();
    return true;
}

std::optional<std::vector<uint8_t>> stm32_device::handle(uint8_t opc, const uint8_t *data,
                                                         uint8_t len, std::string &event)
{
    bool in_boot = mode_ != STM32_APPLICATION;
    switch (opc) {
    case STM32_STATUS_REQ:
        if (opt_.recovery < 0)
            return std::vector<uint8_t>{mode_};
        return std::vector<uint8_t>{mode_, static_cast<uint8_t>(opt_.recovery)};

    case STM32_VERSION_REQ: {
        std::vector<uint8_t> p(8);
        le_put32(&p[0], api_version_);
        le_put32(&p[4], boot_version_);
        return p;
    }

    case STM32_LED_CTRL:
        if (len < 1)
            return std::nullopt;
        if (data[0] & 0x40) {
            led_ = data[0] & 0x27;
            event = "LED set to " + std::to_string(led_ & 7) + ((led_ & 0x20) ? " blinking" : "");
            return std::nullopt;
        }
        return std::vector<uint8_t>{led_};

    case STM32_BTN_CTRL_REQ:
        if (len >= 1) {
            button_ = data[0];
            event = button_ == 0 ? "button active" : "button inactive";
        }
        return ack(STM32_ACK);

    case STM32_SHUTDOWN:
        if (len == 0)
            event = "shutdown ordered";
        else
            event = data[0] == STM32_ACK   ? "shutdown request accepted"
                    : data[0] == STM32_NAK ? "shutdown request refused"
                                           : "shutdown request answered with an unknown byte";
        return std::nullopt;

    case STM32_INIT_SW_UPDATE:
        if (!in_boot) {
            if (opt_.stay_in_app) {
                event = "restart order ignored";
                return std::nullopt;
            }
            mode_ = STM32_BOOTLOADER_APPLICATION_TRIGGERED_RESTART;
            update_open_ = erased_ = started_ = false;
            event = "restarted into the bootloader";
            return std::nullopt;
        }
        update_open_ = true;
        erased_ = started_ = false;
        return ack(STM32_ACK);

    case STM32_ERASE_API:
        if (!in_boot || !update_open_)
            return ack(STM32_NAK);
        flash_.clear();
        app_present_ = false;
        incomplete_ = true;
        erased_ = true;
        started_ = false;
        save();
        event = "application area erased";
        return ack(STM32_ACK);

    case STM32_PROGRAM_START: {
        if (!in_boot || !erased_ || len != 4)
            return ack(STM32_NAK);
        uint32_t size = le_get32(data);
        if (size % 8 != 0 || size > SIM_FLASH_AREA)
            return ack(STM32_NAK);
        announced_ = size;
        received_.clear();
        started_ = true;
        return ack(STM32_ACK);
    }

    case STM32_PROGRAM_BYTES:
        if (!in_boot || !started_ || len == 0 || len % 8 != 0 ||
            received_.size() + len > announced_)
            return ack(STM32_NAK);
        received_.insert(received_.end(), data, data + len);
        return ack(STM32_ACK);

    case STM32_PROGRAM_VERIFIY: {
        uint32_t crc = crc32_std(0, received_.data(), received_.size());
        if (opt_.wrong_verify)
            crc ^= 0x00000001;
        std::vector<uint8_t> p(4);
        le_put32(p.data(), crc);
        p.resize(static_cast<size_t>(opt_.verify_len), 0);
        return p;
    }

    case STM32_PROGRAM_DONE:
        if (!in_boot)
            return ack(STM32_ACK);
        if (started_) {
            if (received_.size() != announced_)
                return ack(STM32_NAK);
            flash_ = received_;
            app_present_ = true;
            incomplete_ = false;
            // The simulated application reports the CRC-32 of its image as
            // its version, so a run can tell which image it is running.
            api_version_ = crc32_std(0, flash_.data(), flash_.size());
            started_ = update_open_ = erased_ = false;
            save();
            event = "programmed " + std::to_string(flash_.size()) + " bytes";
        } else if (!app_present_) {
            mode_ = STM32_BOOTLOADER_APPLICATION_JUMP_FAILED;
            return ack(STM32_NAK);
        }
        mode_ = STM32_APPLICATION;
        event += event.empty() ? "application started" : ", application started";
        return ack(STM32_ACK);

    case STM32_PROGRAM_READ: {
        if (len != 5)
            return std::vector<uint8_t>{};
        uint32_t addr = le_get32(data);
        size_t want = opt_.read_chunk > 0 ? static_cast<size_t>(opt_.read_chunk) : data[4];
        if (addr < SIM_FLASH_BASE || addr - SIM_FLASH_BASE >= flash_.size())
            return std::vector<uint8_t>{};
        size_t off = addr - SIM_FLASH_BASE;
        size_t n = std::min(want, flash_.size() - off);
        return std::vector<uint8_t>(flash_.begin() + static_cast<long>(off),
                                    flash_.begin() + static_cast<long>(off + n));
    }

    default:
        event = "unknown opcode ignored";
        return std::nullopt;
    }
}
