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

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
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
            const size_t from = text.find("#EXTINF");
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

// What FFmpeg reads from `url` (a playlist through its HLS demuxer, or a
// file), fingerprinted as the engine fingerprints what it demuxed; packets
// flagged corrupt, DTS going back by more than 0.1 s (audio may reach a little
// past where the next part starts), seconds from the first timestamp.
struct Demuxed {
    uint64_t checksum = mtkpb::control::kFnvOffsetBasis, packets = 0;
    int corrupt = 0, backwards = 0;
    double seconds = 0;
};

bool demux(const std::string& url, Demuxed* out) {
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, url.c_str(), nullptr, nullptr) < 0) return false;
    const bool ok = avformat_find_stream_info(format, nullptr) >= 0;
    std::vector<int64_t> last(format->nb_streams, AV_NOPTS_VALUE);
    AVPacket* packet = av_packet_alloc();
    while (ok && av_read_frame(format, packet) >= 0) {
        out->checksum = mtkpb::control::fnv1a64(out->checksum, packet->data, static_cast<size_t>(packet->size));
        ++out->packets;
        out->corrupt += (packet->flags & AV_PKT_FLAG_CORRUPT) != 0;
        const AVStream* stream = format->streams[packet->stream_index];
        int64_t& previous = last[static_cast<size_t>(packet->stream_index)];
        if (packet->dts != AV_NOPTS_VALUE) {
            out->backwards += previous != AV_NOPTS_VALUE && packet->dts < previous - 0.1 / av_q2d(stream->time_base);
            previous = packet->dts;
            out->seconds = std::max(out->seconds, (previous - stream->start_time) * av_q2d(stream->time_base));
        }
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
    // The packets' checksum, or their count alone: variants differ in their
    // bytes; FFmpeg's HLS demuxer interleaves fMP4 tracks otherwise.
    bool checksum;
    // kPieces: the byte stream is the playlist's files in order, each followed
    // only by filler the demuxer skips (null packets, a free box), but the
    // last MPEG-TS segment, which its filler precedes. kDemuxes
    // (variants may switch, a clip joined to itself is rewritten): FFmpeg
    // demuxes it without a corrupt packet and with growing timestamps. kCut:
    // segments outgrow their spans, lose their tails and play on.
    enum { kPieces, kDemuxes, kCut } bytes;
    int parts;  // the clip's length over
};

void PrintTo(const Stream& s, std::ostream* os) { *os << s.name; }

class HlsPlaysTest : public HlsPlayerTest, public ::testing::WithParamInterface<Stream> {};

TEST_P(HlsPlaysTest, TheByteStreamIsTheSegmentsAndPlaysEveryPacketFfmpegReads) {
    const Stream& row = GetParam();
    HlsFile file(server_->url(row.playlist));
    ASSERT_EQ(0, file.open());
    const std::string stream = readWhole(file);
    EXPECT_EQ(file.length(), static_cast<int64_t>(stream.size()));
    EXPECT_EQ(file.length(), file.tell());
    file.close();
    if (row.bytes == Stream::kPieces) {
        const std::vector<std::string> pieces = playlistPieces(server_->rootFile(row.playlist));
        ASSERT_FALSE(pieces.empty());
        size_t at = 0;
        const std::string nullPacket = std::string("\x47\x1F\xFF\x10", 4) + std::string(184, '\xFF');
        for (size_t i = 0; i < pieces.size(); ++i) {
            const bool init = pieces[i].compare(0, 4, "init") == 0;
            const std::string bytes = init ? pieces[i].substr(4) : pieces[i];
            // The last MPEG-TS segment comes after its filler, at the stream's end.
            if (i + 1 == pieces.size()) {
                while (stream.compare(at, 188, nullPacket) == 0) at += 188;
            }
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
    } else if (row.bytes == Stream::kDemuxes) {
        const std::string path = server_->rootFile(row.playlist + std::string(".bin"));
        writeText(path, stream);
        Demuxed ours;
        ASSERT_TRUE(demux(path, &ours));
        EXPECT_EQ(0, ours.corrupt);
        EXPECT_EQ(0, ours.backwards);
        EXPECT_NEAR(row.parts * kClipSeconds, ours.seconds, 0.5);
    }
    mtkpb::control::setSpeed(0);
    ASSERT_EQ(kStatusOk, player_->open(server_->url(row.playlist)));
    EXPECT_NEAR(row.parts * kClipSeconds * 1000, player_->duration(), 1000);
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitForEvent(kStopped, 60000)) << ::testing::PrintToString(log_.events());
    EXPECT_EQ((Events{kOpening, kOpened, kPlaying, kEndOfStream, kStopped}), log_.transitions());
    Demuxed reference;
    ASSERT_TRUE(demux(server_->url(row.reference), &reference));
    const mtkpb::control::Counters counters = mtkpb::control::counters();
    if (row.bytes == Stream::kCut) {
        EXPECT_LT(counters.packets, reference.packets);
        EXPECT_GT(counters.packets, reference.packets / 10);
    } else {
        EXPECT_EQ(reference.packets, counters.packets);
    }
    if (row.checksum) {
        EXPECT_EQ(reference.checksum, counters.packetChecksum);
    }
    EXPECT_EQ(0u, counters.readsFailed);
}

INSTANTIATE_TEST_SUITE_P(
    Streams, HlsPlaysTest,
    ::testing::Values(Stream{"MpegTs", "ts/v0.m3u8", "ts/v0.m3u8", true, Stream::kPieces, 1},
                      Stream{"MasterOfThreeVariants", "ts/master.m3u8", "ts/v0.m3u8", false, Stream::kDemuxes, 1},
                      Stream{"FragmentedMp4", "fmp4/index.m3u8", "fmp4/index.m3u8", false, Stream::kPieces, 1},
                      Stream{"Aes128", "aes/index.m3u8", "aes/index.m3u8", true, Stream::kPieces, 1},
                      Stream{"Aes128IvFromSequence", "aes/seq.m3u8", "aes/seq.m3u8", true, Stream::kPieces, 1},
                      Stream{"ByteRanges", "range/index.m3u8", "range/index.m3u8", true, Stream::kPieces, 1},
                      Stream{"MpegTsDiscontinuity", "ts/v0-joined.m3u8", "ts/v0-joined.m3u8", true, Stream::kDemuxes, 2},
                      Stream{"FragmentedMp4Discontinuity", "fmp4/index-joined.m3u8", "fmp4/index-joined.m3u8", false,
                             Stream::kDemuxes, 2},
                      Stream{"SegmentsOutgrowingTheirSpans", "bad/understated.m3u8", "ts/v2.m3u8", false, Stream::kCut, 1}),
    [](const ::testing::TestParamInfo<Stream>& info) { return info.param.name; });

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

// Every request of either network source carries the host's User-Agent and
// extra headers.
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
}

// Once a host chose the library's network stack (HlsPlayerTest did, for this
// process), http(s) playlists go to HlsFile: by ".m3u8" in the path, or else
// by an HLS Content-Type, at the cost of no request for other media.
TEST(HlsOpenTest, TheFactoryRoutesNetworkUrlsToTheLibrarysSources) {
    ASSERT_TRUE(why_.empty()) << why_;
    velka::FileFactory::useLibraryNetworkStack();
    for (const char* url : {"file:///tmp/a.m3u8", "dta-test://h/a.m3u8"}) {
        EXPECT_EQ(nullptr, dynamic_cast<HlsFile*>(std::unique_ptr<velka::File>(velka::FileFactory::createFile(url)).get()));
    }
    const std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2,\n" + server_->url("ts/v0_000.ts") +
                             "\n#EXT-X-ENDLIST\n";
    testing_support::FaultServer faults(std::vector<char>(text.begin(), text.end()));
    std::string why;
    ASSERT_TRUE(faults.start(&why)) << why;
    struct Row {
        const char* path;
        const char* type;  // the Content-Type it is served with
        size_t requests;   // 0: not a playlist (one request), else the requests for it
    };
    for (const Row& row : {Row{"/a/live.m3u8", "text/plain", 1}, Row{"/b.M3U8?t=1", "text/plain", 1},
                           Row{"/x?u=a.m3u8", "text/plain", 0}, Row{"/l", "application/vnd.apple.mpegurl", 2},
                           Row{"/l", "Application/X-MpegURL; charset=UTF-8", 2}, Row{"/l", "audio/mpegurl", 2},
                           Row{"/l", "audio/x-mpegurl ", 2}, Row{"/l", "application/octet-stream", 0}}) {
        testing_support::FaultServer::Reply reply;
        reply.contentType = row.type;
        faults.script(row.path, {reply});
        const size_t before = faults.requests().size();
        std::unique_ptr<velka::File> file(velka::FileFactory::createFile(faults.url(row.path)));
        ASSERT_EQ(0, file->open()) << row.path << " " << row.type;
        // The playlist's stream, or its text.
        EXPECT_EQ(row.requests > 0, file->length() > static_cast<int64_t>(text.size())) << row.path << " " << row.type;
        file->close();
        const size_t requests = before + std::max<size_t>(row.requests, 1);
        EXPECT_TRUE(testing_support::waitUntil([&] { return faults.requests().size() >= requests; }));
        EXPECT_EQ(requests, faults.requests().size()) << row.path << " " << row.type;
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
    // Through a proxy (the fault server, which answers with one byte: not a
    // playlist), the request names the whole URL.
    testing_support::FaultServer faults(std::vector<char>(1, '#'));
    std::string why;
    ASSERT_TRUE(faults.start(&why)) << why;
    velka::HttpOptions options;
    options.proxy = faults.url("");
    HlsFile proxied(server_->url("ts/v0.m3u8"), options);
    EXPECT_EQ(-1, proxied.open());
    ASSERT_TRUE(testing_support::waitUntil([&] { return !faults.requests().empty(); }));
    EXPECT_EQ(server_->url("ts/v0.m3u8"), faults.requests()[0].path);
    // A server that accepts and never answers: the open's own time limit.
    testing_support::FaultServer::Reply never;
    never.headerDelayMs = 60000;
    faults.script("/never.m3u8", {never});
    HlsFile silent(faults.url("/never.m3u8"));
    silent.setOpenTimeLimit(300);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, silent.open());
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
}


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

// A reader that pauses until the window passed the segment it would read
// next goes on from the oldest one listed; once the playlist stops
// advancing, it drains what it has and gets an error completion.
TEST(HlsLiveTest, AReaderBehindTheWindowGoesOnAndAStalledPlaylistEndsInAnError) {
    ASSERT_TRUE(why_.empty()) << why_;
    LiveWriter live("live-behind");
    ASSERT_TRUE(live.waitForWindow());
    HlsFile file(live.url());
    ASSERT_EQ(0, file.open());
    std::vector<char> block(64 * 1024);
    ASSERT_GT(file.read(block.data(), static_cast<uint32_t>(block.size())), 0);
    // The file fetches ahead for the paused reader until its queue is full;
    // then the window passes the next segment it would fetch.
    ASSERT_TRUE(testing_support::waitUntil([&] {
        return live.listed().first > live.requested().back() + 2;
    }));
    std::atomic<int> last{1};
    std::thread reader([&] {
        int n;
        while ((n = file.read(block.data(), static_cast<uint32_t>(block.size()))) > 0) {}
        last = n;
    });
    EXPECT_TRUE(testing_support::waitUntil([&] {
        return last <= 0 || live.requested().back() >= live.listed().first;
    }));
    EXPECT_EQ(1, last);
    const std::vector<long long> segments = live.requested();
    bool skipped = false;
    for (size_t i = 1; i < segments.size(); ++i) skipped |= segments[i] > segments[i - 1] + 1;
    EXPECT_TRUE(skipped) << "no jump to the oldest listed segment";
    live.stop();
    const auto stopped = std::chrono::steady_clock::now();
    int lowest = 100;
    EXPECT_TRUE(testing_support::waitUntil([&] {
        lowest = std::min(lowest, file.cachePercent());
        return last <= 0;
    }));
    EXPECT_EQ(-1, last.load()) << "an error completion";
    EXPECT_EQ(0, lowest) << "no buffering figure while it waited";
    EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(15));
    EXPECT_NE(0, file.error());
    file.close();  // ends the reader's read, whatever happened
    reader.join();
}

// Live through the player: it starts three target durations from the end
// of the playlist and reads the segments in order, none skipped.
TEST_F(HlsPlayerTest, LivePlaysThroughThePlayerFromThreeTargetDurationsBeforeTheEnd) {
    LiveWriter live("live-player");
    ASSERT_TRUE(live.waitForWindow());
    const long long lastAtOpen = live.listed().second;
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
    const std::vector<long long> segments = live.requested();
    ASSERT_GE(segments.size(), 3u);
    EXPECT_GE(segments[0], lastAtOpen - 2);
    EXPECT_LE(segments[0], lastAtOpen - 1);
    for (size_t i = 1; i < segments.size(); ++i) EXPECT_EQ(segments[i - 1] + 1, segments[i]);
}


// Segments from the fault server (each its one file, a real TS segment),
// named by a playlist that nginx serves.
class HlsFaultTest : public ::testing::Test {
protected:
    using Reply = testing_support::FaultServer::Reply;

    HlsFaultTest() : faults_([] { const std::string s = fileBytes(server_->rootFile("ts/v0_000.ts"));
                                  return std::vector<char>(s.begin(), s.end()); }()) {}
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

// Segment 1 drops mid-body and resumes where it stopped; segment 2 fails for
// good, is retried, and fails the reader once it reaches it (fetched ahead
// and failed before the first read: what comes before it is read all the same).
TEST_F(HlsFaultTest, ASegmentDroppedMidBodyResumesAndOneThatFailsForGoodFailsTheReads) {
    Reply cut, error;
    cut.cutAt = 20000;
    error.status = 500;
    faults_.script("/mix1.ts", {cut, Reply()});
    faults_.script("/mix2.ts", {error});
    HlsFile file(playlist("mix", 3));
    ASSERT_EQ(0, file.open());
    ASSERT_TRUE(testing_support::waitUntil([&] { return faults_.requests("/mix2.ts").size() == 3; }));
    const auto withoutCounters = [](std::string ts) {  // which the file renumbers
        for (size_t i = 3; i < ts.size(); i += 188) ts[i] = static_cast<char>(ts[i] & 0xF0);
        return ts;
    };
    const std::string stream = withoutCounters(readWhole(file));
    const std::string segment = withoutCounters(std::string(faults_.file().begin(), faults_.file().end()));
    for (int64_t i = 0, at = 0; i < 2; ++i, at = stream.find(segment.substr(0, 188), at + segment.size())) {
        ASSERT_NE(std::string::npos, static_cast<size_t>(at));
        EXPECT_TRUE(stream.compare(static_cast<size_t>(at), segment.size(), segment) == 0) << "segment " << i;
    }
    const auto requests = faults_.requests("/mix1.ts");
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ("bytes=20000-", requests[1].range);
    std::vector<char> block(1);
    EXPECT_EQ(-1, file.read(block.data(), 1));
    EXPECT_EQ(3u, faults_.requests("/mix2.ts").size());
    EXPECT_NE(0, file.error());
    testing_support::CompletionLog log(false);
    testing_support::CompletionLog::Callback refused(log, 1);
    EXPECT_EQ(nullptr, file.readAsync(block.data(), 1, refused));
}

// Two variants whose segments come from the fault server; the higher one's
// segments kSlowFrom to kSlowTo drip, as a link that slows, then recovers;
// the others come at 1 MB/s, so that a variant's playlist arrives within a
// segment on a loaded machine. VOD, and live (its playlists end once it plays).
class HlsAdaptTest : public HlsFaultTest, public ::testing::WithParamInterface<bool> {};

TEST_P(HlsAdaptTest, ASlowLinkSwitchesDownAndARecoveredOneBackUp) {
    const bool live = GetParam();
    constexpr int kSegments = 16, kSlowFrom = 5, kSlowTo = 8;
    Reply drip, link;
    drip.bytesPerSecond = 40000;
    link.bytesPerSecond = 1000000;
    for (int i = 0; i < kSegments; ++i) {
        faults_.script("/lo" + std::to_string(i) + ".ts", {link});
        faults_.script("/hi" + std::to_string(i) + ".ts", {i >= kSlowFrom && i < kSlowTo ? drip : link});
    }
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
    const std::string stream = readWhole(file);
    EXPECT_GE(stream.size(), kSegments * faults_.file().size());
    EXPECT_EQ(0, file.error());
    writeText(server_->rootFile("bad/adapt.bin"), stream);
    Demuxed ours;
    ASSERT_TRUE(demux(server_->rootFile("bad/adapt.bin"), &ours));
    EXPECT_EQ(0, ours.corrupt) << "continuity counters jump between segments and variants";
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
