#include "platform/mount_table.h"

#include <gtest/gtest.h>

namespace varnel::platform {
namespace {

struct MountCase {
  const char* name;
  const char* mounts;
  std::optional<std::string> directory;
};

class MountTableTest : public testing::TestWithParam<MountCase> {};

TEST_P(MountTableTest, FindsTheDirectoryOfSda) {
  EXPECT_EQ(mount_directory_of("/dev/sda", GetParam().mounts), GetParam().directory);
}

INSTANTIATE_TEST_SUITE_P(
    All, MountTableTest,
    testing::Values(
        MountCase{"Nothing", "", {}},
        MountCase{"OthersOnly", "proc /proc proc rw 0 0\n/dev/sdb1 /mnt/b vfat rw 0 0\n", {}},
        MountCase{"WholeDisk", "proc /proc proc rw 0 0\n/dev/sda /mnt/a vfat rw 0 0\n", "/mnt/a"},
        MountCase{"FirstPartition",
                  "/dev/sda2 /mnt/second ext4 rw 0 0\n/dev/sda1 /mnt/first ext4 rw 0 0\n",
                  "/mnt/second"},
        MountCase{"AnywhereInTheLine", "over /mnt/o overlay rw,lower=/dev/sda 0 0\n", "/mnt/o"},
        MountCase{"NoLineEnd", "/dev/sda1 /mnt/a", "/mnt/a"},
        MountCase{"NoDirectory", "/dev/sda1\n", {}},
        MountCase{"Escapes", R"(/dev/sda1 /mnt/a\040b\011c\012d\134e vfat rw 0 0)",
                  "/mnt/a b\tc\nd\\e"},
        MountCase{"EscapedOnce", R"(/dev/sda1 /mnt/\134040 vfat rw 0 0)", R"(/mnt/\040)"},
        MountCase{"NoEscapes", R"(/dev/sda1 /mnt/\04\0x8\777\04 vfat rw 0 0)",
                  R"(/mnt/\04\0x8\777\04)"},
        MountCase{"OtherScripts", "/dev/sda1 /mnt/\xC3\xA4 vfat rw 0 0", "/mnt/\xC3\xA4"}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace varnel::platform
