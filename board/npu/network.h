#pragma once

#include <cstdint>
#include <memory>
#include <opencv2/dnn.hpp>
#include <string>
#include <vector>

#include "virtual_board/npu/onnx_file.h"

namespace varnel::board {

/// A network that takes one RGB picture, run by the processor.
class Network {
 public:
  /// Null when the bytes are no network of that kind.
  static std::unique_ptr<Network> Load(const std::string& bytes);

  [[nodiscard]] const OnnxFile& File() const { return file_; }
  [[nodiscard]] uint32_t Height() const { return file_.inputs[0].dims[2]; }
  [[nodiscard]] uint32_t Width() const { return file_.inputs[0].dims[3]; }
  [[nodiscard]] size_t InputSize() const { return size_t{Height()} * Width() * 3; }

  /// Takes a picture of packed RGB bytes; the network sees values from 0 to 1.
  void SetInput(const uint8_t* picture);
  /// Throws cv::Exception.
  void Run();
  [[nodiscard]] bool HasRun() const { return !results_.empty(); }
  [[nodiscard]] std::vector<float> Output(size_t index) const;

  /// After a time-out or a reset nothing more can be had of a network.
  void Die() { dead_ = true; }
  [[nodiscard]] bool IsDead() const { return dead_; }

 private:
  Network(OnnxFile file, const cv::dnn::Net& net);

  OnnxFile file_;
  cv::dnn::Net net_;
  std::vector<cv::Mat> results_;
  bool dead_ = false;
};

}  // namespace varnel::board
