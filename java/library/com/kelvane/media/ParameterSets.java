package com.kelvane.media;

import java.io.ByteArrayOutputStream;
import java.nio.BufferUnderflowException;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.Optional;
import java.util.Set;

/**
 * H.264's sequence and picture parameter sets: what a decoder has to have ahead of the first picture, in the forms that
 * containers and signalling want. Those of a rendition come with its first key picture:
 * <pre>{@code
 * picture.newParameterSets().ifPresent(sets -> announce(sets.codecs(), sets.avcC()));
 * }</pre>
 *
 * <p>Two of them are equal when they hold the same bytes in the same order.
 */
public final class ParameterSets {
    private static final byte[] START_CODE = {0, 0, 0, 1};
    private static final int SEQUENCE = 7;
    private static final int PICTURE = 8;
    private static final int DELIMITER = 9;
    private static final int SHORTEST_SEQUENCE = 4; // its header, profile, compatibility, level
    // What an AVCDecoderConfigurationRecord has room for.
    private static final int MOST_SEQUENCES = 31;
    private static final int MOST_PICTURES = 255;
    private static final int LONGEST_SET = 65_535;
    // Baseline, Main and Extended: their record ends with the sets.
    private static final Set<Integer> PLAIN_PROFILES = Set.of(66, 77, 88);
    private static final Set<Integer> PROFILES_WITH_FORMAT = Set.of(44, 83, 86, 100, 110, 118, 122, 128, 134, 135, 138, 139, 244);
    private static final int PLANES = 3; // the format of pictures with full chroma, which may be coded plane by plane

    private final List<byte[]> sequences;
    private final List<byte[]> pictures;

    private ParameterSets(List<byte[]> sequences, List<byte[]> pictures) {
        this.sequences = sequences;
        this.pictures = pictures;
    }

    /**
     * Takes them from a container or from signalling.
     *
     * @param sets SPS and PPS in byte-stream form, or an AVCDecoderConfigurationRecord (avcC); copied
     * @return the parameter sets
     * @throws IllegalArgumentException if there is not one of each at least, or more than a record has room for
     */
    public static ParameterSets of(byte[] sets) {
        return in(sets).orElseThrow(() -> new IllegalArgumentException("there is no SPS or no PPS in the " + sets.length
                + " bytes of parameter sets, or more than an AVCDecoderConfigurationRecord holds"));
    }

    /**
     * Looks for them in an access unit.
     *
     * @param accessUnit in byte-stream form; what is taken from it is copied. Or whatever {@link #of} takes
     * @return those ahead of its first slice; empty unless there is one of each at least
     */
    public static Optional<ParameterSets> in(byte[] accessUnit) {
        return accessUnit.length > 0 && accessUnit[0] == 1 ? ofRecord(accessUnit) : in(accessUnit, accessUnit.length);
    }

    static Optional<ParameterSets> in(byte[] bytes, int length) {
        List<byte[]> sequences = new ArrayList<>();
        List<byte[]> pictures = new ArrayList<>();
        AnnexB.forEachNal(bytes, length, (from, to) -> {
            int type = bytes[from] & 31;
            if (type == SEQUENCE) {
                sequences.add(Arrays.copyOfRange(bytes, from, to));
            } else if (type == PICTURE) {
                pictures.add(Arrays.copyOfRange(bytes, from, to));
            }
            return !AnnexB.isSlice(type);
        });
        return checked(sequences, pictures);
    }

    private static Optional<ParameterSets> ofRecord(byte[] bytes) {
        ByteArrayOutputStream stream = new ByteArrayOutputStream();
        ByteBuffer record = ByteBuffer.wrap(bytes);
        try {
            record.position(5); // version, profile, compatibility, level, size of lengths
            for (int most : new int[] {MOST_SEQUENCES, MOST_PICTURES}) {
                for (int left = record.get() & most; left > 0; left--) {
                    byte[] set = new byte[record.getShort() & 0xffff];
                    record.get(set);
                    stream.writeBytes(START_CODE);
                    stream.writeBytes(set);
                }
            }
        } catch (IllegalArgumentException | BufferUnderflowException cutShort) {
            return Optional.empty();
        }
        return in(stream.toByteArray(), stream.size());
    }

    private static Optional<ParameterSets> checked(List<byte[]> sequences, List<byte[]> pictures) {
        sequences.removeIf(set -> set.length < SHORTEST_SEQUENCE || set.length > LONGEST_SET);
        pictures.removeIf(set -> set.length < 2 || set.length > LONGEST_SET);
        boolean usable = !sequences.isEmpty() && sequences.size() <= MOST_SEQUENCES && !pictures.isEmpty()
                && pictures.size() <= MOST_PICTURES;
        return usable ? Optional.of(new ParameterSets(sequences, pictures)) : Optional.empty();
    }

    /** Those that hold from an access unit on: its own, or {@code before}, itself, where it has none or the same. */
    static ParameterSets from(ParameterSets before, byte[] bytes, int length) {
        Optional<ParameterSets> carried = in(bytes, length);
        return carried.isEmpty() || carried.get().equals(before) ? before : carried.get();
    }

    /** {@return them in byte-stream form, each behind a start code: the sequence parameter sets first} */
    public byte[] bytes() {
        ByteArrayOutputStream stream = new ByteArrayOutputStream();
        for (List<byte[]> kind : List.of(sequences, pictures)) {
            for (byte[] set : kind) {
                stream.writeBytes(START_CODE);
                stream.writeBytes(set);
            }
        }
        return stream.toByteArray();
    }

    /**
     * {@return an AVCDecoderConfigurationRecord, which MP4, Matroska, FLV and WebCodecs begin with} Each NAL unit of the
     * pictures is to be behind its length in four bytes then, in place of a start code.
     */
    public byte[] avcC() {
        byte[] sequence = sequences.get(0);
        ByteArrayOutputStream record = new ByteArrayOutputStream();
        record.write(1); // version
        record.write(sequence, 1, 3);
        record.write(0xfc | START_CODE.length - 1); // bytes of a length, less one
        record.write(0xe0 | sequences.size());
        write(sequences, record);
        record.write(pictures.size());
        write(pictures, record);
        int profile = sequence[1] & 0xff;
        if (!PLAIN_PROFILES.contains(profile)) {
            SetReader reader = new SetReader(sequence);
            reader.number(); // of the set
            boolean told = PROFILES_WITH_FORMAT.contains(profile);
            int format = told ? reader.number() : 1;
            if (format == PLANES) {
                reader.bit();
            }
            record.write(0xfc | format & 3);
            record.write(0xf8 | (told ? reader.number() & 7 : 0)); // bits of a sample above 8
            record.write(0xf8 | (told ? reader.number() & 7 : 0));
            record.write(0); // extensions
        }
        return record.toByteArray();
    }

    private static void write(List<byte[]> sets, ByteArrayOutputStream record) {
        for (byte[] set : sets) {
            record.write(set.length >> 8);
            record.write(set.length);
            record.writeBytes(set);
        }
    }

    /** {@return how RFC 6381 calls a stream with them, for playlists and players: {@code avc1.42c01f} for instance} */
    public String codecs() {
        byte[] set = sequences.get(0);
        return String.format(Locale.ROOT, "avc1.%02x%02x%02x", set[1], set[2], set[3]);
    }

    /**
     * Has an access unit begin with them, so that decoding can begin there.
     *
     * @param accessUnit in byte-stream form
     * @return a copy with them, behind the access unit delimiter where it has one; itself where it has some of its own
     * @throws IllegalArgumentException if {@code accessUnit} does not begin with a start code
     */
    public byte[] prependTo(byte[] accessUnit) {
        byte[] unit = AnnexB.checked(accessUnit);
        if (in(unit, unit.length).isPresent()) {
            return accessUnit;
        }
        byte[] sets = bytes();
        int at = (unit[START_CODE.length] & 31) == DELIMITER ? AnnexB.nextStartCode(unit, START_CODE.length) : 0;
        return ByteBuffer.allocate(sets.length + unit.length).put(unit, 0, at).put(sets).put(unit, at, unit.length - at).array();
    }

    @Override
    public boolean equals(Object other) {
        return other instanceof ParameterSets sets && Arrays.equals(bytes(), sets.bytes());
    }

    @Override
    public int hashCode() {
        return Arrays.hashCode(bytes());
    }

    @Override
    public String toString() {
        return codecs() + ", " + sequences.size() + " SPS, " + pictures.size() + " PPS";
    }

    /** Reads a sequence parameter set from behind its level; what lies behind the end is 0. */
    private static final class SetReader {
        private final byte[] bytes;
        private int at = 8 * SHORTEST_SEQUENCE;

        SetReader(byte[] set) {
            ByteArrayOutputStream bits = new ByteArrayOutputStream();
            for (int i = 0; i < set.length; i++) {
                if (i < 2 || set[i] != 3 || set[i - 1] != 0 || set[i - 2] != 0) { // which keeps start codes out
                    bits.write(set[i]);
                }
            }
            bytes = bits.toByteArray();
        }

        int bit() {
            int value = at / 8 < bytes.length ? bytes[at / 8] >> 7 - at % 8 & 1 : 0;
            at++;
            return value;
        }

        /** An Exp-Golomb code; none that is read here has more than five leading zeros. */
        int number() {
            int zeros = 0;
            while (zeros < 6 && bit() == 0) {
                zeros++;
            }
            int value = 1;
            for (int i = 0; i < zeros; i++) {
                value = value << 1 | bit();
            }
            return value - 1;
        }
    }
}
