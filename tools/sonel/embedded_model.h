#pragma once
// The default models compiled into the tool, in enciphered ("sw") form: the noise cleaner, the
// voice activity detector and the ringtone detector. A size is 0 when the build had no such model file to embed.
namespace sonel_cli {
extern const unsigned char kEmbeddedModel[];
extern const unsigned int kEmbeddedModelSize;
extern const unsigned char kEmbeddedVadModel[];
extern const unsigned int kEmbeddedVadModelSize;
extern const unsigned char kEmbeddedRingtoneModel[];
extern const unsigned int kEmbeddedRingtoneModelSize;
}  // namespace sonel_cli
