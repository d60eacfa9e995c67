#include "replay/judgement.h"

#include <array>

namespace varnel::replay {

const char* ReasonText(Reason reason) {
  static constexpr std::array<const char*, 6> kTexts{
      nullptr,     "only shown",     "rejected by the verifying network",
      "too small", "behind the bed", "there before the print"};
  return kTexts.at(static_cast<size_t>(reason));
}

}  // namespace varnel::replay
