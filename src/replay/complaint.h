#pragma once

#include <string>

namespace varnel::replay {

/// Says on standard error what is wrong.
void Complain(const std::string& text);

}  // namespace varnel::replay
