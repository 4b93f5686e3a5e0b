#pragma once
// The default models compiled into the tool, in enciphered ("sw") form: the noise cleaner, the
// voice activity detector, the ringtone detector and the 0.0.5 cleaner the noise-level estimator
// runs (the default cleaner is of a newer generation). A size is 0 when the build had no such
// model file to embed.
namespace sonel_cli {
extern const unsigned char kEmbeddedModel[];
extern const unsigned int kEmbeddedModelSize;
extern const unsigned char kEmbeddedVadModel[];
extern const unsigned int kEmbeddedVadModelSize;
extern const unsigned char kEmbeddedRingtoneModel[];
extern const unsigned int kEmbeddedRingtoneModelSize;
extern const unsigned char kEmbeddedNoiseLevelModel[];
extern const unsigned int kEmbeddedNoiseLevelModelSize;
}  // namespace sonel_cli
