#pragma once

#include "bridge/Owners.h"

// Decodes the first audio frame of `data` into `frame`, which owns its samples (the context is opened with
// refcounted_frames), and drops the rest of `data`, which it overwrites. The bytes are followed by
// AV_INPUT_BUFFER_PADDING_SIZE zeros. `got` tells whether there is a frame; the result is FFmpeg's, negative
// for an error.
int decodeFirstFrame(AVCodecContext* context, AVFrame* frame, bool* got, unsigned char* data, int size);
