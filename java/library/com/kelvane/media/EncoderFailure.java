package com.kelvane.media;

/**
 * A picture that an encoder failed at. OpenH264 fails at pictures of more bits than it has room for, noise above all, and
 * encodes nothing from then on; so the engine makes its encoder anew. That encodes the picture at once if it can, as a key
 * picture; otherwise the picture is missing, and the next one is a key picture.
 *
 * @param index the rendition's position in {@link Transcoder#renditions}; 0 where there is one encoder
 * @param time the picture's own presentation time, as it was given
 * @param lost whether the picture is missing
 * @param reason what the encoder answered, in words
 */
public record EncoderFailure(int index, long time, boolean lost, String reason) {
}
