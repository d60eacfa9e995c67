#include "replay/complaint.h"

#include <cstdio>

namespace varnel::replay {

void Complain(const std::string& text) {
  std::fputs(("varnel-replay: " + text + "\n").c_str(), stderr);
}

}  // namespace varnel::replay
