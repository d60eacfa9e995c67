#pragma once

#include "service/cloud/http/curl_transfer.h"

namespace varnel::service {

/// What all downloads have in common: a status of 400 and above fails, redirects are followed to
/// http and https only, the library itself gives up what stands still.
inline void SetDownloadOptions(Transfer& transfer) {
  constexpr long kMaxRedirects = 10;
  constexpr long kConnectTimeoutS = 60;
  constexpr long kLowSpeedBytes = 1;
  constexpr long kLowSpeedS = 30;
  constexpr long kReceiveBytes = 256L << 10;
  transfer.Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  transfer.Set(CURLOPT_FAILONERROR, 1L);
  transfer.Set(CURLOPT_FOLLOWLOCATION, 1L);
  transfer.Set(CURLOPT_MAXREDIRS, kMaxRedirects);
  transfer.Set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  transfer.Set(CURLOPT_CONNECTTIMEOUT, kConnectTimeoutS);
  transfer.Set(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytes);
  transfer.Set(CURLOPT_LOW_SPEED_TIME, kLowSpeedS);
  transfer.Set(CURLOPT_BUFFERSIZE, kReceiveBytes);
}

}  // namespace varnel::service
