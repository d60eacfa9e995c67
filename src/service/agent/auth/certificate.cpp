#include "service/agent/auth/certificate.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "utils/owned.h"

namespace varnel::service {
namespace {

using Bio = utils::Owned<BIO, BIO_free_all>;
using Certificate = utils::Owned<X509, X509_free>;
using Key = utils::Owned<EVP_PKEY, EVP_PKEY_free>;
using Time = utils::Owned<ASN1_TIME, ASN1_TIME_free>;

Bio Reader(std::string_view text) {
  return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

/// An encrypted key has no password here, and nobody to ask for one.
int NoPassword(char*, int, int, void*) {
  return -1;
}

Certificate ReadCertificate(std::string_view text) {
  const Bio bio = Reader(text);
  Certificate certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr)
                              : nullptr);
  ERR_clear_error();
  return certificate;
}

}  // namespace

std::optional<CertificateLife> LifeOf(std::string_view text,
                                      std::chrono::system_clock::time_point now) {
  const Certificate certificate = ReadCertificate(text);
  const ASN1_TIME* end = certificate ? X509_get0_notAfter(certificate.get()) : nullptr;
  const Time from(ASN1_TIME_set(nullptr, std::chrono::system_clock::to_time_t(now)));
  CertificateLife life;
  if (end == nullptr || !from || ASN1_TIME_diff(&life.days, &life.seconds, from.get(), end) != 1)
    return std::nullopt;
  return life;
}

bool KeyMatches(std::string_view certificate_text, std::string_view key_text) {
  const Certificate certificate = ReadCertificate(certificate_text);
  const Bio bio = Reader(key_text);
  const Key key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassword, nullptr) : nullptr);
  const bool matches =
      certificate && key && X509_check_private_key(certificate.get(), key.get()) == 1;
  ERR_clear_error();
  return matches;
}

bool IsCertificate(std::string_view text) {
  return ReadCertificate(text) != nullptr;
}

}  // namespace varnel::service
