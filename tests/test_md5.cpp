// The tools' MD5 against the test suite of RFC 1321 (appendix A.5), fed whole
// and in awkward pieces.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "Md5.h"

namespace {

struct Vector {
    const char* message;
    const char* digest;
};

const Vector kSuite[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890"
     "123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

TEST(Md5, MatchesTheReferenceSuiteWhole) {
    for (const Vector& v : kSuite) {
        velka::tools::Md5 md5;
        md5.update(v.message, std::string(v.message).size());
        EXPECT_EQ(v.digest, md5.hexDigest()) << '"' << v.message << '"';
    }
}

TEST(Md5, MatchesTheReferenceSuiteInPieces) {
    for (size_t piece : {1u, 3u, 7u, 63u, 64u, 65u}) {
        for (const Vector& v : kSuite) {
            const std::string message(v.message);
            velka::tools::Md5 md5;
            for (size_t at = 0; at < message.size(); at += piece) {
                md5.update(message.data() + at, std::min(piece, message.size() - at));
            }
            EXPECT_EQ(v.digest, md5.hexDigest()) << '"' << v.message << "\" in pieces of " << piece;
        }
    }
}

}  // namespace
