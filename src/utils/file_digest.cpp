#include "utils/file_digest.h"
#include "utils/last_error.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace varnel::utils {
namespace {

constexpr size_t kPiece = size_t{256} * 1024;

void Require(int succeeded) {
  if (succeeded != 1) throw std::runtime_error("SHA-256 cannot be computed");
}

}  // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  const Owned<EVP_MD, EVP_MD_free> kind(EVP_MD_fetch(nullptr, "SHA256", nullptr));
  Require(context_ && kind ? EVP_DigestInit_ex(context_.get(), kind.get(), nullptr) : 0);
}

void Sha256::Add(std::string_view bytes) {
  Require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()));
}

std::string Sha256::Hex() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  unsigned int length = 0;
  Require(EVP_DigestFinal_ex(context_.get(), hash.data(), &length));
  return fmt::format("{:02x}", fmt::join(hash.data(), hash.data() + length, ""));
}

FileDigest DigestOf(const std::filesystem::path& file,
                    const std::function<void(std::string_view)>& piece) {
  std::ifstream in(file, std::ios::binary);
  FileDigest digest;
  Sha256 sum;
  std::vector<char> buffer(kPiece);
  while (in) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    const std::string_view read(buffer.data(), static_cast<size_t>(in.gcount()));
    sum.Add(read);
    piece(read);
    digest.bytes += read.size();
  }
  if (in.bad() || !in.eof()) throw std::system_error(LastError(), file.string());
  digest.sha256 = sum.Hex();
  return digest;
}

}  // namespace varnel::utils
