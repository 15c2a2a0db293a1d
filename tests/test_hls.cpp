// HlsFile over HLS streams that ffmpeg writes during the run and nginx
// serves: the byte stream against the segment files, and playback through
// the player and the software engine against FFmpeg's own HLS demuxer on the
// same playlist; seeks, a segment outgrowing its span, and opens that fail.

#include <gtest/gtest.h>

#include <openssl/evp.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "PlayerFixture.h"
#include "support/FaultServer.h"
#include "support/NginxServer.h"
#include "velka/FileFactory.h"
#include "velka/HlsFile.h"
#include "velka/HttpFile.h"
#include "velka/MediaPlayer.h"

namespace {

using namespace velka_test;
using velka::HlsFile;
using velka::kStatusOk;

constexpr int kClipSeconds = 8;
constexpr int kTargetSeconds = 2;

testing_support::NginxServer* server_ = nullptr;
std::string why_;

std::string ffmpegSources() {
    const std::string seconds = std::to_string(kClipSeconds);
    return "ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i testsrc=size=160x120:rate=25:duration=" +
           seconds + " -f lavfi -i sine=frequency=440:sample_rate=44100:duration=" + seconds + " ";
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

// Every stream once per run, into nginx's document root.
bool makeStreams(const std::string& root) {
    const std::string hls = " -f hls -hls_time " + std::to_string(kTargetSeconds) +
                            " -hls_playlist_type vod ";
    const std::string ts = " -c:v mpeg2video -g 25 -c:a mp2 -b:a 64k ";
    for (const char* sub : {"ts", "fmp4", "aes", "range", "bad"}) {
        if (!runCommand("mkdir -p " + root + "/" + sub)) return false;
    }
    writeText(root + "/aes/keyinfo", "aes.key\n" + root + "/aes/aes.key\n");
    return runCommand(ffmpegSources() +
                      "-map 0:v -map 1:a -map 0:v -map 1:a -map 0:v -map 1:a" + ts +
                      "-q:v:0 16 -q:v:1 6 -q:v:2 2" + hls +
                      "-master_pl_name master.m3u8 -var_stream_map 'v:0,a:0 v:1,a:1 v:2,a:2' "
                      "-hls_segment_filename " + root + "/ts/v%v_%03d.ts " + root + "/ts/v%v.m3u8") &&
           runCommand(ffmpegSources() + "-c:v mpeg4 -g 25 -q:v 5 -c:a aac -b:a 64k" + hls +
                      "-hls_segment_type fmp4 -hls_fmp4_init_filename init.mp4 "
                      "-hls_segment_filename " + root + "/fmp4/seg%03d.m4s " + root + "/fmp4/index.m3u8") &&
           runCommand("head -c 16 /dev/urandom > " + root + "/aes/aes.key") &&
           runCommand(ffmpegSources() + ts + hls + "-hls_key_info_file " + root + "/aes/keyinfo " +
                      "-hls_segment_filename " + root + "/aes/seg%03d.ts " + root + "/aes/index.m3u8") &&
           runCommand(ffmpegSources() + ts + hls + "-hls_flags single_file " + root + "/range/index.m3u8");
}

std::string fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// `bytes` through AES-128-CBC with the IV `sequence` (a media sequence
// number, or the IV=0 ffmpeg writes), decrypting or encrypting.
std::string aes(bool decrypting, const std::string& bytes, const std::string& key, int64_t sequence) {
    unsigned char iv[16] = {};
    for (int b = 0; b < 8; ++b) iv[15 - b] = static_cast<unsigned char>(sequence >> (8 * b));
    std::string out(bytes.size() + 32, '\0');
    EVP_CIPHER_CTX* cipher = EVP_CIPHER_CTX_new();
    int n = 0, last = 0;
    EVP_CipherInit_ex(cipher, EVP_aes_128_cbc(), nullptr,
                      reinterpret_cast<const unsigned char*>(key.data()), iv, decrypting ? 0 : 1);
    EVP_CipherUpdate(cipher, reinterpret_cast<unsigned char*>(&out[0]), &n,
                     reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    EVP_CipherFinal_ex(cipher, reinterpret_cast<unsigned char*>(&out[static_cast<size_t>(n)]), &last);
    EVP_CIPHER_CTX_free(cipher);
    out.resize(static_cast<size_t>(n + last));
    return out;
}

class HlsEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        server_ = new testing_support::NginxServer;
        if (!server_->start(&why_)) return;
        if (!makeStreams(server_->rootFile(""))) why_ = "ffmpeg could not write the HLS streams";
        const std::string bad = server_->rootFile("bad/");
        writeText(bad + "text.m3u8", "no playlist here\n");
        writeText(bad + "sample-aes.m3u8",
                  "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"k\"\n"
                  "#EXTINF:2,\n../ts/v0_000.ts\n#EXT-X-ENDLIST\n");
        writeText(bad + "no-key.m3u8",
                  "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-KEY:METHOD=AES-128,URI=\"missing.key\"\n"
                  "#EXTINF:2,\n../aes/seg000.ts\n#EXT-X-ENDLIST\n");
        // BANDWIDTH far below the variant's real rate: its segments outgrow their spans.
        writeText(bad + "understated.m3u8",
                  "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1000\n../ts/v2.m3u8\n");
        // The same segments encrypted with the media sequence number as IV,
        // under a playlist that names no IV.
        const std::string dir = server_->rootFile("aes/");
        const std::string key = fileBytes(dir + "aes.key");
        std::string playlist = fileBytes(dir + "index.m3u8");
        playlist.replace(playlist.find(",IV="), 36, "");
        for (int64_t i = 0; i < kClipSeconds / kTargetSeconds; ++i) {
            const std::string name = "00" + std::to_string(i) + ".ts";
            writeText(dir + "seq" + name, aes(false, aes(true, fileBytes(dir + "seg" + name), key, 0), key, i));
            playlist.replace(playlist.find("seg" + name), 3, "seq");
        }
        writeText(dir + "seq.m3u8", playlist);
        // Clips twice, each part starting at time 0.
        for (const char* clip : {"ts/v0", "fmp4/index"}) {
            const std::string text = fileBytes(server_->rootFile(clip + std::string(".m3u8")));
            const size_t from = text.find("#EXT-X-MAP") != std::string::npos ? text.find("#EXT-X-MAP") : text.find("#EXTINF");
            const std::string body = text.substr(from, text.find("#EXT-X-ENDLIST") - from);
            writeText(server_->rootFile(clip + std::string("-joined.m3u8")), text.substr(0, from) + body +
                                                                "#EXT-X-DISCONTINUITY\n" + body + "#EXT-X-ENDLIST\n");
        }
        // The HTTP worker's own descriptors, made once per process, before
        // the tests that count them.
        HlsFile warmUp(server_->url("ts/v0.m3u8"));
        warmUp.open();
    }
    void TearDown() override {
        delete server_;
        server_ = nullptr;
    }
};

const ::testing::Environment* const environment_ =
    ::testing::AddGlobalTestEnvironment(new HlsEnvironment);

// The bytes of each initialisation section and segment a media playlist
// names, in order, read from the server's files (decrypted with the key file
// of an EXT-X-KEY without IV).
std::vector<std::string> playlistPieces(const std::string& playlist) {
    std::vector<std::string> pieces;
    const std::string dir = playlist.substr(0, playlist.rfind('/') + 1);
    std::ifstream in(playlist);
    long long length = -1, offset = 0;
    std::string key;
    bool ivZero = false;  // the only IV ffmpeg writes
    int64_t sequence = 0;
    for (std::string line; std::getline(in, line);) {
        const size_t keyUri = line.find("#EXT-X-KEY:METHOD=AES-128,URI=\"");
        if (keyUri != std::string::npos) {
            key = fileBytes(dir + line.substr(keyUri + 31, line.find('"', keyUri + 31) - keyUri - 31));
            ivZero = line.find("IV=0x00000000000000000000000000000000") != std::string::npos;
        }
        const size_t map = line.find("#EXT-X-MAP:URI=\"");
        if (map != std::string::npos) {
            pieces.push_back("init" + fileBytes(dir + line.substr(map + 16, line.find('"', map + 16) - map - 16)));
        } else if (line.compare(0, 17, "#EXT-X-BYTERANGE:") == 0) {
            length = std::stoll(line.substr(17));
            if (line.find('@') != std::string::npos) offset = std::stoll(line.substr(line.find('@') + 1));
        } else if (!line.empty() && line[0] != '#') {
            std::string bytes = fileBytes(dir + line);
            if (length >= 0) bytes = bytes.substr(static_cast<size_t>(offset), static_cast<size_t>(length));
            pieces.push_back(key.empty() ? bytes : aes(true, bytes, key, ivZero ? 0 : sequence));
            ++sequence;
            offset += length;
            length = -1;
        }
    }
    return pieces;
}

std::string readWhole(HlsFile& file) {
    std::string out;
    std::vector<char> block(100 * 1000);  // not a multiple of any packet or span
    for (int n; (n = file.read(block.data(), static_cast<uint32_t>(block.size()))) > 0;) {
        out.append(block.data(), static_cast<size_t>(n));
        if (out.size() > (64u << 20)) break;
    }
    return out;
}

struct Layout {
    const char* name;
    const char* playlist;
};

void PrintTo(const Layout& l, std::ostream* os) { *os << l.name; }

class HlsByteStreamTest : public ::testing::TestWithParam<Layout> {};

// The byte stream is the playlist's files, in order and unchanged, each
// followed only by filler the demuxer skips: null packets (TS) or one free box.
TEST_P(HlsByteStreamTest, IsTheSegmentsInOrderWithOnlySkippableFillerBetween) {
    ASSERT_TRUE(why_.empty()) << why_;
    HlsFile file(server_->url(GetParam().playlist));
    ASSERT_EQ(0, file.open());
    const std::string stream = readWhole(file);
    EXPECT_EQ(file.length(), static_cast<int64_t>(stream.size()));
    EXPECT_EQ(file.length(), file.tell());
    const std::vector<std::string> pieces = playlistPieces(server_->rootFile(GetParam().playlist));
    ASSERT_FALSE(pieces.empty());
    size_t at = 0;
    const std::string nullPacket = std::string("\x47\x1F\xFF\x10", 4) + std::string(184, '\xFF');
    for (size_t i = 0; i < pieces.size(); ++i) {
        const bool init = pieces[i].compare(0, 4, "init") == 0;
        const std::string bytes = init ? pieces[i].substr(4) : pieces[i];
        ASSERT_TRUE(bytes == stream.substr(at, bytes.size())) << "piece " << i << " at " << at;
        at += bytes.size();
        if (init || at + 8 > stream.size()) continue;
        if (stream.compare(at, 4, "\x47\x1F\xFF\x10", 4) == 0) {
            while (stream.compare(at, 188, nullPacket) == 0) at += 188;
        } else if (stream.compare(at + 4, 4, "free") == 0) {
            at += (uint8_t(stream[at]) << 24) | (uint8_t(stream[at + 1]) << 16) |
                  (uint8_t(stream[at + 2]) << 8) | uint8_t(stream[at + 3]);
        }
    }
    EXPECT_EQ(stream.size(), at) << "bytes after the last segment's filler";
    file.close();
}

INSTANTIATE_TEST_SUITE_P(Layouts, HlsByteStreamTest,
                         ::testing::Values(Layout{"MpegTs", "ts/v1.m3u8"},
                                           Layout{"FragmentedMp4", "fmp4/index.m3u8"},
                                           Layout{"ByteRanges", "range/index.m3u8"},
                                           Layout{"Aes128", "aes/index.m3u8"},
                                           Layout{"Aes128IvFromSequence", "aes/seq.m3u8"}),
                         [](const ::testing::TestParamInfo<Layout>& info) {
                             return info.param.name;
                         });

// What FFmpeg's HLS demuxer reads from `url`, fingerprinted as the engine
// fingerprints what it demuxed.
bool hlsChecksum(const std::string& url, uint64_t* checksum, uint64_t* packets) {
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, url.c_str(), nullptr, nullptr) < 0) return false;
    bool ok = avformat_find_stream_info(format, nullptr) >= 0;
    AVPacket* packet = av_packet_alloc();
    *checksum = mtkpb::control::kFnvOffsetBasis;
    *packets = 0;
    while (ok && av_read_frame(format, packet) >= 0) {
        *checksum = mtkpb::control::fnv1a64(*checksum, packet->data, static_cast<size_t>(packet->size));
        ++*packets;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&format);
    return ok;
}

class HlsPlayerTest : public EngineTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(why_.empty()) << why_;
        EngineTest::SetUp();
        velka::FileFactory::useLibraryNetworkStack();
        player_.reset(new MediaPlayer);
        player_->addListener(log_);
    }
    void TearDown() override {
        player_.reset();
        EngineTest::TearDown();
    }
    EventLog log_;
    std::unique_ptr<MediaPlayer> player_;
};

struct Stream {
    const char* name;
    const char* playlist;
    const char* reference;  // the media playlist FFmpeg reads for the same packets
    // The packets' checksum, or their count alone: a master playlist's
    // variants differ in their bytes and the file may switch; FFmpeg's HLS
    // demuxer interleaves fragmented MP4's tracks in another order than the
    // engine (its bytes are checked by HlsByteStreamTest).
    bool checksum;
};

void PrintTo(const Stream& s, std::ostream* os) { *os << s.name; }

class HlsPlaysTest : public HlsPlayerTest, public ::testing::WithParamInterface<Stream> {};

TEST_P(HlsPlaysTest, EveryPacketFfmpegReadsFromThePlaylist) {
    mtkpb::control::setSpeed(0);
    ASSERT_EQ(kStatusOk, player_->open(server_->url(GetParam().playlist)));
    EXPECT_NEAR(kClipSeconds * 1000, player_->duration(), 1000);
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitForEvent(kStopped, 60000)) << ::testing::PrintToString(log_.events());
    EXPECT_EQ((Events{kOpening, kOpened, kPlaying, kEndOfStream, kStopped}), log_.transitions());
    uint64_t checksum = 0, packets = 0;
    ASSERT_TRUE(hlsChecksum(server_->url(GetParam().reference), &checksum, &packets));
    const mtkpb::control::Counters counters = mtkpb::control::counters();
    EXPECT_EQ(packets, counters.packets);
    if (GetParam().checksum) {
        EXPECT_EQ(checksum, counters.packetChecksum);
    }
    EXPECT_EQ(0u, counters.readsFailed);
}

INSTANTIATE_TEST_SUITE_P(Streams, HlsPlaysTest,
                         ::testing::Values(Stream{"MpegTs", "ts/v0.m3u8", "ts/v0.m3u8", true},
                                           Stream{"MasterOfThreeVariants", "ts/master.m3u8", "ts/v0.m3u8", false},
                                           Stream{"FragmentedMp4", "fmp4/index.m3u8", "fmp4/index.m3u8", false},
                                           Stream{"Aes128", "aes/index.m3u8", "aes/index.m3u8", true},
                                           Stream{"ByteRanges", "range/index.m3u8", "range/index.m3u8", true}),
                         [](const ::testing::TestParamInfo<Stream>& info) {
                             return info.param.name;
                         });

TEST_F(HlsPlayerTest, TimeSeeksLandWithinOneTargetDuration) {
    for (const char* playlist : {"ts/v2.m3u8", "fmp4/index.m3u8", "aes/index.m3u8", "ts/v0-joined.m3u8",
                                 "fmp4/index-joined.m3u8"}) {
        SCOPED_TRACE(playlist);
        log_.clear();
        ASSERT_EQ(kStatusOk, player_->open(server_->url(playlist)));
        ASSERT_EQ(kStatusOk, player_->play(0));
        ASSERT_TRUE(log_.waitForEvent(kPlaying));
        // A joined playlist is a clip twice: its targets reach into the second part.
        const int32_t parts = strstr(playlist, "joined") != nullptr ? 2 : 1;
        EXPECT_NEAR(parts * kClipSeconds * 1000, player_->duration(), 1000);
        for (int32_t target : {6000 * parts, 1000, 4000 * parts}) {
            ASSERT_EQ(kStatusOk, player_->timeSeek(target));
            const int32_t pts = player_->currentPts();
            EXPECT_LE(std::abs(pts - target), kTargetSeconds * 1000) << "asked " << target << ", at " << pts;
        }
        ASSERT_EQ(kStatusOk, player_->stop());
        player_->close();
    }
    EXPECT_EQ(0u, mtkpb::control::counters().readsFailed);
}

// Clips twice with EXT-X-DISCONTINUITY between, demuxed by FFmpeg: no
// packet corrupt (MPEG-TS continuity counters continue), timestamps growing
// through both parts.
TEST(HlsTimestampsTest, KeepGrowingAcrossADiscontinuity) {
    ASSERT_TRUE(why_.empty()) << why_;
    for (const char* playlist : {"ts/v0-joined", "fmp4/index-joined"}) {
        HlsFile file(server_->url(playlist + std::string(".m3u8")));
        ASSERT_EQ(0, file.open()) << playlist;
        const std::string path = server_->rootFile(playlist + std::string(".bin"));
        writeText(path, readWhole(file));
        AVFormatContext* format = nullptr;
        ASSERT_EQ(0, avformat_open_input(&format, path.c_str(), nullptr, nullptr)) << playlist;
        ASSERT_GE(avformat_find_stream_info(format, nullptr), 0) << playlist;
        AVPacket* packet = av_packet_alloc();
        std::vector<int64_t> last(format->nb_streams, AV_NOPTS_VALUE);
        int corrupt = 0, backwards = 0;
        while (av_read_frame(format, packet) >= 0) {
            corrupt += (packet->flags & AV_PKT_FLAG_CORRUPT) != 0;
            int64_t& previous = last[static_cast<size_t>(packet->stream_index)];
            // Audio may reach a little past the playlist time of its part (the
            // next starts where EXTINF says): by a frame or two.
            const double tenth = 0.1 / av_q2d(format->streams[packet->stream_index]->time_base);
            backwards += previous != AV_NOPTS_VALUE && packet->dts < previous - tenth;
            previous = packet->dts;
            av_packet_unref(packet);
        }
        EXPECT_EQ(0, corrupt) << playlist;
        EXPECT_EQ(0, backwards) << playlist;
        for (unsigned i = 0; i < format->nb_streams; ++i) {
            const AVStream* stream = format->streams[i];
            EXPECT_NEAR(2 * kClipSeconds, (last[i] - stream->start_time) * av_q2d(stream->time_base), 0.5)
                << playlist << " stream " << i;
        }
        av_packet_free(&packet);
        avformat_close_input(&format);
    }
}

TEST_F(HlsPlayerTest, SegmentsOutgrowingTheirSpansLoseTheirTailsAndPlayOn) {
    mtkpb::control::setSpeed(0);
    ASSERT_EQ(kStatusOk, player_->open(server_->url("bad/understated.m3u8")));
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitForEvent(kStopped, 60000)) << ::testing::PrintToString(log_.events());
    EXPECT_EQ((Events{kOpening, kOpened, kPlaying, kEndOfStream, kStopped}), log_.transitions());
    uint64_t checksum = 0, packets = 0;
    ASSERT_TRUE(hlsChecksum(server_->url("ts/v2.m3u8"), &checksum, &packets));
    const mtkpb::control::Counters counters = mtkpb::control::counters();
    EXPECT_LT(counters.packets, packets);
    EXPECT_GT(counters.packets, packets / 10);
    EXPECT_EQ(0u, counters.readsFailed);
}

// Every request of either network source carries the host's User-Agent and
// extra headers; a proxy gets them all.
TEST(HlsOpenTest, RequestOptionsGoWithEveryRequest) {
    ASSERT_TRUE(why_.empty()) << why_;
    velka::HttpOptions options;
    options.userAgent = "velka-test/1";
    options.headers = {"X-Velka: token-42"};
    const size_t before = server_->requests().size();
    HlsFile hls(server_->url("aes/index.m3u8"), options);
    ASSERT_EQ(0, hls.open());
    readWhole(hls);
    hls.close();
    velka::HttpFile http(server_->url("aes/seq.m3u8"), options);
    ASSERT_EQ(0, http.open());
    http.close();
    // The playlist, the key, 4 segments, the other playlist (the other
    // tests' requests elsewhere may still be logged late).
    std::vector<testing_support::NginxServer::Request> requests;
    ASSERT_TRUE(testing_support::waitUntil([&] {
        requests.clear();
        const auto all = server_->requests();
        for (size_t i = before; i < all.size(); ++i) {
            if (all[i].path.compare(0, 5, "/aes/") == 0) requests.push_back(all[i]);
        }
        return requests.size() >= 7;
    }));
    for (const auto& r : requests) {
        EXPECT_EQ("velka-test/1", r.userAgent) << r.path;
        EXPECT_EQ("token-42", r.xVelka) << r.path;
    }
    // Through a proxy (the fault server, which answers with a TS segment:
    // not a playlist), the request names the whole URL.
    testing_support::FaultServer proxy(std::vector<char>(188, 'x'));
    std::string why;
    ASSERT_TRUE(proxy.start(&why)) << why;
    options.proxy = proxy.url("");
    HlsFile proxied(server_->url("ts/v0.m3u8"), options);
    EXPECT_EQ(-1, proxied.open());
    ASSERT_TRUE(testing_support::waitUntil([&] { return !proxy.requests().empty(); }));
    EXPECT_EQ(server_->url("ts/v0.m3u8"), proxy.requests()[0].path);
}

// Once a host chose the library's network stack (HlsPlayerTest did, for this
// process), http(s) playlists go to HlsFile: by ".m3u8" in the path, or else
// by an HLS Content-Type, at the cost of no request for other media.
TEST(HlsOpenTest, TheFactoryRoutesNetworkUrlsToTheLibrarysSources) {
    ASSERT_TRUE(why_.empty()) << why_;
    velka::FileFactory::useLibraryNetworkStack();
    struct Row {
        const char* url;  // or a Content-Type for the playlist below
        bool hls;
    };
    for (const Row& row : {Row{"http://h/a/live.m3u8", true}, Row{"https://h/b.M3U8?t=1", true},
                           Row{"file:///tmp/a.m3u8", false}, Row{"dta-test://h/a.m3u8", false}}) {
        std::unique_ptr<velka::File> file(velka::FileFactory::createFile(row.url));
        EXPECT_EQ(row.hls, dynamic_cast<HlsFile*>(file.get()) != nullptr) << row.url;
    }
    const std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2,\n" + server_->url("ts/v0_000.ts") +
                             "\n#EXT-X-ENDLIST\n";
    testing_support::FaultServer faults(std::vector<char>(text.begin(), text.end()));
    std::string why;
    ASSERT_TRUE(faults.start(&why)) << why;
    for (const Row& row : {Row{"application/vnd.apple.mpegurl", true}, Row{"Application/X-MpegURL; charset=UTF-8", true},
                           Row{"audio/mpegurl", true}, Row{"audio/x-mpegurl ", true},
                           Row{"application/octet-stream", false}, Row{"text/plain", false}}) {
        testing_support::FaultServer::Reply reply;
        reply.contentType = row.url;
        faults.script("/list", {reply});
        const size_t before = faults.requests().size();
        std::unique_ptr<velka::File> file(velka::FileFactory::createFile(faults.url("/list")));
        ASSERT_EQ(0, file->open()) << row.url;
        // The playlist's stream, or its text.
        EXPECT_EQ(row.hls, file->length() > static_cast<int64_t>(text.size())) << row.url;
        file->close();
        const size_t requests = before + (row.hls ? 2 : 1);
        EXPECT_TRUE(testing_support::waitUntil([&] { return faults.requests().size() >= requests; })) << row.url;
        EXPECT_EQ(requests, faults.requests().size()) << row.url;
    }
}

TEST(HlsOpenTest, FailsClearlyOnWhatItCannotPlay) {
    ASSERT_TRUE(why_.empty()) << why_;
    for (const char* path : {"bad/missing.m3u8", "bad/text.m3u8", "bad/sample-aes.m3u8",
                             "bad/no-key.m3u8", "ts/v0_000.ts"}) {
        HlsFile file(server_->url(path));
        EXPECT_EQ(-1, file.open()) << path;
        EXPECT_EQ(0, file.close());
    }
    HlsFile notHttp("ftp://127.0.0.1/a.m3u8");
    EXPECT_EQ(-1, notHttp.open());
    // A server that accepts and never answers: the open's own time limit.
    testing_support::FaultServer silent(std::vector<char>(1, '#'));
    testing_support::FaultServer::Reply never;
    never.headerDelayMs = 60000;
    silent.script("/never.m3u8", {never});
    std::string why;
    ASSERT_TRUE(silent.start(&why)) << why;
    HlsFile file(silent.url("/never.m3u8"));
    file.setOpenTimeLimit(300);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, file.open());
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
}

}  // namespace

namespace {

// A live stream: ffmpeg writing a sliding window of one-second segments in
// real time into nginx's root, as long as the object lives (or until stop()).
class LiveWriter {
public:
    static constexpr int kWindowSegments = 4;

    explicit LiveWriter(const std::string& name) : dir_(server_->rootFile(name + "/")), name_(name) {
        runCommand("rm -rf " + dir_ + " && mkdir -p " + dir_);
        const std::string command =
            "exec ffmpeg -nostdin -hide_banner -loglevel error -y -re -f lavfi -i "
            "testsrc=size=160x120:rate=25:duration=120 -c:v mpeg2video -g 25 -f hls -hls_time 1 "
            "-hls_list_size " + std::to_string(kWindowSegments) + " -hls_flags delete_segments "
            "-hls_segment_filename " + dir_ + "seg%05d.ts " + dir_ + "live.m3u8";
        const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
        if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) pid_ = -1;
    }
    ~LiveWriter() { stop(); }
    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);  // not SIGTERM: ffmpeg would end the playlist
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    std::string url() const { return server_->url(name_ + "/live.m3u8"); }
    // The sequence numbers the playlist lists now; {-1, -1} before it has one.
    std::pair<long long, long long> listed() const {
        const std::string text = fileBytes(dir_ + "live.m3u8");
        const size_t tag = text.find("#EXT-X-MEDIA-SEQUENCE:");
        if (tag == std::string::npos) return {-1, -1};
        const long long first = std::stoll(text.substr(tag + 22));
        size_t count = 0;
        for (size_t at = 0; (at = text.find("#EXTINF", at)) != std::string::npos; ++at) ++count;
        return {first, first + static_cast<long long>(count) - 1};
    }
    bool waitForWindow() {
        return testing_support::waitUntil([this] { return listed().second - listed().first + 1 >= kWindowSegments; });
    }
    // The sequence numbers of the segments requested from nginx, in order.
    std::vector<long long> requested() const {
        std::vector<long long> out;
        for (const auto& r : server_->requests()) {
            if (r.path.find("/" + name_ + "/seg") == 0) out.push_back(std::stoll(r.path.substr(name_.size() + 5)));
        }
        return out;
    }

private:
    std::string dir_;
    std::string name_;
    pid_t pid_ = -1;
};

// Counts what a chain of reads delivered; each read issued from the last one's completion.
class LiveReader : public velka::File::AsyncCallback {
public:
    explicit LiveReader(velka::File& file) : file_(file), block_(64 * 1024) {}
    void start() { issue(); }
    void complete(velka::VelkaStatus status, uint32_t length) override {
        bytes_ += length;
        status_ = status;
        if (status == velka::kStatusOk && !paused_) issue();
        else done_ = true;
    }
    // One read, after which the chain stops.
    void readOnce() {
        paused_ = true;
        issue();
    }
    void resume() {
        paused_ = false;
        done_ = false;
        issue();
    }
    std::atomic<uint64_t> bytes_{0};
    std::atomic<int> status_{velka::kStatusOk};
    std::atomic<bool> done_{false};

private:
    void issue() {
        if (file_.readAsync(block_.data(), static_cast<uint32_t>(block_.size()), *this) == nullptr) done_ = true;
    }
    velka::File& file_;
    std::vector<char> block_;
    std::atomic<bool> paused_{false};
};

TEST(HlsLiveTest, StartsThreeTargetDurationsFromTheEndAndFollowsTheWindow) {
    ASSERT_TRUE(why_.empty()) << why_;
    LiveWriter live("live-edge");
    ASSERT_TRUE(live.waitForWindow());
    const long long lastAtOpen = live.listed().second;
    HlsFile file(live.url());
    ASSERT_EQ(0, file.open());
    EXPECT_EQ(-1, file.length());
    LiveReader reader(file);
    reader.start();
    // Three new segments come and are read in order, none skipped.
    ASSERT_TRUE(testing_support::waitUntil([&] { return live.requested().size() >= 5; }));
    const std::vector<long long> segments = live.requested();
    EXPECT_GE(segments[0], lastAtOpen - 2);
    EXPECT_LE(segments[0], lastAtOpen - 1);
    for (size_t i = 1; i < segments.size(); ++i) EXPECT_EQ(segments[i - 1] + 1, segments[i]);
    EXPECT_FALSE(reader.done_);
    file.close();
    EXPECT_TRUE(reader.done_);
    EXPECT_EQ(velka::kStatusCancelled, reader.status_);
}

TEST(HlsLiveTest, AReaderThatFellBehindTheWindowGoesOnFromItsOldestSegment) {
    ASSERT_TRUE(why_.empty()) << why_;
    LiveWriter live("live-behind");
    ASSERT_TRUE(live.waitForWindow());
    HlsFile file(live.url());
    ASSERT_EQ(0, file.open());
    LiveReader reader(file);
    reader.readOnce();
    ASSERT_TRUE(testing_support::waitUntil([&] { return reader.done_.load(); }));
    // The file fetches ahead for the paused reader until its queue is full;
    // then the window passes the next segment it would fetch.
    ASSERT_TRUE(testing_support::waitUntil([&] {
        return live.listed().first > live.requested().back() + 2;
    }));
    reader.resume();
    ASSERT_TRUE(testing_support::waitUntil([&] {
        return reader.done_ || live.requested().back() >= live.listed().first;
    }));
    EXPECT_FALSE(reader.done_) << "status " << reader.status_;
    const std::vector<long long> segments = live.requested();
    bool skipped = false;
    for (size_t i = 1; i < segments.size(); ++i) skipped |= segments[i] > segments[i - 1] + 1;
    EXPECT_TRUE(skipped) << "no jump to the oldest listed segment";
    file.close();
}

TEST(HlsLiveTest, APlaylistThatStopsAdvancingEndsInAnErrorCompletion) {
    ASSERT_TRUE(why_.empty()) << why_;
    LiveWriter live("live-stall");
    ASSERT_TRUE(live.waitForWindow());
    HlsFile file(live.url());
    ASSERT_EQ(0, file.open());
    LiveReader reader(file);
    reader.readOnce();
    // Fetched ahead for the paused reader, then drained by it once the
    // playlist stands still.
    ASSERT_TRUE(testing_support::waitUntil([&] { return file.cachePercent() > 0; }));
    live.stop();
    const auto stopped = std::chrono::steady_clock::now();
    reader.resume();
    int lowest = 100;
    ASSERT_TRUE(testing_support::waitUntil([&] {
        lowest = std::min(lowest, file.cachePercent());
        return reader.done_.load();
    }));
    EXPECT_EQ(velka::kStatusError, reader.status_);
    EXPECT_EQ(0, lowest) << "no buffering figure while it waited";
    EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(15));
    EXPECT_NE(0, file.error());
    file.close();
}

TEST_F(HlsPlayerTest, LivePlaysThroughThePlayer) {
    LiveWriter live("live-player");
    ASSERT_TRUE(live.waitForWindow());
    ASSERT_EQ(kStatusOk, player_->open(live.url()));
    EXPECT_EQ(0, player_->duration());
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitFor([](const Events& all) {
        int updates = 0;
        for (const Event& e : all) updates += e.id == MediaPlayer::kEventTimeUpdate && e.param >= 2000;
        return updates > 0;
    }, 30000)) << ::testing::PrintToString(log_.events());
    EXPECT_EQ((Events{kOpening, kOpened, kPlaying}), log_.transitions());
    EXPECT_EQ(0u, mtkpb::control::counters().readsFailed);
}

}  // namespace

namespace {

// Segments from the fault server (each its one file, a real TS segment),
// named by a playlist that nginx serves.
class HlsFaultTest : public ::testing::Test {
protected:
    using Reply = testing_support::FaultServer::Reply;

    HlsFaultTest() : faults_(bytes(fileBytes(server_->rootFile("ts/v0_000.ts")))) {}
    static std::vector<char> bytes(const std::string& s) { return std::vector<char>(s.begin(), s.end()); }
    void SetUp() override {
        ASSERT_TRUE(why_.empty()) << why_;
        std::string why;
        ASSERT_TRUE(faults_.start(&why)) << why;
    }
    // A VOD playlist of `count` segments /NAME0.ts, /NAME1.ts... on the fault
    // server; or a live one whose segments are short enough that it plays
    // from its first.
    std::string playlist(const std::string& name, int count, bool live = false) {
        std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:2\n";
        for (int i = 0; i < count; ++i) {
            text += (live ? "#EXTINF:0.1,\n" : "#EXTINF:2,\n") + faults_.url("/" + name + std::to_string(i) + ".ts") + "\n";
        }
        writeText(server_->rootFile("bad/" + name + ".m3u8"), text + (live ? "" : "#EXT-X-ENDLIST\n"));
        return server_->url("bad/" + name + ".m3u8");
    }
    testing_support::FaultServer faults_;
};

TEST_F(HlsFaultTest, ASegmentDroppedMidBodyResumesWhereItStopped) {
    Reply cut;
    cut.cutAt = 20000;
    faults_.script("/resume1.ts", {cut, Reply()});
    HlsFile file(playlist("resume", 3));
    ASSERT_EQ(0, file.open());
    // Continuity counters cleared: the file renumbers them from segment to segment.
    const auto withoutCounters = [](std::string ts) {
        for (size_t i = 3; i < ts.size(); i += 188) ts[i] = static_cast<char>(ts[i] & 0xF0);
        return ts;
    };
    const std::string stream = withoutCounters(readWhole(file));
    EXPECT_EQ(file.length(), static_cast<int64_t>(stream.size()));
    const std::string segment = withoutCounters(std::string(faults_.file().begin(), faults_.file().end()));
    for (int64_t i = 0, at = 0; i < 3; ++i, at = stream.find(segment.substr(0, 188), at + segment.size())) {
        ASSERT_NE(std::string::npos, static_cast<size_t>(at));
        EXPECT_TRUE(stream.compare(static_cast<size_t>(at), segment.size(), segment) == 0) << "segment " << i;
    }
    const auto requests = faults_.requests("/resume1.ts");
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ("bytes=20000-", requests[1].range);
}

TEST_F(HlsFaultTest, ASegmentThatFailsForGoodIsRetriedThenTheReadsFail) {
    Reply error;
    error.status = 500;
    faults_.script("/fail1.ts", {error});
    HlsFile file(playlist("fail", 3));
    ASSERT_EQ(0, file.open());
    // Fetched ahead and failed for good before the first read: the segment
    // before it is read all the same.
    ASSERT_TRUE(testing_support::waitUntil([&] { return faults_.requests("/fail1.ts").size() == 3; }));
    std::vector<char> block(64 * 1024);
    int n = 0;
    int64_t total = 0;
    while ((n = file.read(block.data(), static_cast<uint32_t>(block.size()))) > 0) total += n;
    EXPECT_EQ(-1, n);
    EXPECT_GE(total, static_cast<int64_t>(faults_.file().size())) << "the first segment was read";
    EXPECT_EQ(3u, faults_.requests("/fail1.ts").size());
    EXPECT_NE(0, file.error());
    testing_support::CompletionLog log(false);
    testing_support::CompletionLog::Callback refused(log, 1);
    EXPECT_EQ(nullptr, file.readAsync(block.data(), 1, refused));
}

// Two variants whose segments come from the fault server; the higher one's
// segments kSlowFrom to kSlowTo drip, as a link that slows, then recovers.
// Video on demand, and live (whose playlists end once it plays).
class HlsAdaptTest : public HlsFaultTest, public ::testing::WithParamInterface<bool> {};

TEST_P(HlsAdaptTest, ASlowLinkSwitchesDownAndARecoveredOneBackUp) {
    const bool live = GetParam();
    constexpr int kSegments = 16, kSlowFrom = 5, kSlowTo = 8;
    Reply drip;
    drip.bytesPerSecond = 40000;
    for (int i = kSlowFrom; i < kSlowTo; ++i) faults_.script("/hi" + std::to_string(i) + ".ts", {drip});
    std::string master = "#EXTM3U\n";
    for (const char* name : {"lo", "hi"}) {
        playlist(name, kSegments, live);
        master += std::string("#EXT-X-STREAM-INF:BANDWIDTH=") + (name[0] == 'l' ? "200000" : "2000000") +
                  "\n" + name + ".m3u8\n";
    }
    writeText(server_->rootFile("bad/adapt.m3u8"), master);
    HlsFile file(server_->url("bad/adapt.m3u8"));
    ASSERT_EQ(0, file.open());
    EXPECT_EQ(live, file.length() < 0);
    for (const char* name : {"lo", "hi"}) playlist(name, kSegments);
    EXPECT_GE(readWhole(file).size(), kSegments * faults_.file().size());
    EXPECT_EQ(0, file.error());
    // Which variant each segment came from, in the order they were fetched.
    std::string variants;
    std::vector<int> indexes;
    for (const auto& r : faults_.requests()) {
        variants += r.path[1];
        indexes.push_back(std::stoi(r.path.substr(3)));
    }
    ASSERT_EQ(static_cast<size_t>(kSegments), variants.size()) << variants;
    EXPECT_EQ('l', variants[0]) << "the lowest rate first: " << variants;
    const size_t up = variants.find('h');
    ASSERT_NE(std::string::npos, up) << variants;
    EXPECT_LE(indexes[up], kSlowFrom) << "up before the link slows: " << variants;
    const size_t down = variants.find('l', up);
    ASSERT_NE(std::string::npos, down) << variants;
    EXPECT_LE(indexes[down], kSlowFrom + 1) << "down at the first slow segment: " << variants;
    const size_t again = variants.find('h', down);
    ASSERT_NE(std::string::npos, again) << "back up once it recovered: " << variants;
    EXPECT_EQ(std::string::npos, variants.find('l', again)) << "no oscillation: " << variants;
}

INSTANTIATE_TEST_SUITE_P(VodAndLive, HlsAdaptTest, ::testing::Bool());

TEST_F(HlsFaultTest, CloseMidSegmentReturnsAtOnceWithQueuedReadsCancelled) {
    Reply drip;
    drip.bytesPerSecond = 4000;
    faults_.script("/slow1.ts", {drip});
    HlsFile file(playlist("slow", 2));
    ASSERT_EQ(0, file.open());
    testing_support::CompletionLog log(false);
    testing_support::CompletionLog::Callback c1(log, 1), c2(log, 2);
    // The first read reaches into the second segment, which drips.
    std::vector<char> a(static_cast<size_t>(file.length())), b(100);
    ASSERT_NE(nullptr, file.readAsync(a.data(), static_cast<uint32_t>(a.size()), c1));
    ASSERT_NE(nullptr, file.readAsync(b.data(), static_cast<uint32_t>(b.size()), c2));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(0, file.close());
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
    ASSERT_EQ(2u, log.all().size());
    for (const auto& c : log.all()) EXPECT_EQ(velka::kStatusCancelled, c.status) << c.tag;
}

}  // namespace
