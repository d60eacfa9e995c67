#pragma once

#include <sys/types.h>

namespace varnel::utils {

/// Gives a process that has one thread yet the lowest priority for the processor and the disk; its
/// threads and children inherit it.
void MakeIdle(pid_t pid);

/// The same for the calling thread of ours, nearly: it shares locks with others, so that it must
/// get a little of the processor even when all of it is wanted.
void MakeThreadIdle();

}  // namespace varnel::utils
