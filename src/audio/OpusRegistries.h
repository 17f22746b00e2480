#pragma once

#include "bridge/Registries.h"

[[maybe_unused]] static OpusDecoderContext opus_dec_ctx;
[[maybe_unused]] static OpusEncoderContext opus_enc_ctx;
