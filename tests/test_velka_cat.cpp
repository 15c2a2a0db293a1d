// velka-cat as people run it: the built program on generated files, its MD5
// against md5sum (sizes around MD5's block and padding boundaries, read in
// odd pieces), its seek segments, its log redirection and its error path.

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "support/NginxServer.h"

#ifndef VELKA_CAT_PATH
#error "VELKA_CAT_PATH must name the built velka-cat"
#endif

namespace {

using testing_support::lines;
using testing_support::patternBytes;
using testing_support::readAll;
using testing_support::ToolRun;

class VelkaCatTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }

    // Runs velka-cat with `args` (shell words) from the temporary directory,
    // for at most a minute.
    ToolRun velkaCat(const std::string& args) {
        return testing_support::runTool(dir_.path(), VELKA_CAT_PATH, args, 60);
    }

    static std::string md5sum(const std::string& path) {
        FILE* p = popen(("md5sum '" + path + "'").c_str(), "r");
        char digest[33] = {};
        const size_t n = p != nullptr ? fread(digest, 1, 32, p) : 0;
        if (p != nullptr) pclose(p);
        return std::string(digest, n);
    }

    // The value of the result line "velka-cat: KEY VALUE", or "" when absent.
    static std::string result(const std::string& out, const std::string& key) {
        const std::string prefix = "velka-cat: " + key + " ";
        for (const std::string& line : lines(out)) {
            if (line.compare(0, prefix.size(), prefix) == 0) return line.substr(prefix.size());
        }
        return "";
    }

    testing_support::TempDir dir_;
};

struct DigestCase {
    const char* name;
    size_t size;
    const char* url;  // "@" stands for the file's absolute path
    const char* blockArgs;
};

void PrintTo(const DigestCase& c, std::ostream* os) { *os << c.size << " bytes, " << c.url; }

class VelkaCatDigestTest : public VelkaCatTest, public ::testing::WithParamInterface<DigestCase> {};

// Sizes around MD5's 64-byte blocks and its 56-byte padding boundary, and a
// file of several MiB read in odd blocks, from local storage and through the
// download engine (whose stand-in serves dta-test://PATH).
TEST_P(VelkaCatDigestTest, DigestAndCountMatchTheFile) {
    const DigestCase c = GetParam();
    const std::string path = dir_.write("data.bin", patternBytes(c.size, 0xca7u + c.size));
    std::string url = c.url;
    if (url.find('@') != std::string::npos) url.replace(url.find('@'), 1, path);
    const ToolRun run = velkaCat(std::string("--quiet ") + c.blockArgs + " '" + url + "'");
    ASSERT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ(md5sum(path), result(run.out, "md5"));
    EXPECT_EQ(std::to_string(c.size), result(run.out, "bytes"));
    // The engine's start-up may complain about its missing configuration.
    if (url.find("dta-test://") != 0) {
        EXPECT_EQ("", run.err);
    }
    // By default standard output holds the results only.
    for (const std::string& line : lines(run.out)) {
        EXPECT_EQ(0u, line.find("velka-cat: ")) << "stray line: " << line;
    }
}

constexpr size_t kSeveralMiB = 3 * 1024 * 1024 + 7;

INSTANTIATE_TEST_SUITE_P(
    Sizes, VelkaCatDigestTest,
    ::testing::Values(
        DigestCase{"Empty", 0, "@", ""},
        DigestCase{"Pad55", 55, "@", "--block 7"},
        DigestCase{"Pad56", 56, "file://@", "--block 1"},
        DigestCase{"Pad64", 64, "data.bin", "--block 64"},
        DigestCase{"Pad65", 65, "@", "--block 13"},
        DigestCase{"SeveralMiBOddBlock", kSeveralMiB, "@", "--block 4093"},
        DigestCase{"SeveralMiBFileUrl", kSeveralMiB, "file://@", ""},
        DigestCase{"SeveralMiBEngine", kSeveralMiB, "dta-test://@", ""},
        DigestCase{"SeveralMiBEngineLargeBlock", kSeveralMiB, "dta-test://@", "--block 1m"}),
    [](const ::testing::TestParamInfo<DigestCase>& info) { return info.param.name; });

// Each --seek starts a segment read to the end; the digest covers the
// segments one after another.
TEST_F(VelkaCatTest, SeekSegmentsAreHashedInOrder) {
    const std::vector<char> bytes = patternBytes(200000, 5);
    const std::string path = dir_.write("seek.bin", bytes);
    std::vector<char> joined(bytes.begin() + 150001, bytes.end());     // --seek 150001
    joined.insert(joined.end(), bytes.end() - 10, bytes.end());         // --seek -10
    joined.insert(joined.end(), bytes.begin() + 199999, bytes.end());  // --seek 199999
    const ToolRun run =
        velkaCat("--quiet --block 4093 --seek 150001 --seek -10 --seek 199999 '" + path + "'");
    ASSERT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ(std::to_string(joined.size()), result(run.out, "bytes"));
    EXPECT_EQ(md5sum(dir_.write("joined.bin", joined)), result(run.out, "md5"));
}

// Through the peer-to-peer engine at a limited rate, velka-cat overtakes the
// download, waits with the buffering percentage shown, and still digests
// every byte.
TEST_F(VelkaCatTest, PeerToPeerUrlAtALimitedRateIsReadByteExact) {
    const std::string path = dir_.write("pps.bin", patternBytes(kSeveralMiB / 3, 11));
    setenv("EMS_DOWNLOAD_RATE", "4000000", 1);  // a quarter of a second for the file
    const ToolRun run = velkaCat("'pps-test://" + path + "'");
    unsetenv("EMS_DOWNLOAD_RATE");
    ASSERT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ(md5sum(path), result(run.out, "md5"));
    EXPECT_EQ(std::to_string(kSeveralMiB / 3), result(run.out, "bytes"));
    EXPECT_NE(std::string::npos, run.err.find("velka-cat: buffering ")) << run.err;
}

// http:// goes through HttpFile (its own suites test the ring); seek
// segments too.
TEST_F(VelkaCatTest, HttpUrlIsReadThroughTheHttpSource) {
    testing_support::NginxServer server;
    std::string why;
    ASSERT_TRUE(server.start(&why)) << why;
    const std::vector<char> bytes = patternBytes(300000, 0x477b);
    server.serve("big.bin", bytes);
    std::vector<char> joined(bytes.end() - 5, bytes.end());           // --seek -5
    joined.insert(joined.end(), bytes.begin() + 1000, bytes.end());  // --seek 1000
    const ToolRun run = velkaCat("--quiet --log library.log --block 4093 --seek -5 --seek 1000 " +
                                 server.url("big.bin"));
    ASSERT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ(md5sum(dir_.write("joined.bin", joined)), result(run.out, "md5"));
    EXPECT_NE(std::string::npos, readAll(dir_.file("library.log")).find("HttpFile::open"));
}

TEST_F(VelkaCatTest, LogOptionReceivesTheLibraryLines) {
    const std::string path = dir_.write("log.bin", patternBytes(1000, 7));
    const ToolRun run = velkaCat("--quiet --log library.log '" + path + "'");
    ASSERT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ(md5sum(path), result(run.out, "md5"));
    EXPECT_EQ(std::string::npos, run.out.find("local file")) << "library lines reached stdout";
    // From the line printed while the library loaded on; the factory's and
    // the source's lines are their suites' matter.
    const std::string logged = readAll(dir_.file("library.log"));
    EXPECT_EQ(0u, logged.find("Rpc init OK\n")) << logged;
    EXPECT_NE(std::string::npos, logged.find("\nlocal file open " + path)) << logged;

    // "-" keeps them on standard output, beside the results.
    const ToolRun mixed = velkaCat("--quiet --log - '" + path + "'");
    EXPECT_NE(std::string::npos, mixed.out.find("\nlocal file open " + path));
    EXPECT_EQ(md5sum(path), result(mixed.out, "md5"));
}

TEST_F(VelkaCatTest, UnopenableSourceGivesOneErrorLineAndFailure) {
    const std::string missing = dir_.file("missing.bin");
    for (const std::string& url : {missing, "file://" + missing, dir_.path(), "pps-test://" + missing}) {
        SCOPED_TRACE(url);
        const ToolRun run = velkaCat("--quiet '" + url + "'");
        EXPECT_NE(0, run.exitCode);
        EXPECT_EQ("", run.out);
        ASSERT_EQ(1u, lines(run.err).size()) << run.err;
        EXPECT_NE(std::string::npos, run.err.find(url)) << run.err;
        EXPECT_EQ('\n', run.err.back());
    }
}

TEST_F(VelkaCatTest, BadUsageExitsWithTwo) {
    for (const char* args :
         {"", "--block 0 x", "--block many x", "--seek nowhere x", "--frobnicate x"}) {
        EXPECT_EQ(2, velkaCat(args).exitCode) << args;
    }
    const ToolRun help = velkaCat("--help");
    EXPECT_EQ(0, help.exitCode);
    EXPECT_NE(std::string::npos, help.out.find("Usage: velka-cat"));
}

}  // namespace
