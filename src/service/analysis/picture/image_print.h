#pragma once

namespace varnel::service {

/// Writes a message of the picture and network layers to standard output. It leaves the process at
/// once: a journal gets it with the right time, and a crash right after does not swallow it.
void PrintMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace varnel::service
