#pragma once

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <initializer_list>
#include <utility>
#include <vector>

namespace varnel::test {

/// False under an emulator of user programs.
inline bool CanRefuseCalls() {
  return ::prctl(PR_GET_SECCOMP, 0, 0, 0, 0) >= 0;
}

/// Installs a filter of system calls for the rest of this process.
inline void Filter(std::vector<sock_filter> program) {
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
    ::_exit(99);
  }
}

/// Lets the named system calls fail for the rest of this process.
inline void RefuseCalls(std::initializer_list<unsigned> calls, unsigned error) {
  std::vector<sock_filter> program = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0)};
  for (const unsigned call : calls) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error));
  }
  Filter(std::move(program));
}

/// As on a file system of a USB drive.
inline void RefuseFilesWithoutNames() {
  constexpr unsigned kFlags = offsetof(seccomp_data, args[2]);
  Filter({BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),
          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
          BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFlags),
          BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_TMPFILE & ~O_DIRECTORY, 0, 1),
          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EOPNOTSUPP)});
}

}  // namespace varnel::test
