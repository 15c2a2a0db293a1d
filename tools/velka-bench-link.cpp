// velka-bench-link: the network path measured on a home link instead of
// loopback. nginx on 127.0.0.1 is reached through the link emulator
// (tests/support/LinkEmulator.h) at 20 Mbit/s with a 40 ms round trip and at
// 8 Mbit/s with 100 ms, and a demuxer (libavformat, the way the software
// playback engine reads) does a viewer's work on three clips (MP4 with its
// index at the front, MP4 with it at the end, MPEG-TS):
//   zap    open to the first packet after the stream information is known;
//   trace  open, 20 stratified seeks in shuffled order, 2 s of packets after each;
//   seek   one seek while playing at real-time pace, to the first packet at
//          the new place;
//   play   zap through velka::MediaPlayer on the software engine: open() to
//          the first picture presented, beside libavformat with its own HTTP
//          reader (and HLS demuxer) to the first picture decoded.
// Each figure is the median of interleaved runs [min..max], for HttpFile,
// for the download engine (zap only) and for libavformat's own HTTP reader,
// all in this process on the same link in the same run, beside the link's
// limit: the distinct bytes the work reads at the link's rate plus a round
// trip for the connection, one for the first request and one for each jump
// to bytes not read yet (or the gap's bytes, when that is cheaper), or, when
// less, everything from the first byte read to the last in one request. The read
// pattern is taken from the same work on the local file. Also the bytes that
// crossed the link and the requests nginx answered. Nothing is judged.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../tests/support/LinkEmulator.h"
#include "../tests/support/NginxServer.h"
#include "BenchFigures.h"
#include "LibraryLog.h"
#include "velka/DtaFile.h"
#include "velka/HlsFile.h"
#include "velka/HttpFile.h"
#ifdef VELKA_BENCH_PLAYER
#include "mtkpb_control.h"
#include "velka/FileFactory.h"
#include "velka/MediaPlayer.h"
#endif

namespace {

using testing_support::LinkEmulator;
using testing_support::NginxServer;
using velka::File;
using Clock = std::chrono::steady_clock;
using velka::tools::figure;
using velka::tools::kReadAfterSeekSeconds;
using velka::tools::say;
using velka::tools::seconds;
using velka::tools::stats;
using velka::tools::traceTargets;

// The demuxer's I/O buffer, as the software engine's reads come.
constexpr int kIoBytes = 32 * 1024;
// Playing before the seek while playing, at real-time pace.
constexpr double kPlayBeforeSeekSeconds = 3.0;
// Where that seek goes, as a share of the clip.
constexpr double kPlayingSeekShare = 0.65;

struct Settings {
    int runs = 3;
    int clipSeconds = 20;
    bool slowLink = true;  // also the 8 Mbit/s link
    std::string logPath;
    std::string only;  // zap, trace or seek; empty: all
};

const char kUsage[] =
    "Usage: velka-bench-link [--quick] [--runs N] [--seconds S] [--only zap|trace|seek|play]\n"
    "                        [--log FILE]\n"
    "\n"
    "Starts nginx on 127.0.0.1 behind an emulated home link (20 Mbit/s with a\n"
    "40 ms round trip, 8 Mbit/s with 100 ms), generates three 20 s 2 Mbit/s clips\n"
    "(ffmpeg) and prints zap time, a 20-seek trace and a seek while playing\n"
    "through HttpFile, the download engine (zap) and libavformat's own HTTP\n"
    "reader, each beside the link's limit, with the bytes that crossed the link\n"
    "and the requests; then zap through the player to the first picture (with\n"
    "the software engine). Medians of N interleaved runs (default 3) [min..max].\n"
    "--quick: 12 s clips, one run, the 20 Mbit/s link only (a smoke run, not for\n"
    "figures). --seconds sets the clips' length (after --quick, overrides it).\n";

// --- Where the demuxer reads -------------------------------------------------------------

// The demuxer's source: a velka File, or (to learn the read pattern) the
// local file with every read recorded.
struct Source {
    File* file = nullptr;
    FILE* local = nullptr;
    int64_t localSize = 0;
    bool recording = false;
    std::vector<std::pair<int64_t, int64_t>> reads;  // offset, bytes
};

int io_read(void* opaque, uint8_t* buffer, int size) {
    Source* s = static_cast<Source*>(opaque);
    if (s->local != nullptr) {
        const int64_t at = ftello(s->local);
        const size_t n = fread(buffer, 1, static_cast<size_t>(size), s->local);
        if (s->recording && n > 0) s->reads.emplace_back(at, static_cast<int64_t>(n));
        return n > 0 ? static_cast<int>(n) : AVERROR_EOF;
    }
    return velka::tools::readFile(s->file, buffer, size);
}

int64_t io_seek(void* opaque, int64_t offset, int whence) {
    Source* s = static_cast<Source*>(opaque);
    if (s->local != nullptr) {
        if (whence & AVSEEK_SIZE) return s->localSize;
        const int w = whence & ~AVSEEK_FORCE;
        if (fseeko(s->local, offset, w == SEEK_CUR ? SEEK_CUR : w == SEEK_END ? SEEK_END : SEEK_SET) != 0) {
            return -1;
        }
        return ftello(s->local);
    }
    return velka::tools::seekFile(s->file, offset, whence);
}

// The least a link of `mbps` and `rttSeconds` needs for reads in this order:
// a round trip for the connection and one for the first request, the
// distinct bytes at the rate, and for each jump to bytes not read yet a
// round trip (a new request on the connection) or the gap's bytes, whichever
// is cheaper.
struct Need {
    double distinctBytes = 0;
    int jumps = 0;
    double seconds = 0;
};

Need need(const std::vector<std::pair<int64_t, int64_t>>& reads, double mbps, double rttSeconds) {
    const double secondsPerByte = 8.0 / (mbps * 1e6);
    std::map<int64_t, int64_t> have;  // start -> end, disjoint
    auto covered = [&](int64_t at) {
        auto it = have.upper_bound(at);
        if (it == have.begin()) return false;
        --it;
        return at < it->second;
    };
    Need n;
    double extra = 2 * rttSeconds;
    int64_t streamEnd = -1;  // one past the last byte the current request brought
    for (const auto& r : reads) {
        int64_t begin = r.first;
        const int64_t end = r.first + r.second;
        // Skip what is already here.
        while (begin < end && covered(begin)) {
            auto it = std::prev(have.upper_bound(begin));
            begin = std::min(end, it->second);
        }
        if (begin >= end) continue;
        if (begin != streamEnd) {
            const double gapCost = begin > streamEnd && streamEnd >= 0
                                       ? static_cast<double>(begin - streamEnd) * secondsPerByte
                                       : 1e9;
            if (streamEnd >= 0) {
                if (gapCost < rttSeconds) {
                    extra += gapCost;
                } else {
                    extra += rttSeconds;
                    n.jumps += 1;
                }
            }
        }
        // Merge [begin, end).
        int64_t lo = begin, hi = end;
        auto it = have.lower_bound(lo);
        if (it != have.begin() && std::prev(it)->second >= lo) --it;
        while (it != have.end() && it->first <= hi) {
            lo = std::min(lo, it->first);
            hi = std::max(hi, it->second);
            it = have.erase(it);
        }
        have[lo] = hi;
        streamEnd = end;
    }
    for (const auto& h : have) n.distinctBytes += static_cast<double>(h.second - h.first);
    n.seconds = extra + n.distinctBytes * secondsPerByte;
    // Or everything from the first byte read to the last in one request,
    // when that is less.
    if (!have.empty()) {
        const double span = static_cast<double>(std::prev(have.end())->second - have.begin()->first);
        if (2 * rttSeconds + span * secondsPerByte < n.seconds) {
            n.seconds = 2 * rttSeconds + span * secondsPerByte;
            n.distinctBytes = span;
            n.jumps = 0;
        }
    }
    return n;
}

// --- The work -----------------------------------------------------------------------------

enum class Reader { kHttpFile, kDownloadEngine, kHlsFile, kLibavformat, kLocal };
const char* readerName(Reader r) {
    switch (r) {
        case Reader::kHttpFile: return "HttpFile";
        case Reader::kDownloadEngine: return "download engine";
        case Reader::kHlsFile: return "HlsFile";
        case Reader::kLibavformat: return "libavformat's reader";
        default: return "local";
    }
}

// One demuxer over one reader; the pieces of work run on it.
class Demuxer {
public:
    ~Demuxer() { close(); }

    // Opens through `reader`; `path` is the local file for kLocal.
    bool open(Reader reader, const std::string& url, const std::string& path) {
        ctx_ = avformat_alloc_context();
        if (reader == Reader::kLibavformat) {
            return avformat_open_input(&ctx_, url.c_str(), nullptr, nullptr) == 0;
        }
        if (reader == Reader::kLocal) {
            source_.local = fopen(path.c_str(), "rb");
            if (source_.local == nullptr) return false;
            fseeko(source_.local, 0, SEEK_END);
            source_.localSize = ftello(source_.local);
            fseeko(source_.local, 0, SEEK_SET);
            source_.recording = true;
        } else {
            if (reader == Reader::kHttpFile) file_.reset(new velka::HttpFile(url));
            else if (reader == Reader::kHlsFile) file_.reset(new velka::HlsFile(url));
            else file_.reset(new velka::DtaFile(url));
            if (file_->open() != 0) return false;
            source_.file = file_.get();
        }
        unsigned char* buffer = static_cast<unsigned char*>(av_malloc(kIoBytes));
        io_ = avio_alloc_context(buffer, kIoBytes, 0, &source_, &io_read, nullptr, &io_seek);
        ctx_->pb = io_;
        return avformat_open_input(&ctx_, nullptr, nullptr, nullptr) == 0;
    }

    bool streamInfo() { return avformat_find_stream_info(ctx_, nullptr) >= 0 && ctx_->duration > 0; }
    int64_t duration() const { return ctx_->duration; }

    // The next packet's time in microseconds (AV_NOPTS_VALUE without one); false at the end.
    bool packet(int64_t* time) {
        AVPacket* p = av_packet_alloc();
        const bool ok = av_read_frame(ctx_, p) >= 0;
        if (ok) {
            const AVStream* st = ctx_->streams[p->stream_index];
            const int64_t pts = p->pts == AV_NOPTS_VALUE ? p->dts : p->pts;
            *time = pts == AV_NOPTS_VALUE ? AV_NOPTS_VALUE : av_rescale_q(pts, st->time_base, AV_TIME_BASE_Q);
        }
        av_packet_free(&p);
        return ok;
    }

    bool seek(int64_t target) { return av_seek_frame(ctx_, -1, target, AVSEEK_FLAG_BACKWARD) >= 0; }

    // Packets up to `until` (microseconds); false when none came.
    bool packetsUntil(int64_t until) {
        int64_t t = 0;
        bool any = false;
        for (int n = 0; n < 100000 && packet(&t); ++n) {
            any = true;
            if (t != AV_NOPTS_VALUE && t >= until) break;
        }
        return any;
    }

    Source& source() { return source_; }

    void close() {
        if (ctx_ != nullptr) avformat_close_input(&ctx_);
        ctx_ = nullptr;
        if (io_ != nullptr) {
            av_freep(&io_->buffer);
            avio_context_free(&io_);
        }
        if (file_) file_->close();
        file_.reset();
        if (source_.local != nullptr) fclose(source_.local);
        source_.local = nullptr;
    }

private:
    AVFormatContext* ctx_ = nullptr;
    AVIOContext* io_ = nullptr;
    std::unique_ptr<File> file_;
    Source source_;
};


enum class Work { kZap, kTrace, kSeek };

// Does `work` through `reader`; the timed span in *took. For kLocal the reads
// of the timed span are left in the demuxer's source.
bool doWork(Work work, Reader reader, const std::string& url, const std::string& path, double* took,
            std::vector<std::pair<int64_t, int64_t>>* reads) {
    Demuxer d;
    Clock::time_point start = Clock::now();
    if (!d.open(reader, url, path) || !d.streamInfo()) return false;
    int64_t t = 0;
    if (work == Work::kZap) {
        if (!d.packet(&t)) return false;
    } else if (work == Work::kTrace) {
        for (int64_t target : traceTargets(d.duration())) {
            if (!d.seek(target) ||
                !d.packetsUntil(target + static_cast<int64_t>(kReadAfterSeekSeconds * AV_TIME_BASE))) {
                return false;
            }
        }
    } else {
        // Playing: packets no faster than their times say.
        const Clock::time_point playing = Clock::now();
        int64_t first = AV_NOPTS_VALUE;
        while (seconds(Clock::now() - playing) < kPlayBeforeSeekSeconds) {
            if (!d.packet(&t)) return false;
            if (t == AV_NOPTS_VALUE) continue;
            if (first == AV_NOPTS_VALUE) first = t;
            const double ahead = static_cast<double>(t - first) / 1e6 - seconds(Clock::now() - playing);
            if (ahead > 0 && reader != Reader::kLocal) {
                std::this_thread::sleep_for(std::chrono::duration<double>(std::min(ahead, 0.5)));
            }
            if (reader == Reader::kLocal && static_cast<double>(t - first) / 1e6 >= kPlayBeforeSeekSeconds) {
                break;
            }
        }
        d.source().reads.clear();
        start = Clock::now();
        const int64_t target = static_cast<int64_t>(kPlayingSeekShare * static_cast<double>(d.duration()));
        if (!d.seek(target)) return false;
        for (int n = 0; n < 100000; ++n) {
            if (!d.packet(&t)) return false;
            if (t != AV_NOPTS_VALUE && t >= target - 2 * AV_TIME_BASE) break;
        }
    }
    *took = seconds(Clock::now() - start);
    if (reads != nullptr) *reads = d.source().reads;
    return true;
}

bool makeClips(const std::string& dir, int clipSeconds) {
    const std::string d = std::to_string(clipSeconds);
    const std::string base = "ffmpeg -nostdin -hide_banner -loglevel error -y ";
    const std::string encode = base + "-f lavfi -i testsrc2=size=1280x720:rate=25:duration=" + d +
                               " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=" + d +
                               " -c:v mpeg4 -b:v 2M -minrate 2M -maxrate 2M -bufsize 1M -g 50"
                               " -c:a aac -b:a 128k '" + dir + "/index-at-end.mp4'";
    const std::string front = base + "-i '" + dir + "/index-at-end.mp4' -c copy -movflags +faststart '" +
                              dir + "/index-at-front.mp4'";
    // The video's headers go in front of every key frame, as a broadcast
    // stream carries them: a decoder can start there.
    const std::string ts = base + "-i '" + dir + "/index-at-end.mp4' -c copy -bsf:v dump_extra -f mpegts '" +
                           dir + "/clip.ts'";
    // The MPEG-TS in 2 s segments with a video-on-demand playlist.
    const std::string hls = "mkdir -p '" + dir + "/hls' && " + base + "-i '" + dir +
                            "/clip.ts' -c copy -f hls -hls_time 2 -hls_playlist_type vod '" + dir +
                            "/hls/clip.m3u8'";
    return system(encode.c_str()) == 0 && system(front.c_str()) == 0 && system(ts.c_str()) == 0 &&
           system(hls.c_str()) == 0;
}

struct Link {
    double mbps;
    int rttMs;
};

struct Figures {
    std::vector<double> time, megabytes, requests;
};

// The requests nginx logged since `before`, once the connections have ended.
size_t requestsSince(const NginxServer& server, size_t before) {
    size_t count = server.waitForRequests(before + 1).size();
    // A connection closed a moment ago is logged a moment later.
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const size_t now = server.requests().size();
        if (now == count && i >= 4) break;
        count = now;
    }
    return count - before;
}

// Runs `work` (which stores its timed span) once and adds its time, the MB
// that crossed the link and the requests nginx answered to `f`.
bool measure(const NginxServer& server, const LinkEmulator& emulator, Figures* f,
             const std::function<bool(double*)>& work) {
    const size_t before = server.requests().size();
    const uint64_t bytesBefore = emulator.bytesToClients();
    double took = 0;
    if (!work(&took)) return false;
    f->time.push_back(took);
    f->requests.push_back(static_cast<double>(requestsSince(server, before)));
    f->megabytes.push_back(static_cast<double>(emulator.bytesToClients() - bytesBefore) / 1e6);
    return true;
}

// Zap on the MPEG-TS clip served as HLS: HlsFile beside FFmpeg's own HLS
// demuxer. The limit: the bytes the same zap reads from the start of the
// single file (its jump to the end for the duration left out: the playlist
// tells it), after a round trip for the connection and one each for the
// playlist and the first segment, with the playlist's bytes.
bool hlsZapLimit(const NginxServer& server, const Link& link, double* limit, double* distinctBytes) {
    const double rtt = link.rttMs / 1000.0;
    double unused = 0;
    std::vector<std::pair<int64_t, int64_t>> reads, prefix;
    if (!doWork(Work::kZap, Reader::kLocal, "", server.rootFile("clip.ts"), &unused, &reads)) return false;
    for (const auto& r : reads) {
        if (!prefix.empty() && r.first != prefix.back().first + prefix.back().second) break;
        prefix.push_back(r);
    }
    std::ifstream playlist(server.rootFile("hls/clip.m3u8"), std::ios::binary | std::ios::ate);
    const double playlistBytes = static_cast<double>(playlist.tellg());
    const Need n = need(prefix, link.mbps, rtt);
    *limit = n.seconds + rtt + playlistBytes * 8 / (link.mbps * 1e6);
    *distinctBytes = n.distinctBytes + playlistBytes;
    return true;
}

bool zapHls(const NginxServer& server, LinkEmulator& emulator, const Link& link, const Settings& s) {
    const double rtt = link.rttMs / 1000.0;
    double limit = 0, distinct = 0;
    if (!hlsZapLimit(server, link, &limit, &distinct)) return false;
    const Reader readers[] = {Reader::kHlsFile, Reader::kLibavformat};
    Figures f[2];
    for (int run = 0; run < s.runs; ++run) {
        for (int i = 0; i < 2; ++i) {
            if (!measure(server, emulator, &f[i], [&](double* took) {
                    return doWork(Work::kZap, readers[i], emulator.url("hls/clip.m3u8"), "", took, nullptr);
                })) {
                fprintf(stderr, "velka-bench-link: zap of hls/clip.m3u8 through %s failed\n",
                        readerName(readers[i]));
                return false;
            }
        }
    }
    say("  %-5s %-18s limit %6.3f s (%.2f MB distinct, 3 requests)", "zap", "hls/clip.m3u8", limit,
        distinct / 1e6);
    for (int i = 0; i < 2; ++i) {
        say("        %-22s %-24s s %-22s MB %-14s req", readerName(readers[i]), figure(f[i].time, 0, 3).c_str(),
            figure(f[i].megabytes, 0, 2).c_str(), figure(f[i].requests, 0, 0).c_str());
    }
    const double ours = stats(f[0].time).median;
    say("        HlsFile/libavformat %.2f   HlsFile/limit %.2f   HlsFile - limit %+.1f round trips",
        ours / stats(f[1].time).median, ours / limit, (ours - limit) / rtt);
    return true;
}

#ifdef VELKA_BENCH_PLAYER
// Zap through the player with the library's network stack (HttpFile, HlsFile
// for a playlist): open() to the first picture the software engine presents.
bool playerZap(velka::MediaPlayer& player, const std::string& url, double* took) {
    mtkpb::control::reset();
    const Clock::time_point start = Clock::now();
    bool shown = player.open(url) == velka::kStatusOk && player.play(0) == velka::kStatusOk &&
                 mtkpb::control::waitUntil([] { return !mtkpb::control::presented().empty(); }, 60000);
    *took = seconds(Clock::now() - start);
    player.stop();
    player.close();
    return shown;
}

// The same through libavformat's own HTTP reader (and HLS demuxer): the
// stream information, then video packets until the first picture decodes.
bool ffmpegZap(const std::string& url, double* took) {
    const Clock::time_point start = Clock::now();
    AVFormatContext* ctx = nullptr;
    AVCodecContext* decoder = nullptr;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    bool shown = false;
    if (avformat_open_input(&ctx, url.c_str(), nullptr, nullptr) == 0 &&
        avformat_find_stream_info(ctx, nullptr) >= 0) {
        const int video = av_find_best_stream(ctx, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        const AVCodec* codec = video >= 0 ? avcodec_find_decoder(ctx->streams[video]->codecpar->codec_id) : nullptr;
        if (codec != nullptr && (decoder = avcodec_alloc_context3(codec)) != nullptr &&
            avcodec_parameters_to_context(decoder, ctx->streams[video]->codecpar) >= 0 &&
            avcodec_open2(decoder, codec, nullptr) == 0) {
            for (int n = 0; n < 10000 && !shown && av_read_frame(ctx, packet) >= 0; ++n) {
                if (packet->stream_index == video && avcodec_send_packet(decoder, packet) >= 0) {
                    shown = avcodec_receive_frame(decoder, frame) >= 0;
                }
                av_packet_unref(packet);
            }
        }
    }
    *took = seconds(Clock::now() - start);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    if (ctx != nullptr) avformat_close_input(&ctx);
    return shown;
}

// Each clip's limit is the demuxer zap's: the first picture needs at least
// the stream information and the first packet.
bool zapThroughThePlayer(const NginxServer& server, LinkEmulator& emulator, const Link& link, const Settings& s) {
    const double rtt = link.rttMs / 1000.0;
    velka::FileFactory::useLibraryNetworkStack();
    velka::MediaPlayer player;
    for (const char* clip : {"index-at-front.mp4", "index-at-end.mp4", "clip.ts", "hls/clip.m3u8"}) {
        const bool hls = strstr(clip, ".m3u8") != nullptr;
        double limit = 0, distinct = 0;
        if (hls) {
            if (!hlsZapLimit(server, link, &limit, &distinct)) return false;
        } else {
            double unused = 0;
            std::vector<std::pair<int64_t, int64_t>> reads;
            if (!doWork(Work::kZap, Reader::kLocal, "", server.rootFile(clip), &unused, &reads)) return false;
            const Need n = need(reads, link.mbps, rtt);
            limit = n.seconds;
            distinct = n.distinctBytes;
        }
        const char* names[] = {hls ? "player, HlsFile" : "player, HttpFile", "libavformat + decoder"};
        Figures f[2];
        for (int run = 0; run < s.runs; ++run) {
            for (int i = 0; i < 2; ++i) {
                if (!measure(server, emulator, &f[i], [&](double* took) {
                        return i == 0 ? playerZap(player, emulator.url(clip), took)
                                      : ffmpegZap(emulator.url(clip), took);
                    })) {
                    fprintf(stderr, "velka-bench-link: no picture of %s through %s\n", clip, names[i]);
                    return false;
                }
            }
        }
        say("  %-5s %-18s limit %6.3f s (%.2f MB distinct)", "play", clip, limit, distinct / 1e6);
        for (int i = 0; i < 2; ++i) {
            say("        %-22s %-24s s %-22s MB %-14s req", names[i], figure(f[i].time, 0, 3).c_str(),
                figure(f[i].megabytes, 0, 2).c_str(), figure(f[i].requests, 0, 0).c_str());
        }
        const double ours = stats(f[0].time).median;
        say("        player/libavformat %.2f   player/limit %.2f   player - limit %+.1f round trips",
            ours / stats(f[1].time).median, ours / limit, (ours - limit) / rtt);
    }
    return true;
}
#endif

bool runLink(const NginxServer& server, const Link& link, const Settings& s) {
    LinkEmulator emulator;
    LinkEmulator::Options options;
    options.megabitsPerSecond = link.mbps;
    options.roundTripMs = link.rttMs;
    std::string why;
    if (!emulator.start(server.port(), options, &why)) {
        fprintf(stderr, "velka-bench-link: %s\n", why.c_str());
        return false;
    }
    const double rtt = link.rttMs / 1000.0;
    say("%s", "");
    say("link %.0f Mbit/s, %d ms round trip: seconds, MB across the link, requests; "
        "ratios of medians", link.mbps, link.rttMs);
    const std::pair<Work, const char*> works[] = {
        {Work::kZap, "zap"}, {Work::kTrace, "trace"}, {Work::kSeek, "seek"}};
    for (const auto& w : works) {
        if (!s.only.empty() && s.only != w.second) continue;
        for (const char* clip : {"index-at-front.mp4", "index-at-end.mp4", "clip.ts"}) {
            const std::string path = server.rootFile(clip);
            double unused = 0;
            std::vector<std::pair<int64_t, int64_t>> reads;
            if (!doWork(w.first, Reader::kLocal, "", path, &unused, &reads)) return false;
            const Need n = need(reads, link.mbps, rtt);
            std::vector<Reader> readers = {Reader::kHttpFile, Reader::kLibavformat};
            if (w.first == Work::kZap) readers.insert(readers.begin() + 1, Reader::kDownloadEngine);
            std::vector<Figures> f(readers.size());
            for (int run = 0; run < s.runs; ++run) {
                for (size_t i = 0; i < readers.size(); ++i) {
                    if (!measure(server, emulator, &f[i], [&](double* took) {
                            return doWork(w.first, readers[i], emulator.url(clip), path, took, nullptr);
                        })) {
                        fprintf(stderr, "velka-bench-link: %s of %s through %s failed\n", w.second, clip,
                                readerName(readers[i]));
                        return false;
                    }
                }
            }
            say("  %-5s %-18s limit %6.3f s (%.2f MB distinct, %d jumps)", w.second, clip, n.seconds,
                n.distinctBytes / 1e6, n.jumps);
            for (size_t i = 0; i < readers.size(); ++i) {
                say("        %-22s %-24s s %-22s MB %-14s req", readerName(readers[i]),
                    figure(f[i].time, 0, 3).c_str(), figure(f[i].megabytes, 0, 2).c_str(),
                    figure(f[i].requests, 0, 0).c_str());
            }
            const double ours = stats(f[0].time).median;
            const double theirs = stats(f.back().time).median;
            say("        HttpFile/libavformat %.2f   HttpFile/limit %.2f   HttpFile - limit %+.1f round trips",
                ours / theirs, ours / n.seconds, (ours - n.seconds) / rtt);
        }
        if (w.first == Work::kZap && !zapHls(server, emulator, link, s)) return false;
    }
#ifdef VELKA_BENCH_PLAYER
    if ((s.only.empty() || s.only == "play") && !zapThroughThePlayer(server, emulator, link, s)) return false;
#endif
    return true;
}

}  // namespace

extern "C" void velka_log_setup(void) { velka::tools::holdLibraryLines(); }

int main(int argc, char** argv) {
    Settings s;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            s.runs = 1;
            s.clipSeconds = 12;
            s.slowLink = false;
        } else if (arg == "--seconds" && i + 1 < argc) {
            s.clipSeconds = std::max(4, atoi(argv[++i]));
        } else if (arg == "--runs" && i + 1 < argc) {
            s.runs = std::max(1, atoi(argv[++i]));
        } else if (arg == "--only" && i + 1 < argc) {
            s.only = argv[++i];
        } else if (arg == "--log" && i + 1 < argc) {
            s.logPath = argv[++i];
        } else {
            fputs(kUsage, arg == "--help" ? stdout : stderr);
            return arg == "--help" ? 0 : 2;
        }
    }
    FILE* log = nullptr;
    if (!s.logPath.empty() && (log = fopen(s.logPath.c_str(), "we")) == nullptr) {
        fprintf(stderr, "velka-bench-link: cannot write the log %s\n", s.logPath.c_str());
        return 2;
    }
    velka::tools::routeLibraryLines(log);
    av_log_set_level(AV_LOG_QUIET);
    avformat_network_init();

    const Clock::time_point start = Clock::now();
    NginxServer server;
    std::string why;
    if (!server.start(&why)) {
        fprintf(stderr, "velka-bench-link: %s\n", why.c_str());
        return 1;
    }
    if (!makeClips(server.rootFile(""), s.clipSeconds)) {
        fprintf(stderr, "velka-bench-link: ffmpeg could not make the clips\n");
        return 1;
    }
    say("velka-bench-link: 2 Mbit/s clips of %d s; medians of %d interleaved runs [min..max]",
        s.clipSeconds, s.runs);
    for (const Link& link : {Link{20, 40}, Link{8, 100}}) {
        if (link.mbps < 20 && !s.slowLink) continue;
        if (!runLink(server, link, s)) return 1;
    }
    say("%s", "");
    say("whole run %.0f s", seconds(Clock::now() - start));
    avformat_network_deinit();
    return 0;
}
