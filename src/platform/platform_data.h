#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hal_interface/hal_status.h"
#include "utils/board_places.h"
#include "utils/free_space.h"

namespace varnel::platform {

struct DataArchive {
  std::string source;  ///< directory
  std::string name;    ///< of the archive in the output directory
};

/// The data of one type: what is announced in the log, archived, and copied (a file, if there is
/// one).
struct DataType {
  const char* announcement;
  std::vector<DataArchive> archives;
  std::string file = {};
  std::string file_name = {};
};

/// What belongs to the types 0 to 6 on the board.
const std::vector<DataType>& board_data_types();

struct DataBoard {
  std::string tar = utils::board::kTar;
  std::string cp = "/usr/bin/cp";
  const std::vector<DataType>* types = &board_data_types();
  /// Whether there is room for a file; says so in the log when there is none.
  utils::SpaceCheck has_space = {};
  /// The copy of a directory or file that may leave the board, which goes with the pointer; null:
  /// there is none. Empty: the source itself leaves it.
  /// @param name of the archive or file that it becomes
  std::function<std::shared_ptr<const std::filesystem::path>(const std::string& source,
                                                             const std::string& name)>
      copy_source = {};
};

/// Archives the data of one type into `out_dir`. 0 even when archives failed; -3 for an unknown
/// type, -2 for a null directory.
hal_adapter::HalStatus collect_platform_data(const DataBoard& board, uint32_t type,
                                             const char* out_dir);

}  // namespace varnel::platform
