#include "platform/memory_search.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "utils/owned.h"
#include "utils/secret.h"

namespace varnel::test {
namespace {

constexpr char kMask = 0x15;
constexpr size_t kChunk = size_t{1} << 20U;
/// The sanitizers map far more of their own than could be read.
constexpr uint64_t kLargestRegion = uint64_t{1} << 26U;

char Unmasked(char c) {
  return static_cast<char>(c ^ kMask);
}

}  // namespace

HiddenText::HiddenText(size_t size) {
  for (size_t i = 0; i < size; ++i) masked_ += Unmasked(static_cast<char>('A' + i * 7 % 26));
}

std::string HiddenText::Reveal() const {
  std::string text = masked_;
  for (char& c : text) c = Unmasked(c);
  return text;
}

bool HiddenText::IsIn(std::string_view bytes) const {
  const char first = Unmasked(masked_[0]);
  for (size_t at = bytes.find(first); at != bytes.npos; at = bytes.find(first, at + 1)) {
    if (bytes.size() - at < masked_.size()) return false;
    const auto same = [](char hidden, char c) { return Unmasked(hidden) == c; };
    if (std::equal(masked_.begin(), masked_.end(), bytes.data() + at, same)) return true;
  }
  return false;
}

bool HiddenText::IsInRegion(int memory, uint64_t start, uint64_t end) const {
  utils::SecretString chunk(kChunk);  // holds the text once it was found
  for (uint64_t at = start; at < end; at += kChunk - masked_.size()) {
    const size_t wanted = std::min<uint64_t>(kChunk, end - at);
    const ssize_t got = ::pread(memory, chunk.Data(), wanted, static_cast<off_t>(at));
    if (got > 0 && IsIn(chunk.Text().substr(0, static_cast<size_t>(got)))) return true;
    if (wanted < kChunk) break;
  }
  return false;
}

bool HiddenText::IsInMemory() const {
  const utils::UniqueFd memory(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
  std::ifstream maps("/proc/self/maps");
  uint64_t start = 0;
  uint64_t end = 0;
  char dash = 0;
  std::string mode;
  for (std::string rest; maps >> std::hex >> start >> dash >> end >> mode;
       std::getline(maps, rest)) {
    const bool searched = mode.starts_with("rw") && end - start <= kLargestRegion;
    if (searched && IsInRegion(memory.Get(), start, end)) return true;
  }
  return false;
}

}  // namespace varnel::test
