// A fresh simulation root per test: a temporary directory named by SWU_ROOT,
// optionally the working directory too, removed again afterwards.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

class SimRoot
{
  public:
    SimRoot()
    {
        std::string tmpl = (std::filesystem::temp_directory_path() / "swu-root-XXXXXX").string();
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) == nullptr)
            std::abort();
        dir_ = buf.data();
        previous_ = getenv("SWU_ROOT") ? getenv("SWU_ROOT") : "";
        setenv("SWU_ROOT", dir_.c_str(), 1);
    }
    ~SimRoot()
    {
        std::error_code ec;
        if (!old_cwd_.empty())
            std::filesystem::current_path(old_cwd_, ec);
        std::filesystem::remove_all(dir_, ec);
        if (previous_.empty())
            unsetenv("SWU_ROOT");
        else
            setenv("SWU_ROOT", previous_.c_str(), 1);
    }
    SimRoot(const SimRoot &) = delete;
    SimRoot &operator=(const SimRoot &) = delete;

    const std::string &dir() const { return dir_; }
    // Makes the root the working directory until the root goes.
    void enter()
    {
        old_cwd_ = std::filesystem::current_path();
        std::filesystem::current_path(dir_);
    }
    // The host path of a path inside the root ("dev/ovmisc").
    std::string path(const std::string &rel) const { return dir_ + "/" + rel; }

    void write(const std::string &rel, const std::string &bytes) const
    {
        std::filesystem::create_directories(std::filesystem::path(path(rel)).parent_path());
        std::ofstream(path(rel), std::ios::binary) << bytes;
    }
    std::string read(const std::string &rel) const
    {
        std::ifstream in(path(rel), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    bool exists(const std::string &rel) const { return std::filesystem::exists(path(rel)); }
    void mkdir(const std::string &rel) const { std::filesystem::create_directories(path(rel)); }

    // Makes the next `count` calls of a seam operation fail (count 0: every call).
    void fail(const std::string &op, int count = 1, int err = 5) const
    {
        write("sim/fail/" + op, count == 0
                                    ? std::string()
                                    : std::to_string(count) + " " + std::to_string(err) + "\n");
    }

    // The register device with its three little-endian values.
    void registers(uint32_t initiate, uint32_t err_boot, uint32_t reboot_mode = 0xFFFFFFFF) const
    {
        std::string bytes;
        for (uint32_t v : {initiate, err_boot, reboot_mode})
            for (int i = 0; i < 4; i++)
                bytes.push_back(static_cast<char>(v >> (8 * i)));
        write("dev/ovmisc", bytes);
    }

  private:
    std::string dir_;
    std::string previous_;
    std::filesystem::path old_cwd_;
};
