#pragma once

#include <filesystem>
#include <string>

namespace varnel::service {

/// Makes sure that a file holds the serial number, for other programs of the board; one that stands
/// for none is not written. What fails is logged.
void UpdateSerialNumberFile(const std::filesystem::path& file, const std::string& serial_number);

}  // namespace varnel::service
