#pragma once

#include <string_view>

namespace varnel::service {

/// The networks of the product, as JSON: what each is for and how its answers are judged. The
/// spelling of "save_orignal_pic" is the system's own.
inline constexpr std::string_view kBuiltInModelConfig = R"({
  "enable_model_unload": true,
  "models": {
    "bed_check": {
      "fname": "bed_check.fp.rknn",
      "nms_threshold": 0.5,
      "box_conf_threshold": 0.83,
      "max_detect_pic_cnt": 100,
      "save_orignal_pic": 1,
      "labels": ["item", "nozzle", "legend_text", "extrusion_line"],
      "is_default": true,
      "unload_when_switch": true,
      "save_pic_of_positive_labels": ["item"]
    },
    "print_check": {
      "fname": "print_check.fp.rknn",
      "nms_threshold": 0.5,
      "box_conf_threshold": 0.83,
      "max_detect_pic_cnt": 100,
      "save_orignal_pic": 1,
      "labels": ["noodle"],
      "save_pic_of_positive_labels": ["noodle"],
      "verify": "noodle"
    },
    "noodle_verify": {
      "box_conf_threshold": 0.5,
      "fname": "noodle_verify.fp.rknn",
      "cls_conf_threshold": 0.7,
      "max_detect_pic_cnt": 100,
      "save_orignal_pic": 1,
      "labels": ["verify_noodle"],
      "cls_label_idx": 1
    }
  }
})";

}  // namespace varnel::service
