// Decoder clients and the service: the client type msg (every refusal closes the connection with
// its log line and leaves nothing open behind), doorbells and sync msgs (a long doorbell, clients
// that go away at any moment), the output area behind a picture, and the requests of the exchange
// block: what each answers without a decoder, the limits of every size a client gives, the
// requests that end the worker, and the order in which a decoder's objects are released. (One
// session client per service: service_test.)

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "protocol/ffmpeg_protocol.h"
#include "client/decoder_seam.h"
#include "support/support.h"

using namespace mediaclient;
using namespace mediaclient::protocol;

namespace {

constexpr int kWaitMs = 10000;
constexpr const char* kPurge = "cleaning disconnected and/or error decoder clients";
constexpr const char* kNoDecoder = "decoder context not initialized!!";
const ExchangeResult kMarker{7, 0, 1234, 0, 987654321};

bool same(const ExchangeResult& a, const ExchangeResult& b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

const Clip& mp2() {
    return clip("requests.mp2", "-f lavfi -i sine=sample_rate=44100 -ac 2 -t 0.5 -c:a mp2", false);
}
const Clip& h264() {
    return clip("requests.h264",
                "-f lavfi -i testsrc=size=64x48 -frames:v 4 -c:v libx264 -tune zerolatency");
}

// A daemon whose system log is copied into its log, and a registered client of it.
class Requests : public ::testing::Test {
  public:
    void SetUp() override {
        daemon.options().env["SVC_TEST_JOURNAL"] = "1";
        ASSERT_TRUE(daemon.start());
        // These cases are the service's own answers, also to what the library would refuse.
        DecoderClientSeam::check_requests(c, false);
        ASSERT_EQ(c.connect_posix(daemon.socket_path()), ClientError::kOk);
    }

    // Sends the request just written (`written`: the writer's answer) with the marker in the
    // result area; the result.
    ExchangeResult call(ClientError written) {
        EXPECT_EQ(written, ClientError::kOk);
        DecoderClientSeam::set_result(c, kMarker);
        EXPECT_EQ(c.call(kWaitMs), ClientError::kOk);
        return c.result();
    }
    // The same after the request's 32-bit size at `offset` is overwritten with `size`.
    ExchangeResult call(ClientError written, size_t offset, int32_t size) {
        memcpy(c.block() + offset, &size, sizeof(size));
        return call(written);
    }
    bool init(const Clip& s) {
        return (s.info.video ? set_up(c, s, 64, 48, 0) : set_up(c, s, 1, 2, 44100)) == STATUS_OK;
    }
    // A new connection for `c`, after a request that ended its worker.
    void reconnect() {
        c.close();
        ASSERT_EQ(c.connect_posix(daemon.socket_path()), ClientError::kOk);
    }
    // Another registered client whose first request has been answered.
    std::unique_ptr<DecoderClient> client(bool posix = true) {
        auto other = std::make_unique<DecoderClient>();
        EXPECT_EQ(posix ? other->connect_posix(daemon.socket_path())
                        : other->connect_descriptor(daemon.socket_path()),
                  ClientError::kOk);
        EXPECT_EQ(other->flush(kWaitMs), ClientError::kOk);
        return other;
    }

    Daemon daemon;
    DecoderClient c;
};
// Doorbells and sync msgs, with more clients where a case needs them.
class Channel : public Requests {};
class Handshake : public Requests {};

// A doorbell of 300 bytes is one doorbell: one execution, one sync msg.
TEST_F(Channel, LongDoorbellCountsOnce) {
    auto other = client();
    ASSERT_EQ(DecoderClientSeam::ring(*other, 300), ClientError::kOk);
    EXPECT_EQ(other->wait_sync(kWaitMs), ClientError::kOk);
    EXPECT_EQ(other->wait_sync(300), ClientError::kTimeout);
    EXPECT_EQ(daemon.count("flush decoder"), 2u);
}

// A client that closes while its worker decodes is removed once the worker is done with the
// request; two workers that end while the accepting process is held back by SIGSTOP are removed
// in one loop iteration. The clients left are served as before, the one that came after the first
// was removed too (its handle likely takes the removed one's memory: a purge list that kept the
// removed handle would drop it).
TEST_F(Channel, ClientsGoneAreRemoved) {
    const Clip& big = clip("busy.mkv", "-f lavfi -i testsrc=size=3840x2160 -frames:v 1 -c:v mpeg4");
    auto other = client(false), first = client(), second = client(false);
    const size_t workers = worker_pids(daemon.pid()).size();
    auto busy = client();
    ASSERT_EQ(set_up(*busy, big, 2560, 1440, 2), STATUS_OK);
    const auto& packet = big.packets[0].data;
    ASSERT_EQ(busy->write_decode_frame(packet.data(), packet.size(), 0), ClientError::kOk);
    ASSERT_EQ(busy->ring(), ClientError::kOk);
    ASSERT_TRUE(daemon.wait_log("decode frame"));  // the worker took the request
    busy.reset();
    EXPECT_TRUE(daemon.wait_log(kPurge));
    const auto count_is = [&](size_t n) { return worker_pids(daemon.pid()).size() == n; };
    EXPECT_TRUE(wait_until(kWaitMs, [&] { return count_is(workers); }));
    auto newcomer = client(false);

    daemon.signal(SIGSTOP);
    first.reset();
    second.reset();
    EXPECT_TRUE(daemon.wait_log(kPurge, 3));  // the workers end on their own
    daemon.signal(SIGCONT);
    EXPECT_TRUE(daemon.wait_log("decoder client disconnected", 3));
    ASSERT_TRUE(daemon.barrier());
    EXPECT_TRUE(wait_until(kWaitMs, [&] { return count_is(workers - 1); }));
    EXPECT_EQ(other->flush(kWaitMs), ClientError::kOk);
    EXPECT_EQ(newcomer->flush(kWaitMs), ClientError::kOk);
}

// Behind a picture the output area reads as zero, whatever the client left there and however
// large the picture before was, in blocks of both types; where the kernel refuses to release
// pages (made to by the test hooks, as a sealed object or a guarded block would), the service
// must write the zeros itself.
TEST(OutputClear, PastThePictureTheAreaReadsZero) {
    // Annex B: the parameter sets travel in band, so a reset decoder, which gets no configuration
    // bytes again, decodes the stream from its start.
    const Clip& s = clip("clear.h264", "-f lavfi -i testsrc=size=160x120 -frames:v 8 -c:v libx264");
    for (const std::string block : {"posix", "descriptor", "refused"}) {
        SCOPED_TRACE(block);
        Daemon daemon;
        daemon.options().env["SVC_TEST_REFUSE_PAGE_RELEASE"] = block == "refused" ? "1" : "";
        ASSERT_TRUE(daemon.start());
        DecoderClient c;
        ASSERT_EQ(block == "posix" ? c.connect_posix(daemon.socket_path())
                                   : c.connect_descriptor(daemon.socket_path()),
                  ClientError::kOk);
        ASSERT_EQ(set_up(c, s, 320, 240, 0, false), STATUS_OK);
        for (auto [w, h] : {std::pair(320u, 240u), {160u, 120u}}) {
            if (w == 160) {
                ASSERT_EQ(c.reset_video(160, 120, 0, kWaitMs), ClientError::kOk);
            }
            uint8_t* out = c.block() + SHM_OUTPUT_OFFSET;
            memset(out, 0xa5, SHM_AREA_SIZE);
            EXPECT_GT(decode_packets(c, s).outputs, 0u);
            const uint32_t size = w * h * 3 / 2;
            ASSERT_EQ(c.result().output_size, size);
            EXPECT_FALSE(std::all_of(out, out + size, [](uint8_t b) { return b == 0xa5; }));
            EXPECT_EQ(std::count(out + size, out + SHM_AREA_SIZE, 0), SHM_AREA_SIZE - size);
        }
    }
}

// Every client type msg the service cannot take closes the connection with a log line that says
// why; a hundred rounds of them leave no descriptor or thread behind.
TEST_F(Handshake, RefusalsAreLoggedAndLeaveNothingOpen) {
    ScopedShm small(SHM_BLOCK_SIZE - 4096);  // larger than any one area, smaller than the block
    // Another object of the user's, which a client names while it passes its own: never touched.
    ScopedShm other(SHM_BLOCK_SIZE);
    ASSERT_EQ(pwrite(other.fd, "untouched", 9, SHM_RESULT_OFFSET), 9);
    UniqueFd null_fd(open("/dev/null", O_RDONLY | O_CLOEXEC)), region(make_memfd(SHM_BLOCK_SIZE));
    UniqueFd small_region(make_memfd(4096));
    UniqueFd plain(
        open((daemon.runtime_dir() + "/plain").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(ftruncate(plain.get(), SHM_BLOCK_SIZE), 0);
    const int n = null_fd.get(), r = region.get();
    const std::string malformed = "malformed control msg received",
                      unknown = "unknown client type message received",
                      none = "no ashmem file descriptor or posix shared memory descriptor sent",
                      not_opened = "shared memory object open failed: [",
                      failed = "decoder instance create failed";
    const struct {
        uint8_t type;
        std::string shm_name;
        std::vector<int> fds;
        std::string line;
        const char* level = "ERROR";
    } cases[] = {
        // Credentials alone, or with three descriptors: the control data arrives cut.
        {CLIENT_TYPE_SESSION, "", {}, malformed},
        {CLIENT_TYPE_ASHMEM_DECODER, "", {r, n, n}, malformed},
        // Two descriptors pass the length check but count as none.
        {CLIENT_TYPE_ASHMEM_DECODER, "", {r, r}, none},
        {0, "", {n}, unknown},
        {255, "", {n}, unknown},
        {CLIENT_TYPE_SHM_DECODER, "", {r}, not_opened},  // libc's errno
        {CLIENT_TYPE_SHM_DECODER, other.name + "-missing", {r}, not_opened + "2] No such file"},
        {CLIENT_TYPE_SHM_DECODER, other.name, {r}, not_opened + "13] Permission denied"},
        {CLIENT_TYPE_SHM_DECODER, other.name, {n}, not_opened + "13] Permission denied"},
        // A real object of the user's, on the same file system as the one it names.
        {CLIENT_TYPE_SHM_DECODER, other.name, {small.fd}, not_opened + "13] Permission denied"},
        {CLIENT_TYPE_ASHMEM_DECODER, "", {plain.get()}, failed},  // a plain file is no region
        {CLIENT_TYPE_SHM_DECODER, small.name, {small.fd}, failed},
        {CLIENT_TYPE_ASHMEM_DECODER, "", {small_region.get()}, failed},
        {0, "", {r}, "client disconnected: ", "INFO"},  // an empty record, sent as such below
    };
    // Each refusal with its own line: another case's line must not stand in for it.
    auto run_all = [&](bool check) {
        for (const auto& e : cases) {
            SCOPED_TRACE(&e - cases);
            const size_t logged = check ? daemon.log().size() : 0;
            UniqueFd fd(connect_service(daemon.socket_path()));
            ASSERT_GE(&e == std::end(cases) - 1
                          ? send_record(fd.get(), nullptr, 0, e.fds.data(), 1, nullptr)
                          : send_type_msg(fd.get(), e.type, e.shm_name, e.fds),
                      0);
            EXPECT_TRUE(wait_closed(fd.get(), kWaitMs));
            EXPECT_TRUE(!check || log_has(daemon.log().substr(logged), e.level, e.line))
                << "no " << e.level << " " << e.line;
        }
    };
    // Refused after registration, a client's worker ends on its own; the control connection goes
    // when it is reaped. The fixture's client keeps its own.
    ASSERT_EQ(c.flush(kWaitMs), ClientError::kOk);
    const auto settled = [&] {
        return wait_until(kWaitMs, [&] { return worker_pids(daemon.pid()).size() == 1; }) &&
               daemon.barrier();
    };
    run_all(true);
    ASSERT_TRUE(settled());
    // Whatever the service opens once is open by now; a hundred more rounds leave no more.
    const ProcStat before = proc_stat(daemon.pid());
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        run_all(false);
    }
    ASSERT_TRUE(settled());
    EXPECT_TRUE(wait_until(3000, [&] { return proc_stat(daemon.pid()).fds == before.fds; }))
        << proc_stat(daemon.pid()).fds << " descriptors, " << before.fds << " before";
    EXPECT_EQ(proc_stat(daemon.pid()).threads, before.threads);
    char content[16] = {};
    EXPECT_EQ(pread(other.fd, content, sizeof(content), SHM_RESULT_OFFSET), 16);
    EXPECT_STREQ(content, "untouched");
}

// Without a decoder a decode answers all zero whatever its size (and says why), while flush,
// configuration bytes and destroy leave the result area alone and reset zeroes it. "Without a
// decoder" is: before any setup, after destroy, and after a reset whose setup failed (Vorbis and
// VC-1 cannot be opened again without their configuration bytes).
TEST_F(Requests, WithoutDecoder) {
    const Clip& vorbis = clip(
        "requests.ogg", "-f lavfi -i sine=sample_rate=44100 -ac 2 -t 0.5 -c:a libvorbis", false);
    Clip vc1;  // a sequence header (176x144, other fields zero) and an entry point (all zero)
    vc1.info.video = true, vc1.info.codec_name = "vc1", vc1.info.pix_fmt = 0;
    vc1.info.extradata = {0, 0, 1, 0x0f, 0xc2, 0, 0x05, 0x70, 0x47, 0x08, 0, 0, 1, 0x0e, 0, 0};
    // Decodes of `sizes` answered all zero, then the other requests.
    auto answers_without_decoder = [&](const std::vector<int32_t>& sizes) {
        const size_t said = daemon.count(kNoDecoder);
        for (int32_t size : sizes) {
            const ClientError w = c.write_decode_frame("garbage garbage!", 16, 42);
            EXPECT_TRUE(same(call(w, REQ_DATA_SIZE_OFFSET, size), ExchangeResult{}));
        }
        EXPECT_EQ(daemon.count(kNoDecoder), said + sizes.size());
        for (uint32_t type : {REQUEST_FLUSH, REQUEST_CODEC_CONFIG, REQUEST_DESTROY_CONTEXT}) {
            ASSERT_EQ(c.write_codec_config("abcd", 4), ClientError::kOk);
            EXPECT_TRUE(same(call(c.write_request_type(type)), kMarker)) << type;
        }
        EXPECT_TRUE(same(call(c.write_reset_audio(1, 2, 44100)), ExchangeResult{}));
    };
    // Checked, the library refuses what only a decoder answers; a success clears its text.
    DecoderClientSeam::check_requests(c, true);
    EXPECT_EQ(c.decode_frame("x", 1, 0), ClientError::kInvalidArgument);
    EXPECT_EQ(c.last_error_text(),
              "decode frame: no decoder on this connection (init_video() or init_audio() first)");
    EXPECT_EQ(c.flush(kWaitMs), ClientError::kOk);
    EXPECT_EQ(c.last_error_text(), "");
    DecoderClientSeam::check_requests(c, false);
    answers_without_decoder({16, 0, -1});
    ASSERT_TRUE(init(mp2()));
    ASSERT_EQ(c.destroy(kWaitMs), ClientError::kOk);
    answers_without_decoder({16, 0, -1});
    for (const Clip* s : {&vorbis, &std::as_const(vc1)}) {
        SCOPED_TRACE(s->info.codec_name);
        ASSERT_TRUE(init(*s));
        decode_packets(c, *s);
        EXPECT_TRUE(same(
            call(s->info.video ? c.write_reset_video(64, 48, 0) : c.write_reset_audio(1, 2, 44100)),
            ExchangeResult{}));
        EXPECT_TRUE(log_has(daemon.log(), "ERROR", "decoder open failed"));
        // The failed reset leaves the decoder state, so sizes are still checked.
        answers_without_decoder({16});
    }
}

// After destroy while a state of the other media type is still held, no media type is in use: a
// decode writes nothing at all and touches no released packet; the worker goes on serving.
TEST_F(Requests, DestroyWhileTheOtherMediaTypeIsHeld) {
    ASSERT_TRUE(init(h264()));
    ASSERT_TRUE(init(mp2()));
    ASSERT_EQ(c.destroy(kWaitMs), ClientError::kOk);
    const auto& p = mp2().packets[0].data;
    EXPECT_TRUE(same(call(c.write_decode_frame(p.data(), p.size(), 9)), kMarker));
    EXPECT_EQ(daemon.count(kNoDecoder), 0u);
    ASSERT_TRUE(init(mp2()));
    EXPECT_GT(decode_packets(c, mp2()).outputs, 0u);
}

// Every size a client gives is checked against the area it describes: a packet beyond the input
// area fails and feeds nothing to the decoder; configuration bytes beyond it change nothing; a
// picture of exactly the output area is delivered, one byte more fails, and so do outputs that
// cannot be made at all; configuration bytes beyond the input area fail a setup.
TEST_F(Requests, SizeLimits) {
    ASSERT_TRUE(init(mp2()));
    const int32_t area = static_cast<int32_t>(SHM_AREA_SIZE);
    for (int32_t size : {0, -1, INT_MIN, area + 1, INT_MAX}) {
        const ExchangeResult r =
            call(c.write_decode_frame(nullptr, 0, 5), REQ_DATA_SIZE_OFFSET, size);
        EXPECT_EQ(r.status, STATUS_FAILED) << size;
        EXPECT_EQ(r.output_size, 0u);
    }
    EXPECT_EQ(daemon.count("wrong packet size passed"), 5u);
    EXPECT_EQ(daemon.count("decoding audio frame"), 0u);
    // A packet may fill the whole area.
    call(c.write_decode_frame(nullptr, 0, 5), REQ_DATA_SIZE_OFFSET, area);
    EXPECT_EQ(daemon.count("decoding audio frame"), 1u);
    for (int32_t size : {0, -4, area + 1}) {
        const ClientError w = c.write_codec_config(nullptr, 0);
        EXPECT_TRUE(same(call(w, REQ_DATA_SIZE_OFFSET, size), kMarker)) << size;
    }
    EXPECT_EQ(decode_packets(c, mp2(), 0, 1).outputs, 1u);

    const Clip& v = h264();
    // Gray8: of these sizes only 4096x4096 fits the area, exactly.
    for (auto [w, h] : {std::pair(4096, 4096), {4097, 4096}, {0, 0}, {-16, 16}}) {
        const int32_t status = w == 4096 && h == 4096 ? STATUS_OK : STATUS_FAILED;
        ASSERT_EQ(set_up(c, v, w, h, 8), STATUS_OK);
        const auto& p = v.packets[0].data;
        const ExchangeResult r = call(c.write_decode_frame(p.data(), p.size(), 5));
        EXPECT_EQ(r.status, status) << w << "x" << h;
        EXPECT_EQ(r.output_size, status == STATUS_OK ? SHM_AREA_SIZE : 0u);
    }
    EXPECT_EQ(daemon.count("output image size overflow!!"), 1u);
    EXPECT_GE(daemon.count("cannot initialize convertion context"), 2u);
    // The errors reach the journal too, with the client's number, pid and codec as fields: a
    // burst of five of its lines, then one every ten seconds, so that a client cannot flood it.
    // The hardware trial's failures are no client's: each device's outcome is told once.
    std::smatch client;
    const std::string log = daemon.log();
    ASSERT_TRUE(std::regex_search(log, client, std::regex("client connect: sock#\\[(\\d+)\\]")));
    const std::string n = client[1].str(), pid = std::to_string(getpid());
    const std::string line = "3 [media decoder] client " + n +
                             " (mp2): wrong packet size passed\tCLIENT=" + n +
                             "\tCLIENT_PID=" + pid + "\tCODEC=mp2\n";
    EXPECT_TRUE(wait_until(kWaitMs, [&] { return occurrences(daemon.system_log(), line) == 5; }))
        << line << daemon.system_log();
    const std::string system_log = daemon.system_log();
    EXPECT_EQ(occurrences(system_log, "\tCLIENT=" + n + "\t"), 5u) << system_log;
    EXPECT_EQ(occurrences(system_log, "HW"), 0u) << system_log;
    std::istringstream lines(system_log);
    std::set<std::string> devices;
    for (std::string s; std::getline(lines, s);) {
        EXPECT_TRUE(s.find("hardware device ") == std::string::npos || devices.insert(s).second)
            << s;
    }
    EXPECT_FALSE(devices.empty()) << system_log;

    // Configuration bytes beyond the input area fail the setup (and end the worker), and so do
    // pictures beyond 16384 on a side, coded or output: refused before anything is allocated.
    const VideoInitParams sizes[] = {{8, 8, 0, 8, 8, 0},
                                     {16385, 16, 0, 64, 48, 0},
                                     {64, 48, 0, 16, 16385, 0},
                                     {16384, 16, 0, 16384, 16, 0}};
    for (const VideoInitParams& p : sizes) {
        SCOPED_TRACE(p.coded_width);
        const ExchangeResult r =
            call(c.write_init_video(v.codec_index(), p), REQ_PARAM_OFFSET + 3 * sizeof(int32_t),
                 &p == sizes ? area + 1 : 0);
        EXPECT_EQ(r.status, &p == sizes + 3 ? STATUS_OK : STATUS_FAILED);
        reconnect();
    }
    EXPECT_EQ(daemon.count("picture size refused"), 2u);
    // Each refusal is a later client's, likely on the same connection number: with an allowance
    // of its own, not the one the first client spent.
    EXPECT_TRUE(wait_until(kWaitMs, [&] {
        return occurrences(daemon.system_log(), "picture size refused") == 2;
    })) << daemon.system_log();
}

// These are answered (the result area as it was) and end the worker: later doorbells are read but
// get no sync msg (and are not executed), and the client stays registered until it leaves.
TEST_F(Requests, EndingRequests) {
    const struct {
        uint32_t type, media_type, codec_index;
        const char *level, *line;
    } cases[] = {
        {6, 0, 0, "WARN", "unknown client request type, stop further processing"},
        {REQUEST_INIT_CODEC, 0, 11, "ERROR", "unknown video codec specified"},
        {REQUEST_INIT_CODEC, 1, 12, "ERROR", "unknown audio codec specified"},
        {REQUEST_INIT_CODEC, 2, 0, "WARN", "unknown media type specified, initialization failed"},
    };
    size_t purges = daemon.count(kPurge);
    for (const auto& e : cases) {
        SCOPED_TRACE(e.line);
        ASSERT_EQ(DecoderClientSeam::write_init(c, e.media_type, e.codec_index,
                                                {64, 64, 0, 0, 64, 64, 0}),
                  ClientError::kOk);
        EXPECT_TRUE(same(call(c.write_request_type(e.type)), kMarker));
        EXPECT_TRUE(log_has(daemon.log(), e.level, e.line));
        // The worker has ended: a doorbell gets no sync msg.
        ASSERT_EQ(c.write_request_type(REQUEST_FLUSH), ClientError::kOk);
        EXPECT_EQ(c.call(300), ClientError::kTimeout);
        ASSERT_TRUE(daemon.barrier());
        EXPECT_FALSE(wait_closed(c.fd(), 0));
        reconnect();
        EXPECT_TRUE(daemon.wait_log(kPurge, ++purges));
    }
    EXPECT_EQ(daemon.count("flush decoder"), 0u);
}

// Every row of both codec tables is FFmpeg's codec of that name and is set up through the service
// without configuration bytes. Rows whose decoder needs configuration bytes (VC-1, Vorbis, ALAC),
// or values that no init request carries (COOK and WMAV2 a block alignment, APE a sample depth),
// are refused by FFmpeg: the setup fails and ends the worker, and the library says so.
TEST_F(Requests, EveryCodecRowIsFFmpegsCodec) {
    const std::vector<std::string> video = {"mpeg4", "flv1", "h264", "h263", "hevc", "mpeg2video",
                                            "rv40",  "vc1",  "vp8",  "vp9",  "wmv2"};
    const std::vector<std::string> audio = {"aac", "ac3",  "ape",    "dts",   "flac", "mp2",
                                            "mp3", "cook", "vorbis", "wmav2", "alac", "opus"};
    const std::set<std::string> refused = {"vc1", "ape", "cook", "vorbis", "wmav2", "alac"};
    for (const auto& [media_type, names] :
         {std::pair(MEDIA_TYPE_VIDEO, video), {MEDIA_TYPE_AUDIO, audio}}) {
        for (uint32_t row = 0; row < names.size(); ++row) {
            SCOPED_TRACE(names[row]);
            EXPECT_EQ(table_codec_id(media_type, row),
                      avcodec_descriptor_get_by_name(names[row].c_str())->id);
            ExchangeResult r{};
            ASSERT_EQ(media_type == MEDIA_TYPE_VIDEO
                          ? c.init_video(row, {176, 144, 0, 176, 144, 0}, nullptr, 0, &r, kWaitMs)
                          : c.init_audio(row, {AV_SAMPLE_FMT_FLTP, 2, 44100, 1, 2, 44100}, nullptr,
                                         0, &r, kWaitMs),
                      ClientError::kOk);
            EXPECT_EQ(r.status, refused.count(names[row]) ? STATUS_FAILED : STATUS_OK);
            if (refused.count(names[row])) {  // the failed init ended the worker
                EXPECT_EQ(c.flush(300), ClientError::kTimeout);
                // The library knows, and says so without waiting.
                DecoderClientSeam::check_requests(c, true);
                EXPECT_EQ(c.flush(kWaitMs), ClientError::kDisconnected);
                EXPECT_EQ(c.last_error_text(),
                          "flush: the service ended this connection's decoder when its init "
                          "failed (close() and connect again)");
                DecoderClientSeam::check_requests(c, false);
                reconnect();
            }
        }
    }
}

}  // namespace
