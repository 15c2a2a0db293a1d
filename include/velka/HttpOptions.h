#ifndef VELKA_HTTPOPTIONS_H
#define VELKA_HTTPOPTIONS_H

#include <string>
#include <vector>

namespace velka {

// What a host may set on every request a network source makes (playlists,
// keys, segments, restarts). Empty fields leave libcurl's defaults: its own
// User-Agent (none), no proxy but the environment's, the system's trust
// store. TLS peer and host verification are always on.
struct HttpOptions {
    std::string userAgent;
    std::vector<std::string> headers;  // "Name: value", e.g. "Cookie: a=b"
    std::string proxy;                 // libcurl's proxy syntax, "http://host:port"
    std::string caFile;                // PEM bundle of trusted certificates
    std::string caPath;                // folder of hashed certificates
};

}  // namespace velka

#endif  // VELKA_HTTPOPTIONS_H
