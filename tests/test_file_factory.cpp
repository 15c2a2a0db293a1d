// The choice of source by URL and the lines that announce it. That each choice
// reads its URL is checked through velka-cat, which opens every URL here.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "TestSupport.h"
#include "velka/DtaFile.h"
#include "velka/FileFactory.h"
#include "velka/LocalFile.h"

namespace {

struct Choice {
    const char* url;
    bool local;  // LocalFile, else DtaFile
};

void PrintTo(const Choice& c, std::ostream* os) {
    *os << "\"" << c.url << "\" -> " << (c.local ? "LocalFile" : "DtaFile");
}

class FileFactoryChoiceTest : public ::testing::TestWithParam<Choice> {};

TEST_P(FileFactoryChoiceTest, PicksTheSourceByThePrefixAndSaysSo) {
    const Choice& c = GetParam();
    std::unique_ptr<velka::File> file;
    const std::string out =
        testing_support::capturedStdout([&] { file.reset(velka::FileFactory::createFile(c.url)); });
    const std::string header = std::string("file path is ") + c.url + "\n";
    if (c.local) {
        EXPECT_NE(nullptr, dynamic_cast<velka::LocalFile*>(file.get()));
        EXPECT_EQ(header + "local file \n", out);
    } else {
        EXPECT_NE(nullptr, dynamic_cast<velka::DtaFile*>(file.get()));
        EXPECT_EQ(0u, out.find(header)) << out;
        EXPECT_THAT(out.substr(header.size()),
                    ::testing::MatchesRegex("--------DTA set------- 0x[0-9a-f]+\ndta file\n"));
    }
}

INSTANTIATE_TEST_SUITE_P(Urls, FileFactoryChoiceTest,
                         ::testing::Values(Choice{"file:///data/movie.ts", true},
                                           Choice{"file://relative/clip.ts", true},
                                           Choice{"file://", true},
                                           Choice{"x-file://a", false},
                                           Choice{"FILE://a", false},
                                           Choice{" file:///data/movie.ts", false},
                                           Choice{"http://example.com/movie.ts", false},
                                           Choice{"", false},
                                           Choice{"file:/data/movie.ts", false}));

}  // namespace
