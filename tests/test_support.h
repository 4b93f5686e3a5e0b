#pragma once
// Helpers shared by the test suites: scratch folders, small model files registered as a host
// registers them, and the test signals several suites feed.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "sonel-audio-sdk.h"
#include "model_factory.h"
#include "utils/sonel_exception.h"
#include "weights/model.h"

namespace sonel_test {

// A fresh folder under the system temp folder, removed with the object.
class ScratchDir {
public:
    ScratchDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "sonel-test-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~ScratchDir() { std::filesystem::remove_all(path_); }
    std::string file(const std::string& name) const { return (path_ / name).string(); }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

inline std::wstring wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

inline SonelAudioSamplingRate rate(unsigned hz) { return static_cast<SonelAudioSamplingRate>(hz); }

// Holds one global reference for the length of a test.
struct GlobalInstance {
    GlobalInstance() { EXPECT_EQ(sonelAudioGlobalInit(nullptr), SONEL_AUDIO_OK); }
    ~GlobalInstance() { EXPECT_EQ(sonelAudioGlobalDestroy(), SONEL_AUDIO_OK); }
};

// Registers the model file at `path` under `name`; the registry's note on stdout is swallowed.
inline void registerModelFile(const std::string& path, const std::string& name) {
    testing::internal::CaptureStdout();
    const int32_t result = sonelAudioSetModel(wide(path).c_str(), name.c_str());
    const std::string note = testing::internal::GetCapturedStdout();
    ASSERT_EQ(result, SONEL_AUDIO_OK) << path << ": " << note;
}

// Writes `writer` to `name`.vlw in `dir` and registers it under `name`.
inline void registerModel(const ScratchDir& dir, const SONEL::WEIGHTS::WeightWriter& writer,
                          const std::string& name) {
    ASSERT_TRUE(writer.writeFile(dir.file(name + ".vlw")));
    registerModelFile(dir.file(name + ".vlw"), name);
}

// A host's registry for one test: a global reference and a folder for the model files it is handed.
struct Registry {
    ScratchDir dir;
    GlobalInstance global;
    void add(const SONEL::WEIGHTS::WeightWriter& writer, const std::string& name) { registerModel(dir, writer, name); }
};

// The model a session would build its cleaner from: `writer`'s records loaded back, with the
// control-file entries `env`.
inline SONEL::WEIGHTS::ModelPtr modelFrom(
    const SONEL::WEIGHTS::WeightWriter& writer,
    const std::vector<std::pair<std::string, std::string>>& env = {}) {
    auto weight = std::make_shared<SONEL::WEIGHTS::Weight>();
    const std::vector<uint8_t> bytes = writer.toStream();
    EXPECT_TRUE(weight->loadStream(bytes.data(), bytes.size())) << weight->message();
    auto model = std::make_shared<SONEL::WEIGHTS::ModelPair>(weight, SONEL::CONTAINERS::AnyMap{});
    for (const auto& [key, value] : env) model->second.set<std::string>(key, value);
    return model;
}

inline SONEL::WEIGHTS::ModelPtr modelOf(const Records& records,
                                        const std::vector<std::pair<std::string, std::string>>& env = {}) {
    return modelFrom(writerOf(records), env);
}

// What building a `Cleaner` from `model` for `hz` throws, or "accepted". Notes a cleaner prints
// while it is built are swallowed.
template <class Cleaner>
std::string refusal(const SONEL::WEIGHTS::ModelPtr& model, unsigned hz) {
    testing::internal::CaptureStdout();
    try {
        Cleaner cleaner(model, hz);
        testing::internal::GetCapturedStdout();
        return "accepted";
    } catch (const SONEL::UTILS::SonelException& e) {
        testing::internal::GetCapturedStdout();
        return e.what();
    }
}

// White Gaussian noise of standard deviation `rms`.
inline std::vector<float> gaussianNoise(size_t n, float rms, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0.0f, rms);
    std::vector<float> x(n);
    for (float& v : x) v = normal(rng);
    return x;
}

inline std::vector<float> sine(size_t n, double hz, double rateHz, float amplitude) {
    std::vector<float> x(n);
    for (size_t i = 0; i < n; ++i) x[i] = amplitude * static_cast<float>(std::sin(2 * M_PI * hz * i / rateHz));
    return x;
}

// Stationary noise below 2 kHz (white noise through two one-pole low-passes at 1 kHz, inside a
// 16 kHz model's band at any host rate), scaled to `level` dBFS over its length.
inline std::vector<float> rumble(size_t n, unsigned hz, double level, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    const double a = std::exp(-2.0 * M_PI * 1000.0 / hz);
    std::vector<double> x(n);
    double y1 = 0.0, y2 = 0.0, power = 0.0;
    for (size_t i = 0; i < n + hz / 10; ++i) {  // 100 ms run-in for the filters
        y1 = a * y1 + (1.0 - a) * normal(rng);
        y2 = a * y2 + (1.0 - a) * y1;
        if (i >= hz / 10) power += (x[i - hz / 10] = y2) * y2;
    }
    const double gain = std::pow(10.0, level / 20.0) / std::sqrt(power / static_cast<double>(n));
    std::vector<float> out(n);
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<float>(gain * x[i]);
    return out;
}

}  // namespace sonel_test
