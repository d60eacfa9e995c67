#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace varnel::service {

/// How long a certificate is still good; negative: it is over.
struct CertificateLife {
  int days = 0;
  int seconds = 0;  ///< besides the days, of the same sign

  bool IsOver() const { return days < 0 || (days == 0 && seconds < 1); }
};

/// The time left of the first certificate of a PEM text. Nothing when there is none, or it has no
/// usable end.
[[nodiscard]] std::optional<CertificateLife> LifeOf(std::string_view certificate,
                                                    std::chrono::system_clock::time_point now);

/// Whether a PEM key is that of the first certificate of a PEM text.
[[nodiscard]] bool KeyMatches(std::string_view certificate, std::string_view key);

/// Whether a PEM text begins with a certificate that can be read.
[[nodiscard]] bool IsCertificate(std::string_view text);

}  // namespace varnel::service
