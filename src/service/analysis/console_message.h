#pragma once

namespace varnel::service {

/// Prints one message to standard output and passes it on at once, whatever standard output is.
void PrintMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace varnel::service
