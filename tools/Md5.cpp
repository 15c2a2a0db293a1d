#include "Md5.h"

#include <cstdio>
#include <cstring>

namespace velka {
namespace tools {

namespace {

// Per-round shift amounts (RFC 1321, section 3.4).
constexpr int kShift[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                            5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                            4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                            6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};

// T[i] = floor(2^32 * abs(sin(i + 1))), the table of section 3.4.
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613,
    0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193,
    0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d,
    0x02441453, 0xd8a1e681, 0xe7d3fbc8, 0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed,
    0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122,
    0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
    0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665, 0xf4292244,
    0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb,
    0xeb86d391};

inline uint32_t rotateLeft(uint32_t x, int n) {
    return (x << n) | (x >> (32 - n));
}

}  // namespace

Md5::Md5() : state_{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, bytes_(0), buffer_{} {}

void Md5::transform(const uint8_t block[64]) {
    // The block is 16 little-endian words, whatever the host's byte order.
    uint32_t x[16];
    for (int i = 0; i < 16; ++i) {
        x[i] = static_cast<uint32_t>(block[4 * i]) | static_cast<uint32_t>(block[4 * i + 1]) << 8 |
               static_cast<uint32_t>(block[4 * i + 2]) << 16 |
               static_cast<uint32_t>(block[4 * i + 3]) << 24;
    }
    uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
    for (int i = 0; i < 64; ++i) {
        uint32_t f;
        int g;
        if (i < 16) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (i < 32) {
            f = (b & d) | (c & ~d);
            g = (5 * i + 1) % 16;
        } else if (i < 48) {
            f = b ^ c ^ d;
            g = (3 * i + 5) % 16;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) % 16;
        }
        uint32_t rotated = b + rotateLeft(a + f + kSine[i] + x[g], kShift[i]);
        a = d;
        d = c;
        c = b;
        b = rotated;
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
}

void Md5::update(const void* data, size_t size) {
    const uint8_t* in = static_cast<const uint8_t*>(data);
    size_t used = static_cast<size_t>(bytes_ % 64);
    bytes_ += size;
    if (used != 0) {
        size_t take = 64 - used < size ? 64 - used : size;
        memcpy(buffer_ + used, in, take);
        in += take;
        size -= take;
        if (used + take < 64) return;
        transform(buffer_);
    }
    for (; size >= 64; in += 64, size -= 64) {
        transform(in);
    }
    if (size != 0) memcpy(buffer_, in, size);
}

std::string Md5::hexDigest() {
    // Pad with a one bit, zeros up to 56 bytes mod 64, then the bit length
    // as a little-endian 64-bit number (section 3.1, 3.2).
    const uint64_t bits = bytes_ * 8;
    uint8_t pad[72] = {0x80};
    size_t used = static_cast<size_t>(bytes_ % 64);
    size_t padLength = used < 56 ? 56 - used : 120 - used;
    update(pad, padLength);
    uint8_t length[8];
    for (int i = 0; i < 8; ++i) length[i] = static_cast<uint8_t>(bits >> (8 * i));
    update(length, 8);

    char hex[33];
    for (int i = 0; i < 16; ++i) {
        unsigned int byte = (state_[i / 4] >> (8 * (i % 4))) & 0xff;  // little-endian words
        snprintf(hex + 2 * i, 3, "%02x", byte);
    }
    return std::string(hex, 32);
}

}  // namespace tools
}  // namespace velka
