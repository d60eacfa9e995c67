#include "service/system/collection/scrub/secret_scrubber.h"

#include <algorithm>
#include <utility>

#include "service/system/collection/scrub/secret_finder.h"

namespace varnel::service {
namespace {

constexpr size_t kWindow = size_t{256} << 10U;
/// Stays to be looked at with what follows, where no line ends.
constexpr size_t kOverlap = size_t{16} << 10U;
/// Of what is out: names and the beginnings of lines are looked for in it.
constexpr size_t kContext = 1024;
constexpr std::string_view kMask = "***";

}  // namespace

SecretScrubber::SecretScrubber(const HeldValues& held, Masking masking, Output output)
    : held_(held), masking_(masking), output_(std::move(output)) {
  buffer_.reserve(kWindow);
}

void SecretScrubber::Feed(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t taken = std::min(bytes.size(), kWindow - buffer_.size());
    buffer_.append(bytes.substr(0, taken));
    bytes.remove_prefix(taken);
    if (buffer_.size() == kWindow) Work(false);
  }
}

void SecretScrubber::Finish() {
  Work(true);
}

/// Up to here all is known that decides: a line is whole, or enough follows.
size_t SecretScrubber::Limit(bool last) const {
  if (last) return buffer_.size();
  const size_t line_end = buffer_.rfind('\n');
  const bool useful = line_end != std::string::npos && line_end >= given_ + kWindow / 2;
  return useful ? line_end + 1 : buffer_.size() - kOverlap;
}

void SecretScrubber::Work(bool last) {
  masked_ += held_.MaskIn({buffer_.data() + given_, buffer_.size() - given_});
  const size_t limit = Limit(last);
  size_t at = masking_ == Masking::kHeldOnly ? limit : open_ ? EndOpenValue(given_) : given_;
  while ((at = NextMark(buffer_, at, limit)) < limit) {
    const auto secret = SecretAt(buffer_, at);
    if (!secret) {
      ++at;
      continue;
    }
    const bool ends = secret->end != ValueEnd::kNotYet;
    const size_t end = ends ? secret->end : buffer_.size();
    if (!ends) open_ = secret->rest;
    Mask(secret->begin, end);
    ++masked_;
    at = std::max(at + 1, end);
  }
  Give(std::max(at, limit));
  Forget(given_);
}

size_t SecretScrubber::EndOpenValue(size_t at) {
  size_t end = open_->FindIn(buffer_, at);
  if (end != ValueEnd::kNotYet) open_.reset();
  end = std::min(end, buffer_.size());
  if (masking_ == Masking::kSameLength) {
    Mask(at, end);
  } else {
    given_ = end;  // its mask is out
  }
  return end;
}

void SecretScrubber::Mask(size_t begin, size_t end) {
  begin = std::max(begin, given_);
  if (masking_ == Masking::kSameLength) {
    std::fill(buffer_.begin() + static_cast<long>(begin), buffer_.begin() + static_cast<long>(end),
              '*');
    return;
  }
  Give(begin);
  output_(kMask);
  given_ = end;
}

void SecretScrubber::Give(size_t end) {
  if (end <= given_) return;
  output_(std::string_view(buffer_).substr(given_, end - given_));
  given_ = end;
}

void SecretScrubber::Forget(size_t end) {
  const size_t dropped = end - std::min(end, kContext);
  buffer_.erase(0, dropped);
  given_ -= dropped;
}

}  // namespace varnel::service
