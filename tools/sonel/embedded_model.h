#pragma once
// The default model compiled into the tool, in enciphered ("sw") form; size 0 when the build had
// no model file to embed.
namespace sonel_cli {
extern const unsigned char kEmbeddedModel[];
extern const unsigned int kEmbeddedModelSize;
}  // namespace sonel_cli
