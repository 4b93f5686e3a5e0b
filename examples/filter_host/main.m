/*
 * sonel-filter-host IN OUT.wav: cleans a mono recording the way a conferencing client's capture
 * pipeline drives the noise-suppression module. Samples go to the filter as floats in the 16-bit
 * range, one 10 ms block at a time, split into bands of 160 samples, and come back cleaned in
 * place. The output is what the far end would hear: as long as the input and as delayed as the
 * filter makes it (no compensation), written as 32-bit float WAV.
 *
 * The model is the filter's bundle resource "c6.f.s.ced125.sw"; the build puts it in this
 * program's bundle (cmake/SonelFoundation.cmake).
 */
#import <Foundation/Foundation.h>

#include <sndfile.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#import "sonel_noise_filter.h"

enum { kBandSamples = 160, kBlocksPerSecond = 100 };

static int fail(const char* message) {
    fprintf(stderr, "sonel-filter-host: %s\n", message);
    return 1;
}

static float* readMono(const char* path, sf_count_t* frames, int* rate) {
    SF_INFO info;
    memset(&info, 0, sizeof info);
    SNDFILE* file = sf_open(path, SFM_READ, &info);
    if (file == NULL) return NULL;
    float* samples = NULL;
    if (info.channels == 1 && info.frames > 0 && info.frames < SF_COUNT_MAX) {
        samples = malloc((size_t)info.frames * sizeof *samples);
        if (samples != NULL) *frames = sf_readf_float(file, samples, info.frames);
    }
    *rate = info.samplerate;
    sf_close(file);
    return samples;
}

static int writeFloatWav(const char* path, const float* samples, sf_count_t frames, int rate) {
    SF_INFO info;
    memset(&info, 0, sizeof info);
    info.channels = 1;
    info.samplerate = rate;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path, SFM_WRITE, &info);
    if (file == NULL) return 0;
    const sf_count_t written = sf_writef_float(file, samples, frames);
    sf_close(file);
    return written == frames;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: sonel-filter-host IN OUT.wav   (mono; 16, 32, 48 or 96 kHz)\n");
        return 2;
    }
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    int status = 0;
    sf_count_t length = 0;
    int rate = 0;
    float* audio = readMono(argv[1], &length, &rate);
    // A block is rate / 100 samples; the filter hands bands x 160 of them to the library, which
    // takes them only when that is the whole block.
    const int frames = rate / kBlocksPerSecond;
    const int bands = frames / kBandSamples;
    SonelNoiseFilter* filter = nil;
    if (audio == NULL) {
        status = fail("cannot read the input as a mono sound file");
    } else if (rate % kBlocksPerSecond != 0 || frames % kBandSamples != 0 || bands == 0) {
        status = fail("the rate must make 10 ms blocks of whole 160-sample bands (16, 32, 48 or 96 kHz)");
    } else if (![SonelNoiseFilter SonelGlobalInit]) {
        status = fail("the SDK could not be set up: is c6.f.s.ced125.sw in this program's bundle?");
    } else {
        filter = [[SonelNoiseFilter alloc] init];
        if (filter == nil || ![filter initialize:rate numChannels:1]) status = fail("the filter refused to start");
    }

    if (status == 0) {
        float* block = malloc((size_t)frames * sizeof *block);
        for (sf_count_t start = 0; block != NULL && start < length; start += frames) {
            // The last block is completed with silence, as a capture device would deliver it.
            const sf_count_t count = length - start < frames ? length - start : frames;
            for (int i = 0; i < frames; ++i) block[i] = i < count ? audio[start + i] * 32768.0f : 0.0f;
            if (![filter processWithBands:bands frames:frames bufferSize:frames buffer:block]) {
                status = fail("the filter refused a block");
                break;
            }
            for (sf_count_t i = 0; i < count; ++i) audio[start + i] = block[i] / 32768.0f;
        }
        if (block == NULL) status = fail("out of memory");
        free(block);
        if (status == 0 && !writeFloatWav(argv[2], audio, length, rate)) status = fail("cannot write the output");
    }
    // Releasing the filter closes its session and drops the reference +SonelGlobalInit took, so
    // no +SonelGlobalDestroy follows.
    [filter release];
    free(audio);
    [pool drain];
    return status;
}
