#include "virtual_board/npu/onnx_file.h"

#include <functional>

namespace varnel::board {

namespace {

// Numbers of the fields that are read, by message.
constexpr uint32_t kModelGraph = 7;
constexpr uint32_t kModelMetadata = 14;
constexpr uint32_t kGraphInput = 11;
constexpr uint32_t kGraphOutput = 12;
constexpr uint32_t kValueName = 1;
constexpr uint32_t kValueType = 2;
constexpr uint32_t kTypeTensor = 1;
constexpr uint32_t kTensorShape = 2;
constexpr uint32_t kShapeDim = 1;
constexpr uint32_t kDimValue = 1;
constexpr uint32_t kEntryKey = 1;
constexpr uint32_t kEntryValue = 2;

/// One field of a protocol buffers message.
struct Field {
  uint32_t number = 0;
  uint64_t value = 0;      ///< of a number
  std::string_view bytes;  ///< of a string or a message
};

class FieldReader {
 public:
  explicit FieldReader(std::string_view bytes) : rest_(bytes) {}

  /// Nothing at the end and after nonsense.
  std::optional<Field> Next() {
    const auto key = rest_.empty() ? std::nullopt : Number();
    if (!key) return std::nullopt;
    Field field;
    field.number = static_cast<uint32_t>(*key >> 3U);
    return Value(static_cast<uint32_t>(*key & 7U), field) ? std::optional(field) : Broken();
  }
  [[nodiscard]] bool Failed() const { return failed_; }

 private:
  std::optional<Field> Broken() {
    failed_ = true;
    return std::nullopt;
  }

  std::optional<uint64_t> Number() {
    uint64_t value = 0;
    for (uint32_t shift = 0; shift < 64 && !rest_.empty(); shift += 7) {
      const auto byte = static_cast<uint8_t>(rest_.front());
      rest_.remove_prefix(1);
      value |= uint64_t{byte & 0x7FU} << shift;
      if (byte < 0x80U) return value;
    }
    failed_ = true;
    return std::nullopt;
  }

  bool Take(uint64_t size, std::string_view& bytes) {
    if (size > rest_.size()) return false;
    bytes = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return true;
  }

  bool Value(uint32_t wire_type, Field& field) {
    if (wire_type == 1) return Take(8, field.bytes);
    if (wire_type == 5) return Take(4, field.bytes);
    const auto number = wire_type == 0 || wire_type == 2 ? Number() : std::nullopt;
    if (!number) return false;
    field.value = *number;
    return wire_type == 0 || Take(*number, field.bytes);
  }

  std::string_view rest_;
  bool failed_ = false;
};

/// False when the message makes no sense.
bool ForEach(std::string_view message, const std::function<void(const Field&)>& use) {
  FieldReader reader(message);
  while (const auto field = reader.Next()) use(*field);
  return !reader.Failed();
}

/// The last field of a number, as a message.
std::string_view Find(std::string_view message, uint32_t number) {
  std::string_view found;
  ForEach(message, [&](const Field& field) {
    if (field.number == number) found = field.bytes;
  });
  return found;
}

uint32_t ParseDim(std::string_view dim) {
  uint32_t value = 0;
  ForEach(dim, [&](const Field& field) {
    if (field.number == kDimValue) value = static_cast<uint32_t>(field.value);
  });
  return value;
}

OnnxFile::Tensor ParseTensor(std::string_view message) {
  OnnxFile::Tensor tensor;
  tensor.name = Find(message, kValueName);
  const auto shape = Find(Find(Find(message, kValueType), kTypeTensor), kTensorShape);
  ForEach(shape, [&](const Field& field) {
    if (field.number == kShapeDim) tensor.dims.push_back(ParseDim(field.bytes));
  });
  return tensor;
}

bool ParseGraph(std::string_view graph, OnnxFile& file) {
  return ForEach(graph, [&](const Field& field) {
    if (field.number == kGraphInput) file.inputs.push_back(ParseTensor(field.bytes));
    if (field.number == kGraphOutput) file.outputs.push_back(ParseTensor(field.bytes));
  });
}

bool SaysQuantised(std::string_view entry) {
  return Find(entry, kEntryKey) == "varnel-virtual-npu" && Find(entry, kEntryValue) == "quantised";
}

}  // namespace

std::optional<OnnxFile> OnnxFile::Parse(std::string_view bytes) {
  OnnxFile file;
  bool whole = true;
  const bool read = ForEach(bytes, [&](const Field& field) {
    if (field.number == kModelGraph) whole = whole && ParseGraph(field.bytes, file);
    if (field.number == kModelMetadata) file.quantised |= SaysQuantised(field.bytes);
  });
  const bool usable = read && whole && !file.inputs.empty() && !file.outputs.empty();
  return usable ? std::optional(file) : std::nullopt;
}

}  // namespace varnel::board
