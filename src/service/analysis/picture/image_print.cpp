#include "service/analysis/picture/image_print.h"

#include <cstdarg>
#include <cstdio>

namespace varnel::service {

void PrintMessage(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stdout, format, arguments);
  va_end(arguments);
  std::fflush(stdout);
}

}  // namespace varnel::service
