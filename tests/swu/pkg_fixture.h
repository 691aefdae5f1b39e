// A simulated terminal for the package tests: a fresh root with the staging
// parent, the card's mount point and partition, the working directory inside
// the root (where the service keeps the received package), and packages
// built with swu-pack's library.
#pragma once

#include "lib/package_inspect.h"
#include "lib/package_sign.h"
#include "support/pack_members.h"
#include "support/sim_root.h"
#include "swu/pkg_install.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::Not;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;
namespace fs = std::filesystem;

// The simulated terminal, with the working directory inside its root for
// the object's lifetime.
class PkgSim
{
  public:
    PkgSim()
    {
        root.mkdir("tmp");
        root.mkdir("mnt");
        root.mkdir("dev/mmcblk0p1");
        root.enter();
    }

    // Writes a package of `members` as `name` in the working directory.
    void pack(const std::string &name, const std::vector<pack_member> &members,
              uint32_t bitmask = 0) const
    {
        std::string err;
        EXPECT_EQ(pack_write(name, members, bitmask, PKG_MAX_SIZE, &err), 0) << err;
    }

    SimRoot root;
};
