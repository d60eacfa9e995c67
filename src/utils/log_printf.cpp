#include "utils/log_printf.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "utils/owned.h"

namespace varnel::utils {

void LogPrintf(spdlog::level::level_enum level, const char* tag, int line, const char* format,
               ...) {
  std::va_list arguments;
  va_start(arguments, format);
  char* raw = nullptr;
  const int length = ::vasprintf(&raw, format, arguments);
  va_end(arguments);
  if (length < 0) {
    return;
  }
  const Owned<char, std::free> text(raw);
  spdlog::log(level, "[{}:{}] {}", tag, line, std::string_view(raw, static_cast<size_t>(length)));
}

}  // namespace varnel::utils
