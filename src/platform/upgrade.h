#pragma once

#include <string>

#include "hal_interface/hal_status.h"
#include "platform/upgrade_output.h"

namespace varnel::platform {

struct UpgradeBoard {
  std::string script = "/home/ruxo/bin/systemUpgrade.sh";
  /// Where the script's output is kept while it runs.
  std::string output_dir = "/tmp";
};

/// The files that hold the script's output, with a "*" for the part that differs.
std::string upgrade_output_files(const UpgradeBoard& board);

/// Upgrades `target` from the package file and waits for the end, however long it takes. The script
/// lives on when the daemon ends meanwhile; programs that it leaves may go on writing. The script's
/// exit code; -3 for any target but 0; -2 for a null package.
/// @param leftovers looks after the output that is still written when the script has ended
hal_adapter::HalStatus upgrade_firmware(const UpgradeBoard& board, UpgradeLeftovers& leftovers,
                                        uint32_t target, const char* package);

}  // namespace varnel::platform
