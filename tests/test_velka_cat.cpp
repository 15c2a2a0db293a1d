// velka-cat as people run it: the built program on generated files, its MD5
// against md5sum, its seek segments, its log redirection and its error path.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#ifndef VELKA_CAT_PATH
#error "VELKA_CAT_PATH must name the built velka-cat"
#endif

namespace {

// Bound on one run of the program; a healthy one takes well under a second.
constexpr int kRunTimeoutSeconds = 60;

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::vector<char> patternBytes(size_t size, uint32_t seed) {
    std::vector<char> bytes(size);
    uint32_t x = seed | 1u;
    for (size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = static_cast<char>(x >> 24);
    }
    return bytes;
}

struct ToolRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

class VelkaCatTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/velka-cat-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir_ = pattern;
    }
    void TearDown() override {
        if (!dir_.empty()) {
            std::string cmd = "rm -rf '" + dir_ + "'";
            EXPECT_EQ(0, system(cmd.c_str()));
        }
    }

    std::string makeFile(const std::string& name, const std::vector<char>& bytes) {
        const std::string path = dir_ + "/" + name;
        std::ofstream out(path, std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        out.close();
        EXPECT_TRUE(out.good()) << path;
        return path;
    }

    // Runs velka-cat with `args` (shell words) from directory `cwd`.
    ToolRun velkaCat(const std::string& args, const std::string& cwd = "") {
        const std::string out = dir_ + "/stdout", err = dir_ + "/stderr";
        std::string cmd;
        if (!cwd.empty()) cmd += "cd '" + cwd + "' && ";
        cmd += "timeout " + std::to_string(kRunTimeoutSeconds) + " '" VELKA_CAT_PATH "' " + args +
               " >'" + out + "' 2>'" + err + "' </dev/null";
        ToolRun run;
        const int status = system(cmd.c_str());
        run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.out = readAll(out);
        run.err = readAll(err);
        return run;
    }

    static std::string md5sum(const std::string& path) {
        const std::string cmd = "md5sum '" + path + "'";
        FILE* p = popen(cmd.c_str(), "r");
        if (p == nullptr) return "";
        char digest[33] = {};
        const size_t n = fread(digest, 1, 32, p);
        pclose(p);
        return std::string(digest, n);
    }

    // The value of the result line "velka-cat: KEY VALUE", or "" when absent.
    static std::string resultValue(const std::string& out, const std::string& key) {
        const std::string prefix = "velka-cat: " + key + " ";
        for (const std::string& line : lines(out)) {
            if (line.compare(0, prefix.size(), prefix) == 0) return line.substr(prefix.size());
        }
        return "";
    }

    std::string dir_;
};

struct DigestCase {
    const char* name;
    size_t size;
    const char* blockArgs;
};

void PrintTo(const DigestCase& c, std::ostream* os) {
    *os << c.size << " bytes, options '" << c.blockArgs << "'";
}

class VelkaCatDigestTest : public VelkaCatTest, public ::testing::WithParamInterface<DigestCase> {};

// Sizes around MD5's 64-byte blocks and its 56-byte padding boundary, and a
// file of several MiB read in odd blocks.
TEST_P(VelkaCatDigestTest, DigestAndCountMatchTheFile) {
    const DigestCase c = GetParam();
    const std::string path = makeFile("data.bin", patternBytes(c.size, 0xca7u + c.size));
    const ToolRun run = velkaCat(std::string("--quiet ") + c.blockArgs + " '" + path + "'");
    ASSERT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ(md5sum(path), resultValue(run.out, "md5"));
    EXPECT_EQ(std::to_string(c.size), resultValue(run.out, "bytes"));
    EXPECT_EQ("", run.err);
    // By default standard output holds the results only.
    for (const std::string& line : lines(run.out)) {
        EXPECT_EQ(0u, line.find("velka-cat: ")) << "stray line: " << line;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, VelkaCatDigestTest,
    ::testing::Values(DigestCase{"Empty", 0, ""}, DigestCase{"OneByte", 1, ""},
                      DigestCase{"Pad55", 55, "--block 7"}, DigestCase{"Pad56", 56, "--block 1"},
                      DigestCase{"Pad63", 63, ""}, DigestCase{"Pad64", 64, "--block 64"},
                      DigestCase{"Pad65", 65, "--block 13"},
                      DigestCase{"SeveralMiBDefaultBlock", 3 * 1024 * 1024 + 7, ""},
                      DigestCase{"SeveralMiBOddBlock", 3 * 1024 * 1024 + 7, "--block 4093"},
                      DigestCase{"SeveralMiBLargeBlock", 3 * 1024 * 1024 + 7, "--block 1m"}),
    [](const ::testing::TestParamInfo<DigestCase>& info) { return info.param.name; });

TEST_F(VelkaCatTest, FileUrlAndRelativePathReadTheSameFile) {
    const std::string path = makeFile("rel.bin", patternBytes(100000, 3));
    const std::string expected = md5sum(path);
    const ToolRun byUrl = velkaCat("--quiet 'file://" + path + "'");
    const ToolRun byRelativePath = velkaCat("--quiet rel.bin", dir_);
    ASSERT_EQ(0, byUrl.exitCode) << byUrl.err;
    ASSERT_EQ(0, byRelativePath.exitCode) << byRelativePath.err;
    EXPECT_EQ(expected, resultValue(byUrl.out, "md5"));
    EXPECT_EQ(expected, resultValue(byRelativePath.out, "md5"));
}

// Each --seek starts a segment read to the end; the digest covers the
// segments one after another.
TEST_F(VelkaCatTest, SeekSegmentsAreHashedInOrder) {
    const std::vector<char> bytes = patternBytes(200000, 5);
    const std::string path = makeFile("seek.bin", bytes);
    std::vector<char> joined(bytes.begin() + 150001, bytes.end());       // --seek 150001
    joined.insert(joined.end(), bytes.end() - 10, bytes.end());           // --seek -10
    joined.insert(joined.end(), bytes.begin() + 199999, bytes.end());    // --seek 199999
    const std::string expectedPath = makeFile("joined.bin", joined);

    const ToolRun run = velkaCat("--quiet --block 4093 --seek 150001 --seek -10 --seek 199999 '" +
                             path + "'");
    ASSERT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ(std::to_string(joined.size()), resultValue(run.out, "bytes"));
    EXPECT_EQ(md5sum(expectedPath), resultValue(run.out, "md5"));
}

// Any URL but file:// goes to the download engine; the stand-in built here
// serves dta-test://PATH from local storage.
TEST_F(VelkaCatTest, DownloadEngineUrlReadsTheFileByteExact) {
    const std::string path = makeFile("dta.bin", patternBytes(3 * 1024 * 1024 + 7, 11));
    for (const char* block : {"", "--block 4093", "--block 1m"}) {
        SCOPED_TRACE(block);
        const ToolRun run = velkaCat(std::string("--quiet ") + block + " 'dta-test://" + path + "'");
        ASSERT_EQ(0, run.exitCode) << run.err;
        EXPECT_EQ(md5sum(path), resultValue(run.out, "md5"));
        EXPECT_EQ(std::to_string(3 * 1024 * 1024 + 7), resultValue(run.out, "bytes"));
    }
    // The library's lines show the source the factory chose.
    const std::string log = dir_ + "/dta.log";
    const ToolRun logged = velkaCat("--quiet --log '" + log + "' 'dta-test://" + path + "'");
    ASSERT_EQ(0, logged.exitCode) << logged.err;
    const std::string text = readAll(log);
    EXPECT_NE(std::string::npos, text.find("file path is dta-test://" + path + "\n")) << text;
    EXPECT_NE(std::string::npos, text.find("\ndta file\n")) << text;
}

TEST_F(VelkaCatTest, LogOptionReceivesTheLibraryLines) {
    const std::string path = makeFile("log.bin", patternBytes(1000, 7));
    const std::string log = dir_ + "/library.log";
    const ToolRun run = velkaCat("--quiet --log '" + log + "' '" + path + "'");
    ASSERT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ(md5sum(path), resultValue(run.out, "md5"));
    std::vector<std::string> logged = lines(readAll(log));
    // First the line of the playback adaptor's start-up when the library was
    // loaded, then the factory's choice, then the source's own lines.
    ASSERT_FALSE(logged.empty());
    EXPECT_EQ("Rpc init OK", logged[0]);
    logged.erase(logged.begin());
    ASSERT_GE(logged.size(), 3u);
    EXPECT_EQ("file path is file://" + path, logged[0]);
    EXPECT_EQ("local file ", logged[1]);
    EXPECT_EQ(0u, logged[2].find("local file open " + path + " fd ")) << logged[2];
    EXPECT_EQ(std::string::npos, run.out.find("local file")) << "library lines reached stdout";

    // "-" keeps them on standard output, beside the results.
    const ToolRun mixed = velkaCat("--quiet --log - '" + path + "'");
    ASSERT_EQ(0, mixed.exitCode) << mixed.err;
    EXPECT_NE(std::string::npos, mixed.out.find("local file open " + path));
    EXPECT_EQ(md5sum(path), resultValue(mixed.out, "md5"));
}

TEST_F(VelkaCatTest, UnopenableSourceGivesOneErrorLineAndFailure) {
    const std::string missing = dir_ + "/missing.bin";
    for (const std::string& url : {missing, "file://" + missing, dir_}) {
        SCOPED_TRACE(url);
        const ToolRun run = velkaCat("--quiet '" + url + "'");
        EXPECT_NE(0, run.exitCode);
        EXPECT_EQ("", run.out);
        const std::vector<std::string> errLines = lines(run.err);
        ASSERT_EQ(1u, errLines.size()) << run.err;
        EXPECT_NE(std::string::npos, errLines[0].find(url)) << errLines[0];
        EXPECT_EQ('\n', run.err.back());
    }
}

TEST_F(VelkaCatTest, BadUsageExitsWithTwo) {
    EXPECT_EQ(2, velkaCat("").exitCode);
    EXPECT_EQ(2, velkaCat("--block 0 x").exitCode);
    EXPECT_EQ(2, velkaCat("--block many x").exitCode);
    EXPECT_EQ(2, velkaCat("--seek nowhere x").exitCode);
    EXPECT_EQ(2, velkaCat("--frobnicate x").exitCode);
    const ToolRun help = velkaCat("--help");
    EXPECT_EQ(0, help.exitCode);
    EXPECT_NE(std::string::npos, help.out.find("Usage: velka-cat"));
}

}  // namespace
