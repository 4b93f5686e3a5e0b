// The per-frame functions of the C interface on small registered cleaners and a voice detector.
// The first four bytes pick the session: its kind (from 0xF0 up: close it after this input),
// input rate, output rate, and frame duration (some values are ones the interface must refuse)
// with, for the cleaning kinds, the cleaner: the fourth byte divided by the duration count picks
// the v0.0.5 cleaner, a v0.0.7 one or a v0.0.7 one gated by its voice detector.
// Then each frame is one control byte followed by the frame's samples, raw float bits (NaN,
// infinities and huge values included) or 16-bit values.
//
// A session, once made, serves every later input with its configuration until an input asks for
// it to be closed: opening one that resamples costs more than everything else an input does (the
// converters build their filter tables), and a host's stream runs on across calls the same way.
// A close, and a noise-level reset (which reopens the converters too), is honoured at most once
// per kInputsPerReopen inputs of the session: the fuzzer learns the comparisons that ask for them
// and soon asked in 4 inputs out of 10, which spent half to three quarters of the run reopening
// converters.
// A finding that does not replay alone replays with the corpus inputs run before it.
//
// Control byte: bit 0 16-bit samples; bit 1 the "WithRingtone" (VAD: "Ex") variant, bit 2 its
// ringtone flag; bit 3 output written over the input; bit 4 a frame one sample short, which must
// be refused; bit 5 calls of every other session kind with this handle, which must be refused;
// bit 6 switches the background speaker fix (noise-level sessions: a reset), bit 7 its new state.
// A VAD frame's samples are followed by two bytes, its start delay and averaging period in tens
// of milliseconds.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "fuzz_support.h"
#include "model_factory.h"

namespace {

using sonel_fuzz::check;

constexpr SonelAudioSamplingRate kRates[] = {
    SONEL_AUDIO_RATE_8000,  SONEL_AUDIO_RATE_16000, SONEL_AUDIO_RATE_24000,
    SONEL_AUDIO_RATE_32000, SONEL_AUDIO_RATE_44100, SONEL_AUDIO_RATE_48000,
    SONEL_AUDIO_RATE_88200, SONEL_AUDIO_RATE_96000, static_cast<SonelAudioSamplingRate>(22050)};
constexpr SonelAudioFrameDuration kDurations[] = {SONEL_AUDIO_FRAME_10MS, SONEL_AUDIO_FRAME_20MS,
                                                  SONEL_AUDIO_FRAME_30MS, SONEL_AUDIO_FRAME_40MS,
                                                  static_cast<SonelAudioFrameDuration>(25)};
constexpr char kModel[] = "fuzz";
// Cleaning sessions choose among these; the other kinds take kModel's name.
constexpr const char* kCleaners[] = {kModel, "fuzz-0.0.7", "fuzz-gated"};
constexpr unsigned kInputsPerReopen = 32;

class Input {
public:
    Input(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}
    bool empty() const { return at_ == end_; }
    uint8_t byte() { return at_ < end_ ? *at_++ : 0; }
    // `count` samples from the input, zeros where it runs out, in a buffer of at least `room`.
    template <typename Sample>
    void samples(std::vector<Sample>& out, size_t count, size_t room) {
        out.assign(std::max(count, room), Sample(0));
        const size_t bytes = std::min(static_cast<size_t>(end_ - at_), count * sizeof(Sample));
        std::memcpy(out.data(), at_, bytes);
        at_ += bytes;
    }

private:
    const uint8_t* at_;
    const uint8_t* end_;
};

struct Session {
    SonelAudioSessionType kind;
    void* handle;
    unsigned inSize;   // samples per input frame
    unsigned outSize;  // samples per output frame (NC kinds)
    unsigned durationMs;
    uint64_t cleanedMs = 0;
    unsigned inputs = 0;  // served so far
    // Inputs served at the last noise-level reset (none yet: a reset is allowed at once).
    int64_t resetAt = -int64_t{kInputsPerReopen};
};

// Kind, input rate, output rate, frame duration, model name.
using Configuration =
    std::tuple<SonelAudioSessionType, SonelAudioSamplingRate, SonelAudioSamplingRate,
               SonelAudioFrameDuration, const char*>;
// At most (2 x 3 cleaners + 3 kinds) x 9 x 9 rates x 5 durations; the ones refused are never
// stored.
std::map<Configuration, Session> gSessions;

void* create(SonelAudioSessionType kind, SonelAudioSamplingRate in, SonelAudioSamplingRate out,
             SonelAudioFrameDuration duration, const char* cleaner) {
    switch (kind) {
        case SONEL_AUDIO_SESSION_NC:
            return sonelAudioNcCreateSession(in, out, duration, cleaner);
        case SONEL_AUDIO_SESSION_NC_WITH_STATS:
            return sonelAudioNcWithStatsCreateSession(in, out, duration, cleaner);
        case SONEL_AUDIO_SESSION_VAD:
            return sonelAudioVadCreateSession(in, duration, kModel);
        case SONEL_AUDIO_SESSION_RINGTONE:
            return sonelAudioRingtoneCreateSession(in, duration, kModel);
        case SONEL_AUDIO_SESSION_NOISE_DB:
            return sonelAudioNoiseDbCreateSession(in, duration, kModel);
    }
    return nullptr;
}

int32_t close(SonelAudioSessionType kind, void* handle) {
    switch (kind) {
        case SONEL_AUDIO_SESSION_NC:
            return sonelAudioNcCloseSession(handle);
        case SONEL_AUDIO_SESSION_NC_WITH_STATS:
            return sonelAudioNcWithStatsCloseSession(handle);
        case SONEL_AUDIO_SESSION_VAD:
            return sonelAudioVadCloseSession(handle);
        case SONEL_AUDIO_SESSION_RINGTONE:
            return sonelAudioRingtoneCloseSession(handle);
        case SONEL_AUDIO_SESSION_NOISE_DB:
            return sonelAudioNoiseDbCloseSession(handle);
    }
    return SONEL_AUDIO_FAILED;
}

// The eight clean functions: NC or NC with statistics, 16-bit or float, plain or WithRingtone.
int32_t clean(SonelAudioSessionType kind, void* session, uint8_t control, const short* in,
              unsigned inSize, short* out, unsigned outSize, SonelAudioNcFrameInfo* info) {
    const bool withRingtone = control & 2, ringtone = control & 4;
    if (kind == SONEL_AUDIO_SESSION_NC_WITH_STATS)
        return withRingtone ? sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneInt16(
                                  session, in, inSize, out, outSize, ringtone, info)
                            : sonelAudioNcWithStatsCleanAmbientNoiseInt16(session, in, inSize, out,
                                                                          outSize, info);
    return withRingtone ? sonelAudioNcCleanAmbientNoiseWithRingtoneInt16(session, in, inSize, out,
                                                                         outSize, ringtone)
                        : sonelAudioNcCleanAmbientNoiseInt16(session, in, inSize, out, outSize);
}

int32_t clean(SonelAudioSessionType kind, void* session, uint8_t control, const float* in,
              unsigned inSize, float* out, unsigned outSize, SonelAudioNcFrameInfo* info) {
    const bool withRingtone = control & 2, ringtone = control & 4;
    if (kind == SONEL_AUDIO_SESSION_NC_WITH_STATS)
        return withRingtone ? sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneFloat(
                                  session, in, inSize, out, outSize, ringtone, info)
                            : sonelAudioNcWithStatsCleanAmbientNoiseFloat(session, in, inSize, out,
                                                                          outSize, info);
    return withRingtone ? sonelAudioNcCleanAmbientNoiseWithRingtoneFloat(session, in, inSize, out,
                                                                         outSize, ringtone)
                        : sonelAudioNcCleanAmbientNoiseFloat(session, in, inSize, out, outSize);
}

float vad(void* session, uint8_t control, const short* frame, unsigned size,
          SonelAudioBandWidthInfo_t* info) {
    return control & 2 ? sonelAudioVadFrameInt16Ex(session, frame, size, info)
                       : sonelAudioVadFrameInt16(session, frame, size);
}
float vad(void* session, uint8_t control, const float* frame, unsigned size,
          SonelAudioBandWidthInfo_t* info) {
    return control & 2 ? sonelAudioVadFrameFloatEx(session, frame, size, info)
                       : sonelAudioVadFrameFloat(session, frame, size);
}

float ringtone(void* session, const short* frame, unsigned size) {
    return sonelAudioDetectRingtoneFrameInt16(session, frame, size);
}
float ringtone(void* session, const float* frame, unsigned size) {
    return sonelAudioDetectRingtoneFrameFloat(session, frame, size);
}
float noiseLevel(void* session, const short* frame, unsigned size) {
    return sonelAudioNoiseDbFrameInt16(session, frame, size);
}
float noiseLevel(void* session, const float* frame, unsigned size) {
    return sonelAudioNoiseDbFrameFloat(session, frame, size);
}

unsigned frameEnergy(const short* frame, unsigned size) {
    return sonelAudioGetFrameEnergyInt16(frame, size);
}
unsigned frameEnergy(const float* frame, unsigned size) {
    return sonelAudioGetFrameEnergyFloat(frame, size);
}

bool isCode(float result) {
    return result == -1.0f || result == -2.0f || result == -3.0f || result == -4.0f;
}

// Every function of a kind other than the session's own must refuse its handle without touching
// the session, which the frames after this one and the final close then show.
template <typename Sample>
void callOtherKinds(const Session& s, std::vector<Sample>& frame) {
    Sample* data = frame.data();
    const auto size = static_cast<unsigned>(frame.size());
    SonelAudioNcFrameInfo info{};
    const SonelAudioSessionType kinds[] = {
        SONEL_AUDIO_SESSION_NC, SONEL_AUDIO_SESSION_NC_WITH_STATS, SONEL_AUDIO_SESSION_VAD,
        SONEL_AUDIO_SESSION_RINGTONE, SONEL_AUDIO_SESSION_NOISE_DB};
    for (SonelAudioSessionType other : kinds) {
        if (other == s.kind) continue;
        switch (other) {
            case SONEL_AUDIO_SESSION_NC:
            case SONEL_AUDIO_SESSION_NC_WITH_STATS:
                for (uint8_t variant : {0, 2})
                    check(clean(other, s.handle, variant, data, size, data, size, &info) ==
                              SONEL_AUDIO_WRONG_SESSION,
                          "clean function accepted a session of another kind");
                break;
            case SONEL_AUDIO_SESSION_VAD:
                check(vad(s.handle, 0, data, size, nullptr) == -4.0f,
                      "VAD function accepted a session of another kind");
                break;
            case SONEL_AUDIO_SESSION_RINGTONE:
                check(ringtone(s.handle, data, size) == -4.0f,
                      "ringtone function accepted a session of another kind");
                break;
            case SONEL_AUDIO_SESSION_NOISE_DB:
                check(noiseLevel(s.handle, data, size) == -4.0f,
                      "noise-level function accepted a session of another kind");
                check(sonelAudioNoiseDbResetSession(s.handle) != SONEL_AUDIO_OK,
                      "noise-level reset accepted a session of another kind");
                break;
        }
        check(close(other, s.handle) != SONEL_AUDIO_OK,
              "close function accepted a session of another kind");
    }
    if (s.kind != SONEL_AUDIO_SESSION_NC_WITH_STATS) {
        SonelAudioNcStats stats{};
        check(sonelAudioNcWithStatsRetrieveStats(s.handle, &stats) == SONEL_AUDIO_WRONG_SESSION,
              "statistics of a session of another kind");
    }
}

template <typename Sample>
void frame(Session& s, Input& input, uint8_t control) {
    const bool inPlace = control & 8, cutShort = control & 16;
    const bool cleaning =
        s.kind == SONEL_AUDIO_SESSION_NC || s.kind == SONEL_AUDIO_SESSION_NC_WITH_STATS;
    std::vector<Sample> in, separate;
    input.samples(in, s.inSize, cleaning ? s.outSize : 0);
    const unsigned size = s.inSize - (cutShort ? 1 : 0);
    check(frameEnergy(in.data(), size) <= 100, "frame energy above 100");

    if (control & 32) callOtherKinds(s, in);
    if (control & 64) {
        const bool on = control & 128;
        if (s.kind == SONEL_AUDIO_SESSION_NOISE_DB) {
            if (s.inputs >= s.resetAt + kInputsPerReopen) {
                check(sonelAudioNoiseDbResetSession(s.handle) == SONEL_AUDIO_OK,
                      "noise-level reset");
                s.resetAt = s.inputs;
            }
        } else
            check(sonelAudioNcBackgroundSpeakerFixOnOff(s.handle, on) ==
                      (s.kind == SONEL_AUDIO_SESSION_NC ? SONEL_AUDIO_OK : SONEL_AUDIO_FAILED),
                  "background speaker fix switched only on NC sessions");
    }

    switch (s.kind) {
        case SONEL_AUDIO_SESSION_NC:
        case SONEL_AUDIO_SESSION_NC_WITH_STATS: {
            separate.resize(s.outSize);
            Sample* out = inPlace ? in.data() : separate.data();
            SonelAudioNcFrameInfo info{};
            const int32_t result =
                clean(s.kind, s.handle, control, in.data(), size, out, s.outSize, &info);
            if (cutShort) {
                check(result == SONEL_AUDIO_FAILED, "a frame of the wrong size was not refused");
                break;
            }
            check(result == SONEL_AUDIO_OK, "a frame of the session's size was refused");
            if constexpr (std::is_same_v<Sample, float>)
                sonel_fuzz::checkFloatOutput(out, s.outSize);
            s.cleanedMs += s.durationMs;
            if (s.kind == SONEL_AUDIO_SESSION_NC_WITH_STATS) {
                sonel_fuzz::checkFrameInfo(info);
                sonel_fuzz::checkStats(s.handle, s.cleanedMs);
            }
            break;
        }
        case SONEL_AUDIO_SESSION_VAD: {
            SonelAudioBandWidthInfo_t info{0, input.byte() * 10, input.byte() * 10};
            const float probability = vad(s.handle, control, in.data(), size, &info);
            if (cutShort)
                check(isCode(probability), "a VAD frame of the wrong size was not refused");
            else
                check(probability >= 0.0f && probability <= 1.0f,
                      "a VAD frame of the session's size got no probability");
            check(info.bandwidthClass >= 0 && info.bandwidthClass <= 3,
                  "bandwidth class outside 0 ... 3");
            break;
        }
        case SONEL_AUDIO_SESSION_RINGTONE:
            ringtone(s.handle, in.data(), size);
            break;
        case SONEL_AUDIO_SESSION_NOISE_DB:
            noiseLevel(s.handle, in.data(), size);
            break;
    }
}

}  // namespace

// A voice detector of the shipped layout (8 kHz, 240-sample frames, 61 bands, 94-unit state) with
// small random weights, its calibration points and its watchdog on, so VAD frames reach every
// stage of the detector. Registered beside the cleaner: a VAD session picks it whatever name it is
// opened with.
SONEL::WEIGHTS::WeightWriter detectorModel() {
    constexpr unsigned kState = 94, kInput = 94 + 4 * 61, kHidden = 8;
    uint32_t seed = 7;
    auto random = [&seed](unsigned rows, unsigned columns, float scale) {
        SONEL::CONTAINERS::Matrix m(rows, columns);
        for (unsigned r = 0; r < rows; ++r)
            for (unsigned c = 0; c < columns; ++c) {
                seed = seed * 1664525u + 1013904223u;
                m.at(r, c) = scale * (static_cast<float>(seed >> 8) / (1u << 24) - 0.5f);
            }
        return m;
    };
    SONEL::WEIGHTS::WeightWriter model;
    model.add("Version", std::string("VAD_0.0.1"));
    model.add("SampleRate", 8000u);
    model.add("FrameLength", 240u);
    model.add("ModelName", std::string("fuzz-detector"));
    model.add("TimeStamp", std::string("fuzz"));
    model.add("MU", std::vector<float>(61, 5.0f));
    model.add("SD", std::vector<float>(61, 4.0f));
    model.add("WeightGRU", random(kState, kInput, 0.2f));
    model.add("BaesGRU", std::vector<float>(kState, 0.0f));
    model.add("WeightNonLinear", std::vector<SONEL::CONTAINERS::Matrix>{random(kState, kInput, 0.2f),
                                                                        random(kHidden, kState, 0.5f)});
    model.add("BaesNonLinear", std::vector<std::vector<float>>{std::vector<float>(kState, 0.0f),
                                                               std::vector<float>(kHidden, 0.0f)});
    model.add("WeightLinear", std::vector<SONEL::CONTAINERS::Matrix>{
                                  random(kState, kInput, 0.2f), random(kHidden, kState, 0.5f),
                                  random(1, kHidden, 1.0f)});
    model.add("BaesLinear", std::vector<std::vector<float>>{std::vector<float>(kState, 0.0f),
                                                            std::vector<float>(kHidden, 0.0f),
                                                            std::vector<float>(1, 0.0f)});
    model.add("Test_MINMAX", std::vector<float>{-3.0f, 3.0f});
    model.add("Test_BestF1", std::vector<float>{0.0f});
    model.add("CONTROL_VELTA_VAD_ENABLE_STATE_RESET_v0_0_1", std::string("t"));
    return model;
}

// One small v0.0.5 cleaner with every post-processing stage switched on, so frames reach all of
// them, a v0.0.7 cleaner alone and behind its own detector (random networks, so the gate decides
// both ways), and the voice detector above.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sonel_fuzz::initialise();
    sonel_test::CleanerModelSpec spec;
    spec.weightScale = 1.0f;
    spec.outputBias = 0.0f;
    SONEL::WEIGHTS::WeightWriter model = sonel_test::cleanerModel(spec);
    for (const char* stage :
         {"ENABLE_RESCALE", "ENABLE_CLIP_FIX", "ENABLE_THRESH_CUT", "ENABLE_RM_THRESHOLD",
          "SMOOT_RM_MODIFY", "HIGH_FREQ_SMOOT", "VOLUME_UP"})
        model.add(std::string("CONTROL_SONEL_") + stage + "_v0_0_5", std::string("t"));
    model.add("CONTROL_SONEL_VOLUME_UP_PERCENT_v0_0_5", 20.0f);
    const std::vector<uint8_t> blob = model.toEnciphered();
    check(sonelAudioSetModelBlob(blob.data(), static_cast<unsigned>(blob.size()), kModel) ==
              SONEL_AUDIO_OK,
          "register the model");
    const std::vector<uint8_t> detector = detectorModel().toEnciphered();
    check(sonelAudioSetModelBlob(detector.data(), static_cast<unsigned>(detector.size()),
                                 "fuzz-detector") == SONEL_AUDIO_OK,
          "register the detector");
    for (const bool gated : {false, true}) {
        const std::vector<uint8_t> layerNorm =
            sonel_test::writerOf(sonel_test::layerNormCleanerModel(20, 0.3f, gated)).toEnciphered();
        check(sonelAudioSetModelBlob(layerNorm.data(), static_cast<unsigned>(layerNorm.size()),
                                     kCleaners[1 + gated]) == SONEL_AUDIO_OK,
              "register a v0.0.7 cleaner");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const uint8_t first = input.byte();
    const auto kind = static_cast<SonelAudioSessionType>(1 + first % 5);
    const bool closeAfter = first >= 0xF0;
    const SonelAudioSamplingRate inRate = kRates[input.byte() % std::size(kRates)];
    const SonelAudioSamplingRate outRate = kRates[input.byte() % std::size(kRates)];
    const uint8_t timing = input.byte();
    const SonelAudioFrameDuration duration = kDurations[timing % std::size(kDurations)];
    const bool twoRates =
        kind == SONEL_AUDIO_SESSION_NC || kind == SONEL_AUDIO_SESSION_NC_WITH_STATS;
    const char* cleaner =
        twoRates ? kCleaners[timing / std::size(kDurations) % std::size(kCleaners)] : kModel;
    const Configuration configuration{kind, inRate, twoRates ? outRate : inRate, duration, cleaner};

    auto stored = gSessions.find(configuration);
    if (stored == gSessions.end()) {
        Session s{kind, create(kind, inRate, outRate, duration, cleaner), 0, 0,
                  static_cast<unsigned>(duration)};
        if (inRate == 22050 || (twoRates && outRate == 22050))
            check(s.handle == nullptr, "a session at an unsupported rate was made");
        if (!s.handle) return 0;
        s.inSize = static_cast<unsigned>(duration) * inRate / 1000;
        s.outSize = static_cast<unsigned>(duration) * (twoRates ? outRate : inRate) / 1000;
        stored = gSessions.emplace(configuration, s).first;
    }
    Session& s = stored->second;
    ++s.inputs;

    while (!input.empty()) {
        const uint8_t control = input.byte();
        if (control & 1)
            frame<short>(s, input, control);
        else
            frame<float>(s, input, control);
    }
    if (closeAfter && s.inputs >= kInputsPerReopen) {
        check(close(kind, s.handle) == SONEL_AUDIO_OK, "close the session");
        gSessions.erase(stored);
    }
    return 0;
}
