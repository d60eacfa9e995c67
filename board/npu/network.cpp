#include "virtual_board/npu/network.h"

namespace varnel::board {

namespace {

bool TakesOnePicture(const OnnxFile& file) {
  const auto& dims = file.inputs[0].dims;
  return dims.size() == 4 && dims[0] == 1 && dims[1] == 3 && dims[2] > 0 && dims[3] > 0;
}

}  // namespace

Network::Network(OnnxFile file, const cv::dnn::Net& net) : file_(std::move(file)), net_(net) {}

std::unique_ptr<Network> Network::Load(const std::string& bytes) try {
  auto file = OnnxFile::Parse(bytes);
  if (!file || !TakesOnePicture(*file)) return nullptr;
  const cv::dnn::Net net = cv::dnn::readNetFromONNX(bytes.data(), bytes.size());
  if (net.empty()) return nullptr;
  return std::unique_ptr<Network>(new Network(std::move(*file), net));
} catch (const cv::Exception&) {
  return nullptr;
}

void Network::SetInput(const uint8_t* picture) {
  const int shape[] = {1, 3, static_cast<int>(Height()), static_cast<int>(Width())};
  cv::Mat blob(4, shape, CV_32F);
  const size_t plane = size_t{Height()} * Width();
  auto* values = blob.ptr<float>();
  for (size_t i = 0; i < plane; ++i) {
    for (size_t channel = 0; channel < 3; ++channel) {
      values[channel * plane + i] = static_cast<float>(picture[i * 3 + channel]) / 255.0F;
    }
  }
  net_.setInput(blob);
  results_.clear();
}

void Network::Run() {
  std::vector<cv::String> names;
  for (const OnnxFile::Tensor& output : file_.outputs) names.push_back(output.name);
  std::vector<cv::Mat> results;
  net_.forward(results, names);
  results_ = std::move(results);
}

std::vector<float> Network::Output(size_t index) const {
  const cv::Mat values =
      results_.at(index).isContinuous() ? results_[index] : results_[index].clone();
  return {values.ptr<float>(), values.ptr<float>() + values.total()};
}

}  // namespace varnel::board
