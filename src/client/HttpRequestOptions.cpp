#include "HttpRequestOptions.h"

namespace velka {

curl_slist* applyHttpOptions(CURL* curl, const HttpOptions& options) {
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!options.userAgent.empty()) curl_easy_setopt(curl, CURLOPT_USERAGENT, options.userAgent.c_str());
    curl_slist* headers = nullptr;
    for (const std::string& header : options.headers) headers = curl_slist_append(headers, header.c_str());
    if (headers != nullptr) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    if (!options.proxy.empty()) curl_easy_setopt(curl, CURLOPT_PROXY, options.proxy.c_str());
    if (!options.caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, options.caFile.c_str());
    if (!options.caPath.empty()) curl_easy_setopt(curl, CURLOPT_CAPATH, options.caPath.c_str());
    return headers;
}

}  // namespace velka
