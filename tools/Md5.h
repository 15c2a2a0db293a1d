#ifndef VELKA_TOOLS_MD5_H
#define VELKA_TOOLS_MD5_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace velka {
namespace tools {

// The MD5 message digest (RFC 1321), fed incrementally. Used by the tools to
// fingerprint what they read, so a result can be checked against md5sum.
class Md5 {
public:
    Md5();
    void update(const void* data, size_t size);
    // Finishes the digest: 32 lower-case hex digits. No update() after it.
    std::string hexDigest();

private:
    void transform(const uint8_t block[64]);

    uint32_t state_[4];
    uint64_t bytes_;       // message length so far
    uint8_t buffer_[64];   // the incomplete block, bytes_ % 64 of it used
};

}  // namespace tools
}  // namespace velka

#endif  // VELKA_TOOLS_MD5_H
