// The choice of source by URL, and each choice reading a real file.

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "TempDataFile.h"
#include "velka/DtaFile.h"
#include "velka/FileFactory.h"
#include "velka/LocalFile.h"

namespace {

using velka::File;
using velka::FileFactory;

enum Kind { kLocal, kDta };

struct Choice {
    const char* url;
    Kind kind;
};

const Choice kChoices[] = {
    {"file:///data/movie.ts", kLocal},
    {"file://relative/clip.ts", kLocal},
    {"file://", kLocal},
    {"x-file://a", kDta},
    {"FILE://a", kDta},
    {" file:///data/movie.ts", kDta},
    {"http://example.com/movie.ts", kDta},
    {"dta-test:///data/movie.ts", kDta},
    {"", kDta},
    {"file:/data/movie.ts", kDta},
};

void PrintTo(const Choice& c, std::ostream* os) {
    *os << "\"" << c.url << "\" -> " << (c.kind == kLocal ? "LocalFile" : "DtaFile");
}

// "--------DTA set------- %p\n" (an address in hex) followed by "dta file\n".
bool isDtaLines(const std::string& text) {
    const std::string head = "--------DTA set------- 0x";
    const std::string tail = "\ndta file\n";
    if (text.size() <= head.size() + tail.size()) return false;
    if (text.compare(0, head.size(), head) != 0) return false;
    if (text.compare(text.size() - tail.size(), tail.size(), tail) != 0) return false;
    const std::string address = text.substr(head.size(), text.size() - head.size() - tail.size());
    return address.find_first_not_of("0123456789abcdef") == std::string::npos;
}

class FileFactoryChoiceTest : public ::testing::TestWithParam<Choice> {};

TEST_P(FileFactoryChoiceTest, PicksTheSourceByThePrefixAndSaysSo) {
    const Choice& c = GetParam();
    ::testing::internal::CaptureStdout();
    std::unique_ptr<File> file(FileFactory::createFile(c.url));
    const std::string out = ::testing::internal::GetCapturedStdout();
    ASSERT_NE(nullptr, file);

    const std::string header = std::string("file path is ") + c.url + "\n";
    ASSERT_EQ(header, out.substr(0, header.size()));
    const std::string rest = out.substr(header.size());
    if (c.kind == kLocal) {
        EXPECT_NE(nullptr, dynamic_cast<velka::LocalFile*>(file.get()));
        EXPECT_EQ("local file \n", rest);
    } else {
        EXPECT_NE(nullptr, dynamic_cast<velka::DtaFile*>(file.get()));
        EXPECT_TRUE(isDtaLines(rest)) << rest;
    }
}

INSTANTIATE_TEST_SUITE_P(Urls, FileFactoryChoiceTest, ::testing::ValuesIn(kChoices));

std::vector<char> readToEnd(File& file) {
    std::vector<char> out;
    std::vector<char> buffer(4000);
    for (int i = 0; i < 100000; ++i) {
        int n = file.read(buffer.data(), static_cast<uint32_t>(buffer.size()));
        if (n <= 0) break;
        out.insert(out.end(), buffer.begin(), buffer.begin() + n);
    }
    return out;
}

TEST(FileFactoryTest, FileUrlOpensThePathAfterThePrefix) {
    TempDataFile data(12345, 91);
    std::unique_ptr<File> file(FileFactory::createFile("file://" + data.path()));
    ASSERT_EQ(0, file->open());
    EXPECT_EQ(data.size(), file->length());
    EXPECT_EQ(data.bytes(), readToEnd(*file));
    file->close();
}

TEST(FileFactoryTest, FilePrefixAloneGivesAnEmptyPathThatDoesNotOpen) {
    std::unique_ptr<File> file(FileFactory::createFile("file://"));
    EXPECT_EQ(-1, file->open());
}

TEST(FileFactoryTest, OtherUrlsReadThroughTheDownloadEngine) {
    TempDataFile data(54321, 92);
    std::unique_ptr<File> file(FileFactory::createFile(data.dtaUrl()));
    ASSERT_EQ(0, file->open());
    EXPECT_EQ(data.size(), file->length());
    EXPECT_EQ(data.bytes(), readToEnd(*file));
    file->close();
}

}  // namespace
