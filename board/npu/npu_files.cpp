#include "virtual_board/npu/npu_files.h"

#include <nlohmann/json.hpp>

#include "virtual_board/camera/faults.h"
#include "virtual_board/common/files.h"

namespace varnel::board {

int NpuFiles::TakeFault(const std::string& function) const {
  const varnel::board::Faults faults = varnel::board::Faults::Parse(ReadFile(Faults()));
  const auto* failure = faults.Find(function);
  if (failure == nullptr) return 0;
  const int code = failure->skip == 0 ? failure->error : 0;
  if (failure->count > 0 || failure->skip > 0) {
    EditFile(Faults(), [&](const std::string& text) {
      return varnel::board::Faults::CountDown(text, function);
    });
  }
  return code;
}

bool NpuFiles::Stalls() const {
  return varnel::board::Faults::Parse(ReadFile(Faults())).stall;
}

void NpuFiles::WriteState(const NpuCounters& counters) const {
  std::error_code error;
  if (!std::filesystem::is_directory(directory_, error)) return;
  const nlohmann::json state = {{"contexts", counters.contexts},
                                {"highest_contexts", counters.highest_contexts},
                                {"inits", counters.inits},
                                {"runs", counters.runs},
                                {"outputs", counters.outputs}};
  ReplaceFile(State(), state.dump() + "\n");
}

}  // namespace varnel::board
