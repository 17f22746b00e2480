#pragma once

#include "bridge/Owners.h"

// Decodes the first audio frame of `data` into `frame`, which owns its samples (the context is opened with
// refcounted_frames), and drops the rest. `input` is the packet's memory, kept from call to call; null at
// first. `got` tells whether there is a frame; the result is FFmpeg's, negative for an error.
int decodeFirstFrame(AVCodecContext* context, AVFrame* frame, bool* got, BufferOwner& input,
                     const unsigned char* data, int size);
