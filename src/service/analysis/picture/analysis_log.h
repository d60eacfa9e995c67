#pragma once

namespace varnel::service {

/// Under which the print analysis logs.
inline constexpr const char* kAnalysisTag = "ANALYSIS";

}  // namespace varnel::service
