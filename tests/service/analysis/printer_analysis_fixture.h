#pragma once

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <string>

#include "service/analysis/analysis_world.h"

namespace varnel::service {

class PrinterAnalysisTest : public testing::Test, public AnalysisWorld {
 protected:
  void TearDown() override {
    analysis_.reset();
    EXPECT_THAT(TheNpuScript().loaded, testing::IsEmpty());
    EXPECT_THAT(TheNpuScript().outputs, testing::IsEmpty());
    EXPECT_EQ(TheNpuScript().wrong_calls, 0);
  }
  int Code(const std::string& path, const nlohmann::json& params) {
    result_ = analysis_->DetectPicture(path, params);
    EXPECT_EQ(result_.data.value("err_code", 99), result_.Code());
    return result_.Code();
  }
};

inline const nlohmann::json kNoodle = {{"labels", {"noodle"}}};
inline const nlohmann::json kZeros = {
    {"obj_areas", 0.0}, {"obj_cnts", 0}, {"obj_probs", 0.0}, {"obj_weighted_probs", 0.0}};

}  // namespace varnel::service
