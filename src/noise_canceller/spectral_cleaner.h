#pragma once
// The frame loop every spectral noise cleaner shares: buffering into 50 %-overlapped blocks, the
// front end, the energy gate, mask expansion and post-processing, synthesis, overlap-add and the
// frame info. A model class only supplies its network: band gains from the feature context.
#include <complex>
#include <memory>
#include <vector>

#include "noise_canceller/energy_gate.h"
#include "noise_canceller/feature_extractor.h"
#include "noise_canceller/mask_post_processor.h"
#include "noise_canceller/noise_cleaner.h"
#include "utils/cyclic_block_data.h"

namespace SONEL::NOISE_CANCELLER {

class SpectralCleaner : public NoiseCleaner {
public:
    bool cleanNoise(std::vector<float>& frame, ncAudioInfo_t* info, bool flag) override;
    bool resetSession() override;
    bool background_speaker_fix_switch(bool on) override;

    // One block of FrameLength samples in, its cleaned and windowed synthesis in `out` (FrameLength
    // values); its energies join the frame's (beginFrame, reportFrame).
    bool mainCleaner(const float* block, std::vector<float>& out, ncAudioInfo_t* info, bool notClipped);

    // One hop: the block that completes a sample's output needs the next hop of input.
    unsigned delaySamples() const override { return frontEnd_.step; }
    bool acceptsFrame(size_t samples) const override;
    std::string frameRule() const override;

protected:
    // Where the context is scaled by the model's MU and SD: in the front end, so the network
    // reads it scaled (v0.0.5), or by the network as its own first step (the 0.0.6 form), which
    // then reads the log powers as they are.
    enum class FeatureScaling { FrontEnd, Network };

    SpectralCleaner(WEIGHTS::ModelPtr model, unsigned sampleRate, const ParameterKeys& keys,
                    FeatureScaling scaling, const FrontEndParams::FilterRecords& filter = {},
                    ContextStart contextStart = ContextStart::Silence);

    size_t inputLength() const { return features_.networkInput().size(); }
    size_t bandCount() const { return features_.bands().bandCount(); }
    const FrontEndParams& frontEnd() const { return frontEnd_; }

    // The frame loop's pieces, for a model that decides per hop whether to clean it. beginFrame
    // takes the frame's clip test and skip mark, which all its blocks share, and starts counting
    // its block energies; it returns whether the frame lies within the clip-fix point.
    bool beginFrame(const std::vector<float>& frame);
    // Counts a block that was not cleaned: nothing of it kept, `removed` (mean square, full scale
    // 1) taken away.
    void countUncleanedBlock(double removed);
    // The frame's voice and noise levels from its blocks' energies, and the statistics, when
    // `info` is given.
    void reportFrame(ncAudioInfo_t* info, size_t frameSamples, double ringtone);
    // Pushes one hop of zeros onto `output` and adds the two-hop `block` into its last two hops
    // (those not yet read).
    void overlapAdd(CONTAINERS::CyclicBlockData& output, const std::vector<float>& block) const;

private:
    // The model's band gains (bandCount() values in [0, 1]) for the current feature context.
    virtual void computeBandGains(const std::vector<float>& networkInput,
                                  std::vector<float>& bandGains) = 0;
    virtual void resetNetwork() = 0;

    void primeBuffers();

    FrontEndParams frontEnd_;
    MaskParams maskParams_;
    std::vector<float> window_;
    double windowEnergy_;
    // Held for the cleaner's life: the base class's cache may be switched to another size by
    // bandwidth prediction, which must never make the block path rebuild its transform.
    std::shared_ptr<UTILS::FFT> transform_;
    FeatureExtractor features_;
    EnergyGate gate_;
    MaskPostProcessor post_;
    size_t maxFrame_;
    CONTAINERS::CyclicBlockData input_;
    CONTAINERS::CyclicBlockData output_;

    // Per-block scratch, sized at construction.
    std::vector<float> windowed_;
    std::vector<float> block_;
    std::vector<float> bandGains_;
    std::vector<float> binGains_;
    std::vector<std::complex<float>> masked_;

    bool skipCurrentFrame_ = false;
    double voiceEnergy_ = 0.0;
    double noiseEnergy_ = 0.0;
    unsigned blocksInFrame_ = 0;
};

}  // namespace SONEL::NOISE_CANCELLER
