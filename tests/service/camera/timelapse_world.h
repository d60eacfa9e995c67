#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "service/camera/timelapse/films/timelapse_service.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "utils/atomic_file.h"

namespace varnel::service {

/// A store in a directory of its own, with a camera and an encoder that work on text: a photo is a
/// line, a segment its copy, a film the lines of its segments.
class TimelapseWorld : public hal_adapter::PhotoTaker {
 public:
  TimelapseWorld() {
    paths_.root = dir_ / "store";
    paths_.web = dir_ / "web";
    paths_.upload = dir_ / "upload";
    WritePrograms();
  }

  void WritePrograms() {
    programs_.ffprobe = dir_.WriteScript("ffprobe", "echo 4.033").string();
    programs_.ffmpeg = (dir_ / "ffmpeg").string();
    EncodeAs("");
  }
  /// Exists once a test has noted that something happened.
  std::filesystem::path Noted(const std::string& event) const { return dir_ / "noted" / event; }

  /// The encoder does this first, with its output file as $out.
  void EncodeAs(const std::string& first) {
    dir_.WriteScript("ffmpeg", R"(
for out; do :; done
list='' input='' progress='' previous=''
for word; do
  [ "$previous" = -i ] && input=$word
  [ "$previous" = -progress ] && progress=$word
  [ "$word" = concat ] && list=yes
  previous=$word
done
)" + first + R"(
[ "$out" = - ] && { sed -n "s/broken/[text] broken/p" "$input" >&2; grep -q . "$input"; exit; }
if [ -n "$list" ]; then
  sed -n "s/^file '\(.*\)'$/\1/p" "$input" | while read -r segment; do cat "$segment"; done >"$out"
  echo frame=$(grep -c . "$out") >"$progress"
else
  cat "$input" >"$out"
fi)");
  }

  std::unique_ptr<TimelapseService> Service(
      std::unique_ptr<FileUploader> uploader = std::make_unique<NoUploader>()) {
    TimelapseSetup setup{.paths = paths_,
                         .programs = programs_,
                         .camera = this,
                         .notify =
                             [this](const std::string& method, nlohmann::json params) {
                               notified_.Put({method, std::move(params)});
                               return 0;
                             },
                         .uploader = std::move(uploader),
                         .clock = &clock_.get()};
    auto service = std::make_unique<TimelapseService>(std::move(setup));
    service->HandleUnfinished();
    return service;
  }
  hal_adapter::PhotoStatus TakePhoto(const std::string& path) override {
    using enum hal_adapter::PhotoStatus;
    if (camera_fails_) return kCaptureFailed;
    const std::string line = scene_ + std::to_string(++photos_) + '\n';
    return utils::WriteFileAtomically(path, line) ? kNotWritable : kSuccess;
  }
  hal_adapter::PhotoStatus TakePhoto(const utils::FilePlace&) override {
    return hal_adapter::PhotoStatus::kNotWritable;
  }
  /// The film's text once it is listed; empty when it is not in time.
  std::string Film(const TimelapseService& service, const std::string& index) {
    const auto path = paths_.web / VideoLinkName(index);
    const bool listed = test::Eventually([&] {
      const nlohmann::json list = service.Store().List({}).value();
      for (const auto& item : list["instances"])
        if (item["date_index"] == index) return std::filesystem::exists(path);
      return false;
    });
    return listed ? test::ReadFile(path) : "";
  }
  std::string State(const std::string& index) const {
    return test::ReadFile(paths_.root / index / "state");
  }
  /// The work directories, oldest first.
  std::vector<std::string> Instances() const { return WorkDirectories(paths_).Indices(); }
  /// What an interruption must never leave: names that are neither of the store nor of a film.
  std::vector<std::string> Leftovers() const {
    std::vector<std::string> names;
    for (const auto& directory : {paths_.root, paths_.web}) {
      std::error_code error;
      for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with('.') && name != ".lock") names.push_back(name);
        if (directory == paths_.web && !std::filesystem::exists(entry.path()))
          names.push_back("dangling " + name);
      }
    }
    return names;
  }

  test::TempDir dir_;
  TimelapsePaths paths_;
  EncoderPrograms programs_;
  std::string scene_ = "a";
  bool camera_fails_ = false;
  int photos_ = 0;
  std::reference_wrapper<utils::Clock> clock_ = utils::SystemClock::Instance();
  test::Mailbox<std::pair<std::string, nlohmann::json>> notified_;
};

}  // namespace varnel::service
