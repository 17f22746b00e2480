#pragma once

#include "bridge/Owners.h"

#include <opus.h>

struct OpusDeleter {
    void operator()(OpusDecoder* decoder) const { opus_decoder_destroy(decoder); }
    void operator()(OpusEncoder* encoder) const { opus_encoder_destroy(encoder); }
};
using OpusDecoderOwner = std::unique_ptr<OpusDecoder, OpusDeleter>;
using OpusEncoderOwner = std::unique_ptr<OpusEncoder, OpusDeleter>;
