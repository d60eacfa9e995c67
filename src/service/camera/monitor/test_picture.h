#pragma once

#include <string>

#include "utils/private_directory.h"

namespace varnel::service {

/// Has a black picture of the camera's size made in the directory, under that name. False when that
/// fails; the log tells why.
[[nodiscard]] bool MakeTestPicture(const std::string& ffmpeg,
                                   const utils::PrivateDirectory& directory,
                                   const std::string& name);

}  // namespace varnel::service
