// The audio-processor bridge as a host pipeline sees it: what reaches its buffer, and what it
// writes to the log. Each test balances the references to the process-wide instance it takes (one
// per SonelGlobalInit, dropped by a processor's destructor or by SonelGlobalDestroy), so every
// test starts with no instance and no "default" model.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "sonel_audio_sdk/session.h"
#include "sonel_host_log.h"
#include "sonel_processor.h"
#include "utils/alloc_counter.h"

using Sonel::SonelProcessor;

namespace {

const std::string kModel = SONEL_SOURCE_DIR "/models/sonel-nc-32k.sw";

std::vector<std::string> gLines;
void captureLine(const char* line) { gLines.emplace_back(line); }

// Collects the bridge's log lines for the life of the object.
class LogCapture {
public:
    LogCapture() : previous_(sonelAudioHostSetLogSink(captureLine)) { gLines.clear(); }
    ~LogCapture() { sonelAudioHostSetLogSink(previous_); }
    const std::vector<std::string>& lines() const { return gLines; }
    void clear() { gLines.clear(); }

private:
    SonelHostLogSink previous_;
};

struct BypassOn {
    BypassOn() { SonelProcessor::SetBypassFlag(true); }
    ~BypassOn() { SonelProcessor::SetBypassFlag(false); }
};

// Noise and a tone in the host's 16-bit range.
std::vector<float> hostSignal(size_t samples, int rate, unsigned seed = 7) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, 2000.0f);
    std::vector<float> x(samples);
    for (size_t i = 0; i < samples; ++i)
        x[i] = noise(rng) + 6000.0f * static_cast<float>(std::sin(2 * M_PI * 440.0 * i / rate));
    return x;
}

// The same stream cleaned through the C interface directly, as a caller with samples in -1 ... 1.
class ReferenceStream {
public:
    explicit ReferenceStream(int rate)
        : session_(sonelAudioNcCreateSession(static_cast<SonelAudioSamplingRate>(rate),
                                             static_cast<SonelAudioSamplingRate>(rate), SONEL_AUDIO_FRAME_10MS,
                                             "default")),
          unit_(static_cast<size_t>(rate / 100)) {}
    ~ReferenceStream() { sonelAudioNcCloseSession(session_); }
    bool valid() const { return session_ != nullptr; }
    // Cleans one block in the 16-bit range in place.
    void clean(float* block) {
        for (size_t i = 0; i < unit_.size(); ++i) unit_[i] = block[i] / 32768.0f;
        const auto n = static_cast<unsigned>(unit_.size());
        ASSERT_EQ(sonelAudioNcCleanAmbientNoiseFloat(session_, unit_.data(), n, unit_.data(), n), SONEL_AUDIO_OK);
        for (size_t i = 0; i < unit_.size(); ++i) block[i] = unit_[i] * 32768.0f;
    }

private:
    void* session_;
    std::vector<float> unit_;
};

unsigned sessionFrame(const SonelProcessor& p) {
    return static_cast<SONEL::SONEL_AUDIO::SonelAudioSessionT*>(p.session())->inputFrameSize();
}

// Hands `p` ten blocks of `bands` x 160 samples that say `frames` frames each, and checks every one
// against a stream just opened on the C interface at `sessionRate`.
void expectCleanedAsAFreshStream(SonelProcessor& p, int bands, int frames, int sessionRate) {
    ReferenceStream reference(sessionRate);
    const size_t n = static_cast<size_t>(bands) * 160;
    const std::vector<float> signal = hostSignal(n * 10, sessionRate, 11);
    for (size_t start = 0; start < signal.size(); start += n) {
        std::vector<float> ours(signal.begin() + start, signal.begin() + start + n), theirs = ours;
        p.Process(bands, frames, static_cast<int>(n), ours.data());
        reference.clean(theirs.data());
        ASSERT_EQ(ours, theirs) << "block at " << start;
    }
}

}  // namespace

// The blob path, and its refusal, are the filter object's (host.filter_object).
TEST(SonelProcessor, GlobalInitFromAFileReportsInTheLog) {
    LogCapture log;
    EXPECT_EQ(SonelProcessor::SonelGlobalInit(kModel.c_str()), 0);
    EXPECT_TRUE(ReferenceStream(48000).valid()) << "the model is registered as \"default\"";
    EXPECT_EQ(SonelProcessor::SonelGlobalDestroy(), SONEL_AUDIO_OK);
    // A refused model still leaves the reference taken: the destroy that matches the init succeeds.
    EXPECT_EQ(SonelProcessor::SonelGlobalInit("/nonexistent/model.sw"), -2);
    EXPECT_EQ(SonelProcessor::SonelGlobalDestroy(), SONEL_AUDIO_OK);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"SONEL-CIT: Sonel initialized",
                                                     "SONEL-CIT: Sonel failed to set wt file /nonexistent/model.sw"}));
}

TEST(SonelProcessor, WithoutTheSdkEveryBlockPassesThrough) {
    SonelProcessor p;
    LogCapture log;
    const std::vector<float> original = hostSignal(480, 48000);
    std::vector<float> block = original;
    p.Process(3, 480, 480, block.data());
    p.Process(3, 480, 480, block.data());
    EXPECT_EQ(block, original);
    EXPECT_EQ(p.session(), nullptr);
    EXPECT_EQ(log.lines(), std::vector<std::string>(2, "SONEL-CIT: Session creation failed"));
}

TEST(SonelProcessor, BypassLeavesEveryBlockAloneAndMakesNoSession) {
    ASSERT_EQ(SonelProcessor::SonelGlobalInit(kModel.c_str()), 0);
    SonelProcessor p;
    LogCapture log;
    const std::vector<float> original = hostSignal(480, 48000);
    std::vector<float> block = original;
    {
        BypassOn bypass;
        EXPECT_TRUE(SonelProcessor::GetBypassFlag());
        p.Process(1, 441, 441, block.data());  // a rate change, were it not bypassed
        p.Process(3, 480, 480, block.data());
        EXPECT_EQ(block, original);
        EXPECT_EQ(p.session(), nullptr);
        EXPECT_EQ(p.sampleRate(), 16000);
        EXPECT_EQ(log.lines(), std::vector<std::string>(2, "SONEL-CIT: Bypassing NoiseSuppressor::Process"));
    }
    EXPECT_FALSE(SonelProcessor::GetBypassFlag());
    p.Process(3, 480, 480, block.data());
    EXPECT_NE(block, original);
}

TEST(SonelProcessor, BlockSizeSetsTheRateAndMismatchedBandsPassThrough) {
    ASSERT_EQ(SonelProcessor::SonelGlobalInit(kModel.c_str()), 0);
    SonelProcessor p;
    LogCapture log;

    // 441 frames are a 44.1 kHz stream; one band of 160 samples is not its 441-sample frame, and
    // neither are three bands (480), so the session refuses every block and the audio passes.
    const std::vector<float> original = hostSignal(480, 44100);
    std::vector<float> block = original;
    p.Process(1, 441, 441, block.data());
    ASSERT_NE(p.session(), nullptr);
    EXPECT_EQ(sessionFrame(p), 441u);
    EXPECT_EQ(p.sampleRate(), 44100);
    p.Process(3, 441, 480, block.data());
    EXPECT_EQ(block, original);
    EXPECT_EQ(log.lines(), std::vector<std::string>(2, "SONEL-CIT: Sonel noise cleanup error"));

    // Blocks of 480 frames switch to a fresh 48 kHz session, cleaned exactly like a new stream.
    log.clear();
    expectCleanedAsAFreshStream(p, 3, 480, 48000);
    EXPECT_EQ(sessionFrame(p), 480u);
    EXPECT_TRUE(log.lines().empty());
}

TEST(SonelProcessor, UnsupportedRateRunsAt48kAndKeepsTheHostRate) {
    ASSERT_EQ(SonelProcessor::SonelGlobalInit(kModel.c_str()), 0);
    SonelProcessor p;
    LogCapture log;
    p.Initialize(22050, 1);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SONEL-CIT: SonelProcessor Init sample_rate_hz: 22050             num_channels: 1",
                  "SONEL-CIT: The input sampling rate: 22050              is not supported. Using default 48khz.",
              }));
    ASSERT_NE(p.session(), nullptr);
    EXPECT_EQ(sessionFrame(p), 480u);
    EXPECT_EQ(p.sampleRate(), 22050);

    // A 22.05 kHz host delivers 220 or 221 frames per 10 ms, so its blocks say 22000 Hz: one reset
    // (again at 48 kHz), after which the rate holds, nothing more is logged, and three bands fill
    // the 48 kHz frame, cleaned as a fresh 48 kHz stream.
    log.clear();
    expectCleanedAsAFreshStream(p, 3, 220, 48000);
    EXPECT_EQ(p.sampleRate(), 22000);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"SONEL-CIT: The input sampling rate: 22000              is "
                                                    "not supported. Using default 48khz."});
    log.clear();

    // A second Initialize records the new settings but keeps the session it has.
    void* session = p.session();
    p.Initialize(16000, 2);
    EXPECT_EQ(p.session(), session);
    EXPECT_EQ(sessionFrame(p), 480u);
    EXPECT_EQ(p.sampleRate(), 16000);
    EXPECT_EQ(p.numChannels(), 2);
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "SONEL-CIT: SonelProcessor Init sample_rate_hz: 16000             num_channels: 2"});
}

// At the three rates where bands of 160 fill a 10 ms frame the bridge is the C interface scaled by
// 32768, block for block: no reset while the rate holds (the cleaner's state carries over), and
// nothing allocated per block once the stream runs.
TEST(SonelProcessor, MatchesTheCInterfaceBlockForBlockWithoutAllocating) {
    for (const int bands : {1, 2, 3}) {
        const int rate = 16000 * bands;
        const size_t frames = static_cast<size_t>(rate / 100);
        SCOPED_TRACE(rate);
        ASSERT_EQ(SonelProcessor::SonelGlobalInit(kModel.c_str()), 0);
        SonelProcessor p;
        p.Initialize(rate, 1);
        LogCapture log;
        ReferenceStream reference(rate);
        const std::vector<float> signal = hostSignal(frames * 200, rate, 3);
        std::vector<float> ours(frames), theirs(frames);
        size_t differing = 0, allocations = 0;
        for (size_t start = 0; start < signal.size(); start += frames) {
            std::copy(signal.begin() + start, signal.begin() + start + frames, ours.begin());
            theirs = ours;
            const size_t before = sonel_test::allocationCount();
            p.Process(bands, static_cast<int>(frames), static_cast<int>(frames), ours.data());
            if (start >= 10 * frames) allocations += sonel_test::allocationCount() - before;
            reference.clean(theirs.data());
            differing += ours != theirs;
        }
        EXPECT_EQ(differing, 0u);
        EXPECT_EQ(allocations, 0u);
        EXPECT_TRUE(log.lines().empty());
    }
}
