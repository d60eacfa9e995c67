#include "platform/mount_table.h"

#include <gtest/gtest.h>

namespace varnel::platform {
namespace {

TEST(MountTableTest, FindsTheDirectoryOfSda) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"", {}},
      {"proc /proc proc rw 0 0\n/dev/sdb1 /mnt/b vfat rw 0 0\n", {}},
      {"proc /proc proc rw 0 0\n/dev/sda /mnt/a vfat rw 0 0\n", "/mnt/a"},
      {"/dev/sda2 /mnt/second ext4 rw 0 0\n/dev/sda1 /mnt/first ext4 rw 0 0\n", "/mnt/second"},
      {"over /mnt/o overlay rw,lower=/dev/sda 0 0\n", "/mnt/o"},
      {"/dev/sda1 /mnt/a", "/mnt/a"},
      {"/dev/sda1\n", {}},
      {R"(/dev/sda1 /mnt/a\040b\011c\012d\134e vfat rw 0 0)", "/mnt/a b\tc\nd\\e"},
      {R"(/dev/sda1 /mnt/\134040 vfat rw 0 0)", R"(/mnt/\040)"},
      {R"(/dev/sda1 /mnt/\04\0x8\777\04 vfat rw 0 0)", R"(/mnt/\04\0x8\777\04)"},
      {"/dev/sda1 /mnt/\xC3\xA4 vfat rw 0 0", "/mnt/\xC3\xA4"},
  };
  for (const auto& [mounts, directory] : cases)
    EXPECT_EQ(mount_directory_of("/dev/sda", mounts), directory) << mounts;
}

}  // namespace
}  // namespace varnel::platform
