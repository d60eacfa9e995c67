#include "platform/identity_block.h"

#include <optional>
#include <string_view>
#include <utility>

#include "platform/copy_text.h"
#include "platform/identity_cipher.h"
#include "platform/read_at.h"
#include "platform/secret_json.h"

namespace varnel::platform {
namespace {

using utils::SecretString;

constexpr size_t kBlockSize = 1024;
constexpr std::string_view kMagic = "\x65\x1E\x8A\xBD";
constexpr size_t kPayloadStart = kMagic.size() + 1;
constexpr char kFormatClear = 0;
constexpr char kFormatSealed = 1;
/// An erased storage reads as either of them.
constexpr std::string_view kJsonEnds("\0\xFF", 2);

struct StatusText {
  IdentityStatus status;
  const char* text;
};
constexpr StatusText kStatusTexts[] = {
    {IdentityStatus::kSuccess, "success"},
    {IdentityStatus::kNullArgument, "general failure"},
    {IdentityStatus::kReadFailed, "the storage cannot be read"},
    {IdentityStatus::kNoKey, "the block is encrypted and there is no usable key file"},
    {IdentityStatus::kNoMagic, "there is no identity block"},
    {IdentityStatus::kNoJson, "the block holds no JSON object"},
    {IdentityStatus::kNotAuthentic, "the block was changed or encrypted with another key"},
    {IdentityStatus::kNoValue, "there is no usable text of that name"},
    {IdentityStatus::kOtherFormat, "the block's format is not known"},
};

IdentityStatus ReadBlock(const IdentityStorage& storage, SecretString& block) {
  const utils::UniqueFd file = open_for_reading(storage.device);
  const bool whole = file && read_at(file, block, storage.offset) == ssize_t{kBlockSize};
  return whole ? IdentityStatus::kSuccess : IdentityStatus::kReadFailed;
}

/// The payload of a sealed block: nonce, ciphertext and tag.
IdentityStatus OpenSealed(const std::string& key_file, std::string_view payload,
                          SecretString& json) {
  const std::optional<SecretString> key =
      key_file.empty() ? std::nullopt : read_identity_key(key_file);
  if (!key) return IdentityStatus::kNoKey;
  const std::string_view sealed = payload.substr(kIdentityNonceSize);
  const size_t text_size = sealed.size() - kIdentityTagSize;
  std::optional<SecretString> text =
      open_sealed(*key, payload.substr(0, kIdentityNonceSize), sealed.substr(0, text_size),
                  sealed.substr(text_size));
  if (!text) return IdentityStatus::kNotAuthentic;
  json = std::move(*text);
  return IdentityStatus::kSuccess;
}

/// The block's JSON with whatever follows it.
IdentityStatus ReadJson(const IdentityStorage& storage, SecretString& json) {
  SecretString block(kBlockSize);
  if (const IdentityStatus status = ReadBlock(storage, block); status != IdentityStatus::kSuccess)
    return status;
  if (!block.Text().starts_with(kMagic)) return IdentityStatus::kNoMagic;
  const std::string_view payload = block.Text().substr(kPayloadStart);
  switch (block.Text()[kMagic.size()]) {
    case kFormatClear:
      json = SecretString(payload);
      return IdentityStatus::kSuccess;
    case kFormatSealed:
      return OpenSealed(storage.key_file, payload, json);
    default:
      return IdentityStatus::kOtherFormat;
  }
}

}  // namespace

const char* identity_error_string(IdentityStatus status) {
  for (const StatusText& entry : kStatusTexts) {
    if (entry.status == status) return entry.text;
  }
  return "unknown error";
}

IdentityStatus read_identity_value(const IdentityStorage* storage, const char* key, char* out,
                                   size_t size) {
  if (storage == nullptr || key == nullptr || out == nullptr || size == 0) {
    return IdentityStatus::kNullArgument;
  }
  SecretString json;
  if (const IdentityStatus status = ReadJson(*storage, json); status != IdentityStatus::kSuccess)
    return status;
  SecretString value;
  const std::string_view text = json.Text().substr(0, json.Text().find_first_of(kJsonEnds));
  const SecretJsonStatus status = read_string_member(text, key, value);
  if (status == SecretJsonStatus::kInvalid) return IdentityStatus::kNoJson;
  const bool usable = status == SecretJsonStatus::kFound && value.Text().size() < size &&
                      value.Text().find('\0') == std::string_view::npos;
  if (!usable) return IdentityStatus::kNoValue;
  copy_text(out, size, value.Text());
  return IdentityStatus::kSuccess;
}

}  // namespace varnel::platform
