#pragma once

#include "fuzz/Subjects.h"
#include "support/JavaMachine.h"
#include "support/Output.h"

using Samples = std::vector<int16_t>;

// Decodes with FFmpeg's own calls to interleaved samples, as many for every packet. What is decoded to
// floating point is rounded.
Samples referenceSound(AVCodecID codec, const Script& stream, int sampleRate, int channels);

// Interleaved sound, different in the left and the right channel.
Samples testSound(int channels, int sampleRate, int samples);

Samples samplesOf(const Bytes& pcm);

// The `number`th of the blocks that the sound falls into, as PCM.
Bytes pcmBlock(const Samples& sound, size_t number, size_t samplesPerBlock);

// Signal-to-noise ratio in dB of one channel of `decoded`, which lags `delay` samples behind; the first and
// the last 2048 samples are left out.
double snr(const Samples& original, const Samples& decoded, size_t channels, size_t channel, size_t delay);

int largestDifference(const Samples& a, const Samples& b);

// The first `size` bytes of an array made by javaArray(int), which are all that may have been written.
Bytes written(jbyteArray array, int size);

// Has a native method, AACDecoder's or MPADecoder's, decode a vector from Java arrays, with wrong calls
// before each packet and something behind some. The largest difference from FFmpeg's own samples.
using DecodeMethod = jint (*)(JNIEnv*, jclass, jbyteArray, jbyteArray, jbyteArray, jlong);
int comparedWithFFmpeg(AVCodecID codec, DecodeMethod decode, jlong handle, const Script& stream,
                       int sampleRate, int channels);
