#ifndef VELKA_SRC_HTTPREQUESTOPTIONS_H
#define VELKA_SRC_HTTPREQUESTOPTIONS_H

#define CURL_DISABLE_DEPRECATION 1
#include <curl/curl.h>

#include "velka/HttpOptions.h"

namespace velka {

// Sets a host's request options on `curl` (TLS verification stays on). The
// returned header list (null without extra headers) must outlive the
// handle's transfers; the caller frees it with curl_slist_free_all.
curl_slist* applyHttpOptions(CURL* curl, const HttpOptions& options);

}  // namespace velka

#endif  // VELKA_SRC_HTTPREQUESTOPTIONS_H
