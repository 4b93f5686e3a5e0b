#pragma once
// The noise suppressors the evaluation compares, behind one frame interface: Sonel through its
// public C interface, and the SpeexDSP and WebRTC suppressors as Debian ships them. Each runs on
// 10 ms mono frames of floats in -1 ... 1 at the stream's own rate.
#include <memory>
#include <string>
#include <vector>

namespace sonel_eval {

class Denoiser {
public:
    virtual ~Denoiser() = default;
    Denoiser(const Denoiser&) = delete;
    Denoiser& operator=(const Denoiser&) = delete;

    // Cleans one frame of frameSize() samples; `in` and `out` may be the same buffer. Throws
    // std::runtime_error when the suppressor reports a failure.
    virtual void process(const float* in, float* out) = 0;
    size_t frameSize() const { return frameSize_; }

protected:
    explicit Denoiser(unsigned rateHz) : frameSize_(rateHz / 100) {}

private:
    size_t frameSize_;
};

// The library's global instance with the given model files registered, for as long as the object
// lives. Sessions made from it must be destroyed before it.
class SonelLibrary {
public:
    explicit SonelLibrary(const std::vector<std::string>& modelPaths);
    ~SonelLibrary();
    SonelLibrary(const SonelLibrary&) = delete;
    SonelLibrary& operator=(const SonelLibrary&) = delete;

    std::unique_ptr<Denoiser> session(unsigned rateHz) const;

private:
    void release();

    std::vector<std::string> names_;
};

// System names as the reports print them.
const std::vector<std::string>& peerSystems();  // speexdsp-15, speexdsp-30, webrtc-high, webrtc-veryhigh
constexpr const char* kSonelSystem = "sonel";

// A fresh suppressor of the named system (one of peerSystems(), or kSonelSystem with `sonel`
// non-null). Throws std::invalid_argument for an unknown name or rate.
std::unique_ptr<Denoiser> makeDenoiser(const std::string& system, unsigned rateHz,
                                       const SonelLibrary* sonel);

}  // namespace sonel_eval
