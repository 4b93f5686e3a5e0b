// Writes the seed corpora under corpus/ (run from the build folder as
//   tests/fuzz/sonel_fuzz_seeds <source>/tests/fuzz/corpus
// after a change to the formats or the targets' input layouts). Every seed is small: models keep
// the shipped geometry and tuning but carry a 2-unit network, so the fuzzer's mutations land in
// the records that shape a session rather than in megabytes of network values.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "model_factory.h"
#include "utils/crypto.h"
#include "weights/weight.h"

namespace {

using Bytes = std::vector<uint8_t>;
using SONEL::CONTAINERS::Matrix;
using SONEL::WEIGHTS::Weight;
using SONEL::WEIGHTS::WeightWriter;

constexpr unsigned kHidden = 2;
constexpr size_t kHeaderBytes = 16;

void write(const std::filesystem::path& path, const Bytes& bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

// The body of an enciphered model as the reader sees it once deciphered.
Bytes decipheredBody(const WeightWriter& model) {
    const Bytes blob = model.toEnciphered();
    std::vector<uint32_t> words((blob.size() - kHeaderBytes) / 4);
    std::memcpy(words.data(), blob.data() + kHeaderBytes, words.size() * 4);
    SONEL::UTILS::Crypto(SONEL::UTILS::TEA)
        .decrypt(words.data(), static_cast<uint32_t>(words.size()));
    Bytes body(words.size() * 4);
    std::memcpy(body.data(), words.data(), body.size());
    return body;
}

// A shipped model's header, geometry, normalisation and tuning records with a random network of
// kHidden units in place of its own, shaped as the shipped one (same layer count, same bands).
WeightWriter shippedWithSmallNetwork(const std::string& path) {
    Weight shipped;
    if (!shipped.load(std::wstring(path.begin(), path.end())))
        throw std::runtime_error("cannot load " + path + ": " + shipped.message());
    const std::set<std::string> network = {"WeightGRU",     "BaesGRU",      "WeightNonLinear",
                                           "BaesNonLinear", "WeightLinear", "BaesLinear"};
    const WeightWriter all(shipped);
    WeightWriter model;
    for (const auto& record : all.records())
        if (!network.count(record.name)) model.add(record.name, record.value);

    const unsigned bands = shipped.get<unsigned>("CoefficientNumber");
    const unsigned features = bands * (shipped.get<unsigned>("PreviewFrames") + 1);
    const size_t layers = shipped.get<std::vector<Matrix>>("WeightLinear").size();
    std::mt19937 rng(7);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    const auto matrix = [&](unsigned rows, unsigned columns) {
        Matrix m(rows, columns);
        for (float& v : m.data) v = normal(rng) / std::sqrt(static_cast<float>(columns));
        return m;
    };
    const auto vector = [&](unsigned n) {
        std::vector<float> v(n);
        for (float& x : v) x = 0.1f * normal(rng);
        return v;
    };
    std::vector<Matrix> rectified, linear;
    std::vector<std::vector<float>> rectifiedBias, linearBias;
    unsigned in = kHidden + features;
    for (size_t k = 0; k < layers; ++k) {
        rectified.push_back(matrix(kHidden, in));
        linear.push_back(matrix(kHidden, in));
        rectifiedBias.push_back(vector(kHidden));
        linearBias.push_back(vector(kHidden));
        in = kHidden;
    }
    rectified.push_back(matrix(bands, in));
    rectifiedBias.push_back(vector(bands));
    model.add("WeightGRU", matrix(kHidden, kHidden + features));
    model.add("BaesGRU", vector(kHidden));
    model.add("WeightNonLinear", rectified);
    model.add("BaesNonLinear", rectifiedBias);
    model.add("WeightLinear", linear);
    model.add("BaesLinear", linearBias);
    return model;
}

WeightWriter tinyModel(unsigned rate) {
    sonel_test::CleanerModelSpec spec;
    spec.rate = rate;
    spec.hidden = kHidden;
    spec.weightScale = 1.0f;
    spec.outputBias = 0.0f;
    return sonel_test::cleanerModel(spec);
}

// clean_frames input: session header, then frames of a control byte and samples.
struct FrameSeed {
    Bytes bytes;
    FrameSeed(uint8_t kind, uint8_t inRate, uint8_t outRate, uint8_t duration)
        : bytes{kind, inRate, outRate, duration} {}
    // Samples of the test signal (float or 16-bit by control bit 0), `special` placed at the start.
    FrameSeed& frame(uint8_t control, unsigned samples, unsigned rate,
                     std::vector<float> special = {}) {
        std::vector<float> signal = sonel_fuzz::testSignal(samples, rate);
        std::copy(special.begin(), special.end(), signal.begin());
        bytes.push_back(control);
        for (float s : signal) {
            if (control & 1) {
                const auto v =
                    static_cast<int16_t>(std::fmax(-32768.0f, std::fmin(32767.0f, s * 32768)));
                bytes.insert(bytes.end(), reinterpret_cast<const uint8_t*>(&v),
                             reinterpret_cast<const uint8_t*>(&v) + 2);
            } else {
                bytes.insert(bytes.end(), reinterpret_cast<const uint8_t*>(&s),
                             reinterpret_cast<const uint8_t*>(&s) + 4);
            }
        }
        return *this;
    }
    // Bytes a frame of some kinds reads after its samples.
    FrameSeed& then(std::initializer_list<uint8_t> extra) {
        bytes.insert(bytes.end(), extra);
        return *this;
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_FOLDER\n", argv[0]);
        return 2;
    }
    const std::filesystem::path out = argv[1];
    const std::string models = SONEL_SOURCE_DIR "/models/";
    const std::pair<std::string, WeightWriter> seeds[] = {
        {"tiny-8k", tinyModel(8000)},
        {"tiny-16k", tinyModel(16000)},
        {"shipped-16k-small-network", shippedWithSmallNetwork(models + "sonel-nc-16k.sw")},
        {"shipped-32k-small-network", shippedWithSmallNetwork(models + "sonel-noise-level.sw")},
    };
    for (const auto& [name, model] : seeds) {
        write(out / "set_model_blob" / (name + ".sw"), model.toEnciphered());
        write(out / "set_model_blob_body" / (name + ".body"), decipheredBody(model));
    }

    const Bytes nul{0};
    const std::string tuning =
        "SONEL_SMOOT_COEF_v0_0_5 0.8\nSONEL_SMOOT_RM_MODIFY_v0_0_5 TRUE\n"
        "SONEL_HIGH_FREQ_SMOOT_v0_0_5 TRUE\nSONEL_ENABLE_CLIP_FIX_v0_0_5 TRUE\n"
        "SONEL_CLIP_FIX_POINT_v0_0_5 20000\nSONEL_ENABLE_THRESH_CUT_v0_0_5 TRUE\n"
        "SONEL_THRESH_CUT_REF_EN_v0_0_5 100\nSONEL_ENABLE_RM_THRESHOLD_v0_0_5 TRUE\n"
        "SONEL_RM_THRESHOLD_v0_0_5 0.5\nSONEL_ENABLE_RESCALE_v0_0_5 TRUE\n"
        "SONEL_RESCALE_REF_EN_v0_0_5 1000\nSONEL_RESCALE_REF_AMPL_v0_0_5 2000\n"
        "VELTA_COMPRESS_RATE_v0_0_5 2\nSONEL_VOLUME_UP_v0_0_5 TRUE\n"
        "SONEL_VOLUME_UP_PERCENT_v0_0_5 20\nSONEL_SKIP_FRAME_v0_0_5 FALSE\n"
        "SONEL_ENABLE_BACKGROUND_SPEAKER_FIX_v0_0_5 TRUE\n"
        "SONEL_BACKGROUND_SPEAKER_FIX_CUT_START_DB_v0_0_5 10\n"
        "SONEL_BACKGROUND_SPEAKER_FIX_CUT_END_DB_v0_0_5 15\n"
        "SONEL_BACKGROUND_SPEAKER_FIX_RUN_FRAME_COUNT_v0_0_5 40\n"
        "SONEL_BACKGROUND_SPEAKER_FIX_RUN_MIN_LEN_v0_0_5 2\n"
        "SONEL_BACKGROUND_SPEAKER_FIX_UTTERANCE_LEN_v0_0_5 2\n"
        "SONEL_BACKGROUND_SPEAKER_FIX_VAR_WIND_MODE_v0_0_5 TRUE\n"
        "sonel_env_no_noise 2\nsonel_env_low_noise 25\nsonel_env_medium_noise 50\n"
        "sonel_env_talk_energy_threshold 36\nsonel_env_silent_frame_count_considered_talk 4\n"
        "sonel_env_stats_accumulation_count 2\n";
    const std::filesystem::path cfg = out / "set_model_cfg";
    write(cfg / "tiny-sw.cfg", text("WEIGHT tiny.sw\n"));
    write(cfg / "tiny-vlw-every-tuning-entry.cfg",
          text("# every tuning entry\nWEIGHT tiny.vlw\n" + tuning));
    write(cfg / "entries-skipped-and-cut.cfg",
          text("CONTROLFILE other.cfg\nWEIGHT missing.sw\n  WEIGHT\ttiny.vlw  \nWEIGHT tiny.sw\n"
               "\n# comment\nKEY_ONLY\nNEVER_READ 1\n"));
    write(cfg / "fuzz-weight-tiny-8k.cfg",
          concat({text("WEIGHT fuzz.vlw\nSONEL_ENABLE_BACKGROUND_SPEAKER_FIX_v0_0_5 TRUE\n"), nul,
                  tinyModel(8000).toStream()}));
    write(cfg / "fuzz-weight-shipped-16k-small-network.cfg",
          concat({text("WEIGHT fuzz.vlw\n" + tuning), nul, seeds[2].second.toStream()}));

    // Kinds 0 NC, 1 NC with statistics, 2 VAD, 3 ringtone, 4 noise level, modulo 5 (from 0xF0 up:
    // closed after the input, otherwise kept for the next input of its configuration); rates are
    // indices into
    // 8000, 16000, 24000, 32000, 44100, 48000, 88200, 96000, 22050; durations into 10 ... 40, 25.
    const float nan = std::nanf(""), inf = INFINITY, huge = 3.0e38f;
    const std::filesystem::path frames = out / "clean_frames";
    write(frames / "nc-16k-every-variant", FrameSeed(0, 1, 1, 0)
                                               .frame(0, 160, 16000)
                                               .frame(1, 160, 16000)
                                               .frame(2 | 4, 160, 16000)
                                               .frame(1 | 2, 160, 16000)
                                               .frame(8, 160, 16000)
                                               .frame(16, 160, 16000)
                                               .frame(64 | 128, 160, 16000)
                                               .frame(32, 160, 16000)
                                               .bytes);
    write(frames / "nc-stats-48k-to-44k", FrameSeed(1, 5, 4, 0)
                                              .frame(1, 480, 48000)
                                              .frame(0, 480, 48000)
                                              .frame(2 | 4, 480, 48000)
                                              .frame(1 | 2 | 8, 480, 48000)
                                              .frame(32, 480, 48000)
                                              .bytes);
    write(frames / "nc-16k-40ms",
          FrameSeed(0, 1, 1, 3).frame(0, 640, 16000).frame(1, 640, 16000).bytes);
    write(frames / "nc-8k-to-96k-non-finite", FrameSeed(0xF0, 0, 7, 0)
                                                  .frame(0, 80, 8000, {nan, inf, -inf, huge, -huge})
                                                  .frame(0, 80, 8000)
                                                  .bytes);
    write(frames / "vad-16k", FrameSeed(2, 1, 1, 1)
                                  .frame(0, 320, 16000)
                                  .then({0, 50})
                                  .frame(1 | 2, 320, 16000)
                                  .then({10, 50})
                                  .bytes);
    write(frames / "ringtone-16k", FrameSeed(3, 1, 1, 0).frame(0, 160, 16000).bytes);
    write(frames / "noise-level-32k", FrameSeed(4, 3, 3, 0).frame(64, 320, 32000).bytes);
    return 0;
}
