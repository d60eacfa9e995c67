#include "app/command_line.h"

#include <gtest/gtest.h>

#include <vector>

namespace varnel::app {
namespace {

TEST(CommandLineTest, TakesNothingOrExactlyTheConsoleSwitch) {
  using Words = std::vector<const char*>;
  const std::pair<Words, std::optional<LogTarget>> cases[] = {
      {{}, LogTarget::kFile},
      {{"varnel"}, LogTarget::kFile},
      {{"varnel", "-v"}, LogTarget::kConsole},
      {{"varnel", "-x"}, std::nullopt},
      {{"varnel", "-vv"}, std::nullopt},
      {{"varnel", "-"}, std::nullopt},
      {{"varnel", ""}, std::nullopt},
      {{"varnel", "v"}, std::nullopt},
      {{"varnel", "-v", "extra"}, std::nullopt},
      {{"varnel", "-v", "-v"}, std::nullopt},
  };
  for (const auto& [words, target] : cases) {
    EXPECT_EQ(ParseCommandLine(static_cast<int>(words.size()), words.data()), target)
        << testing::PrintToString(words);
  }
}

}  // namespace
}  // namespace varnel::app
