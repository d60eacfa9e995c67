#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace varnel::service {

// The binary interface of the NPU runtime, librknnrt.so from 1.3.0 on. Sizes and offsets are held
// below; enumerations are 4 bytes wide and may hold values that have no name here.

using RknnHandle = uint64_t;

enum class RknnQuery : int32_t { kInOutNum = 0, kInputAttr = 1, kOutputAttr = 2, kVersions = 5 };

enum class TensorFormat : int32_t { kNchw = 0, kNhwc = 1 };

enum class TensorType : int32_t { kFloat32 = 0, kFloat16 = 1, kInt8 = 2, kUint8 = 3 };

enum class TensorQuantisation : int32_t {
  kNone = 0,
  kDynamicFixedPoint = 1,
  kAffineAsymmetric = 2
};

/// What the runtime's functions return.
enum RknnCode : int {
  kRknnSuccess = 0,
  kRknnFail = -1,
  kRknnTimeOut = -2,
  kRknnDeviceUnavailable = -3,
  kRknnParameterInvalid = -5,
  kRknnModelInvalid = -6,
  kRknnContextInvalid = -7,
  kRknnInputInvalid = -8,
  kRknnOutputInvalid = -9,
};

struct TensorCounts {
  uint32_t inputs = 0;
  uint32_t outputs = 0;
};

inline constexpr uint32_t kMaxTensorDims = 16;

struct TensorAttributes {
  uint32_t index = 0;  ///< set by the caller
  uint32_t dim_count = 0;
  std::array<uint32_t, kMaxTensorDims> dims{};  ///< outermost first, in the order of `format`
  std::array<char, 256> name{};
  uint32_t element_count = 0;
  uint32_t size = 0;  ///< bytes
  TensorFormat format = TensorFormat::kNchw;
  TensorType type = TensorType::kFloat32;
  TensorQuantisation quantisation = TensorQuantisation::kNone;
  int8_t fixed_point = 0;
  int32_t zero_point = 0;
  float scale = 0;
  uint32_t width_stride = 0;
  uint32_t size_with_stride = 0;
  uint8_t pass_through = 0;
  uint32_t height_stride = 0;
};

struct RuntimeVersions {
  std::array<char, 256> runtime{};
  std::array<char, 256> driver{};
};

struct RknnInput {
  uint32_t index = 0;
  void* buffer = nullptr;
  uint32_t size = 0;
  uint8_t pass_through = 0;
  TensorType type = TensorType::kUint8;
  TensorFormat format = TensorFormat::kNhwc;
};

struct RknnOutput {
  uint8_t want_float = 0;
  uint8_t is_preallocated = 0;
  uint32_t index = 0;
  void* buffer = nullptr;
  uint32_t size = 0;
};

/// The runtime's functions; each returns 0 or a negative code. The pointers without a type of their
/// own are extensions that nobody uses: null.
struct RknnApi {
  /// A size of 0 makes `model` the path of a file.
  int (*init)(RknnHandle* handle, void* model, uint32_t size, uint32_t flags, void*) = nullptr;
  int (*destroy)(RknnHandle) = nullptr;
  int (*query)(RknnHandle, RknnQuery, void* answer, uint32_t answer_size) = nullptr;
  int (*inputs_set)(RknnHandle, uint32_t count, RknnInput*) = nullptr;
  int (*run)(RknnHandle, void*) = nullptr;
  int (*outputs_get)(RknnHandle, uint32_t count, RknnOutput*, void*) = nullptr;
  int (*outputs_release)(RknnHandle, uint32_t count, RknnOutput*) = nullptr;
};

static_assert(sizeof(TensorCounts) == 8);
static_assert(sizeof(TensorAttributes) == 376 && alignof(TensorAttributes) == 4);
static_assert(offsetof(TensorAttributes, dims) == 8 && offsetof(TensorAttributes, name) == 72);
static_assert(offsetof(TensorAttributes, element_count) == 328);
static_assert(offsetof(TensorAttributes, format) == 336);
static_assert(offsetof(TensorAttributes, fixed_point) == 348);
static_assert(offsetof(TensorAttributes, zero_point) == 352);
static_assert(offsetof(TensorAttributes, pass_through) == 368);
static_assert(offsetof(TensorAttributes, height_stride) == 372);
static_assert(sizeof(RuntimeVersions) == 512 && offsetof(RuntimeVersions, driver) == 256);
static_assert(sizeof(RknnInput) == 32 && offsetof(RknnInput, buffer) == 8);
static_assert(offsetof(RknnInput, pass_through) == 20 && offsetof(RknnInput, format) == 28);
static_assert(sizeof(RknnOutput) == 24 && offsetof(RknnOutput, index) == 4);
static_assert(offsetof(RknnOutput, buffer) == 8 && offsetof(RknnOutput, size) == 16);

}  // namespace varnel::service
