package com.kelvane.media;

import java.util.Arrays;
import java.util.List;
import java.util.Objects;
import java.util.Optional;

/**
 * The H.264 NAL units of one picture in byte-stream form (Annex B of the standard): each behind a start code, parameter
 * sets ahead of the first slice that needs them.
 *
 * @param bytes the NAL units; not copied
 * @param time presentation time, in milliseconds or whatever the engine counts in
 */
public record AccessUnit(byte[] bytes, long time) {
    /**
     * An access unit over an array.
     *
     * @param bytes the NAL units; not copied
     * @param time presentation time, in milliseconds or whatever the engine counts in
     */
    public AccessUnit {
        Objects.requireNonNull(bytes, "bytes");
    }

    /**
     * {@return the parameter sets ahead of its first slice, which a key picture has} Empty unless there is one of each at
     * least.
     */
    public Optional<ParameterSets> parameterSets() {
        return ParameterSets.in(bytes, bytes.length);
    }

    /** {@return whether decoding can begin here: the picture is an IDR picture} */
    public boolean isKey() {
        return AnnexB.isKey(bytes, bytes.length);
    }

    /**
     * Whether bytes look like an access unit as the engines take it.
     *
     * @param bytes any
     * @return whether they begin with a start code, 00 00 00 01 or 00 00 01
     */
    public static boolean isByteStream(byte[] bytes) {
        return AnnexB.isChecked(bytes);
    }

    /**
     * Cuts a raw stream, as in a {@code .h264} file, into its access units. What precedes the first start code is left
     * out.
     *
     * @param stream NAL units in byte-stream form
     * @return the access units in decoding order, without times, which a raw stream does not have
     */
    public static List<byte[]> split(byte[] stream) {
        return AnnexB.split(stream);
    }

    /**
     * {@return whether the other is one with the same components, the array's content among them} As with a
     * {@link java.nio.ByteBuffer}, that and the hash code change with what is written to the array.
     */
    @Override
    public boolean equals(Object other) {
        return other instanceof AccessUnit unit && time == unit.time
                && Arrays.equals(bytes, unit.bytes);
    }

    @Override
    public int hashCode() {
        return Objects.hash(time, Arrays.hashCode(bytes));
    }
}
