#include "service/system/collection/scrub/file_kind.h"

#include <algorithm>
#include <array>

namespace varnel::service {
namespace {

using namespace std::string_view_literals;

struct Magic {
  std::string_view bytes;
  size_t at;
  FileKind kind;
};

constexpr std::array kMagics{
    Magic{"\x7F"
          "ELF"sv,
          0, FileKind::kCounted},
    Magic{"ustar"sv, 257, FileKind::kCounted},
    Magic{"LPKSHHRH"sv, 0, FileKind::kCounted},
    Magic{"SQLite format 3"sv, 0, FileKind::kCounted},
    Magic{"\xFF\xD8\xFF"sv, 0, FileKind::kPicture},
    Magic{"\x89PNG"sv, 0, FileKind::kPicture},
    Magic{"ftyp"sv, 4, FileKind::kPicture},
    Magic{"\x1F\x8B"sv, 0, FileKind::kGzip},
    Magic{"BZh"sv, 0, FileKind::kSealed},
    Magic{"\xFD"
          "7zXZ"sv,
          0, FileKind::kSealed},
    Magic{"\x28\xB5\x2F\xFD"sv, 0, FileKind::kSealed},
    Magic{"\x04\x22\x4D\x18"sv, 0, FileKind::kSealed},
    Magic{"PK\x03\x04"sv, 0, FileKind::kSealed},
    Magic{"7z\xBC\xAF\x27\x1C"sv, 0, FileKind::kSealed},
    Magic{"\x1F\x9D"sv, 0, FileKind::kSealed},
};

bool IsPrivateKey(std::string_view head) {
  const size_t begin = head.find_first_not_of(" \t\r\n");
  if (begin == head.npos || !head.substr(begin).starts_with("-----BEGIN ")) return false;
  const std::string_view line = head.substr(begin, head.substr(begin).find('\n'));
  return line.find("PRIVATE KEY-----") != line.npos;
}

/// Without what editors and rotations put behind it.
std::string_view OriginalName(std::string_view name) {
  constexpr std::array kOfCopies{"~"sv, ".bak"sv, ".old"sv, ".orig"sv, ".save"sv, ".bad"sv};
  for (const auto ending : kOfCopies)
    if (name.ends_with(ending)) return name.substr(0, name.size() - ending.size());
  const size_t dot = name.rfind('.');
  const bool numbered = dot != name.npos && dot + 1 < name.size() &&
                        name.find_first_not_of("0123456789", dot + 1) == name.npos;
  return numbered ? name.substr(0, dot) : name;
}

}  // namespace

FileKind KindOf(std::string_view head) {
  const auto fits = [head](const Magic& magic) {
    return head.size() >= magic.at && head.substr(magic.at).starts_with(magic.bytes);
  };
  const auto* magic = std::find_if(kMagics.begin(), kMagics.end(), fits);
  if (magic != kMagics.end()) return magic->kind;
  return IsPrivateKey(head) ? FileKind::kPrivateKey : FileKind::kText;
}

bool IsSecretFile(std::string_view given) {
  const std::string_view name = OriginalName(given);
  constexpr std::array kEndings{".secrets"sv, ".key"sv, ".p12"sv,
                                ".pfx"sv,     "_key"sv, "_password"sv};
  constexpr std::array kNames{"id_rsa"sv, "id_ed25519"sv, "id_ecdsa"sv, "id_dsa"sv};
  return std::any_of(kEndings.begin(), kEndings.end(),
                     [name](auto ending) { return name.ends_with(ending); }) ||
         std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

}  // namespace varnel::service
