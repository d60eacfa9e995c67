#include "service/system/upgrade/firmware_digest.h"

#include <fmt/format.h>

#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "UPGM";

bool BeginOne(EVP_MD_CTX* context, const EVP_MD* kind) {
  if (context == nullptr) {
    VLOG_ERROR(kTag, "CheckFirmwareFile: failed to create EVP_MD_CTX");
    return false;
  }
  if (EVP_DigestInit_ex(context, kind, nullptr) == 1) return true;
  VLOG_ERROR(kTag, "CheckFirmwareFile: EVP_DigestInit_ex failed");
  return false;
}

std::string EndOne(EVP_MD_CTX* context) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned size = 0;
  if (EVP_DigestFinal_ex(context, reinterpret_cast<unsigned char*>(digest.data()), &size) != 1)
    size = 0;
  digest.resize(size);
  return digest;
}

std::string Hex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  return text;
}

}  // namespace

FirmwareDigest::FirmwareDigest(bool with_sha256)
    : with_sha256_(with_sha256),
      md5_(EVP_MD_CTX_new()),
      sha256_(with_sha256 ? EVP_MD_CTX_new() : nullptr) {}

bool FirmwareDigest::Begin() {
  return BeginOne(md5_.get(), EVP_md5()) &&
         (!with_sha256_ || BeginOne(sha256_.get(), EVP_sha256()));
}

void FirmwareDigest::Add(const char* data, size_t size) {
  EVP_DigestUpdate(md5_.get(), data, size);
  if (sha256_) EVP_DigestUpdate(sha256_.get(), data, size);
}

FirmwareDigests FirmwareDigest::End() {
  return {Hex(EndOne(md5_.get())), sha256_ ? EndOne(sha256_.get()) : std::string()};
}

}  // namespace varnel::service
