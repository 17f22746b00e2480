package com.kelvane.media.tool;

import com.kelvane.media.transform.codec.AVCProcessor;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Optional;
import java.util.Set;
import java.util.TreeSet;

/** A processing module, loaded into the library. */
final class ProcessingModule {
    record Setting(String key, String value) {
    }

    private static final List<String> ENTRY_POINTS = List.of("GetGuid", "CreateVideoProcessor", "DestroyVideoProcessor");

    private final Path file;
    private final int guid;

    ProcessingModule(Path file) throws IOException {
        this.file = file;
        if (!Files.isRegularFile(file)) {
            throw new Failure(Files.exists(file) ? "%s is not a file" : "%s: no such file", file);
        }
        // The library only says that it could not load a module, and nothing of one that cannot make a processor.
        exportedSymbols(file).ifPresent(exported -> ENTRY_POINTS.stream().filter(name -> !exported.contains(name)).findFirst()
                .ifPresent(missing -> {
                    throw new Failure("%s is no processing module: it does not export %s", file, missing);
                }));
        guid = AVCProcessor.loadLibrary(file.toString());
        if (guid == 0) {
            throw new Failure("%s could not be loaded; a library that it needs may be missing, or its GUID is 0", file);
        }
    }

    Path file() {
        return file;
    }

    /** Attaches the module to a pipeline and hands it its settings. */
    void attach(List<Setting> settings, long pipeline) {
        AVCProcessor.brew(guid, pipeline);
        for (Setting setting : settings) {
            if (AVCProcessor.apply(Integer.toUnsignedLong(guid), setting.key, setting.value, pipeline) <= 0) {
                throw new Failure("%s refused the setting %s=%s", file, setting.key, setting.value);
            }
        }
    }

    /** The names that a library exports; nothing when it has no section headers to find them by. */
    private static Optional<Set<String>> exportedSymbols(Path file) throws IOException {
        try (FileChannel channel = FileChannel.open(file)) {
            ByteBuffer elf = channel.map(FileChannel.MapMode.READ_ONLY, 0, channel.size()).order(ByteOrder.LITTLE_ENDIAN);
            if (elf.getInt(0) != 0x464c457f || elf.get(4) != 2 || elf.getShort(18) != 62) { // \x7fELF, 64 bits, x86
                throw new IndexOutOfBoundsException();
            }
            int sections = Math.toIntExact(elf.getLong(40));
            int sectionSize = elf.getShort(58);
            for (int section = sections, i = 0; i < elf.getShort(60); i++, section += sectionSize) {
                if (elf.getInt(section + 4) == 11) { // the dynamic symbols
                    int names = Math.toIntExact(elf.getLong(sections + elf.getInt(section + 40) * sectionSize + 24));
                    int symbols = Math.toIntExact(elf.getLong(section + 24));
                    return Optional.of(definedNames(elf, symbols, symbols + Math.toIntExact(elf.getLong(section + 32)), names));
                }
            }
            return Optional.empty();
        } catch (IndexOutOfBoundsException | ArithmeticException malformed) {
            throw new Failure("%s is not a shared library for 64-bit x86 Linux", file);
        }
    }

    private static Set<String> definedNames(ByteBuffer elf, int begin, int end, int names) {
        Set<String> defined = new TreeSet<>();
        for (int symbol = begin; symbol < end; symbol += 24) {
            if (elf.getShort(symbol + 6) != 0) { // the section that it lies in
                StringBuilder name = new StringBuilder();
                for (int at = names + elf.getInt(symbol); elf.get(at) != 0; at++) {
                    name.append((char) elf.get(at));
                }
                defined.add(name.toString());
            }
        }
        return defined;
    }
}
