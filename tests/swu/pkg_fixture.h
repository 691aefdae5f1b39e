// A simulated terminal for the package tests: a fresh root with the staging
// parent, the card's mount point and partition, the working directory inside
// the root (where the service keeps the received package), and packages
// built with swu-pack's library.
#pragma once

#include "lib/package_inspect.h"
#include "lib/package_sign.h"
#include "support/sim_root.h"
#include "swu/pkg_install.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

// A package member that is a regular file holding `data`.
inline pack_member file_member(const std::string &name, const std::string &data)
{
    pack_member m;
    m.name = name;
    m.data = data;
    return m;
}

inline pack_member link_member(const std::string &name, pack_kind kind, const std::string &to)
{
    pack_member m;
    m.name = name;
    m.kind = kind;
    m.link = to;
    return m;
}

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
