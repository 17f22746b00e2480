package com.kelvane.media;

import com.kelvane.media.transform.codec.AVCProcessor;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Set;
import java.util.TreeSet;

/**
 * A processing module: a shared library that works on the pictures of {@linkplain Pipeline pipelines}. Once loaded it
 * stays loaded, for all pipelines and for the life of the process, which holds at most 256.
 *
 * <p>A module runs inside this process and on the threads that use its pipelines: what it does wrong ends the process.
 */
public final class ProcessingModule {
    private static final List<String> ENTRY_POINTS = List.of("GetGuid", "CreateVideoProcessor", "DestroyVideoProcessor");
    private static final long LARGEST_FILE = 1 << 30; // bytes
    private static final Map<Integer, ProcessingModule> LOADED = new HashMap<>();

    private final Path file;
    private final int guid;

    private ProcessingModule(Path file, int guid) {
        this.file = file;
        this.guid = guid;
    }

    /**
     * Loads a module; one that is loaded already is not loaded again.
     *
     * @param file the shared library
     * @return the module
     * @throws MediaException if the file cannot be read, is no processing module, needs a library that is missing, or has
     *         the GUID of a module that was loaded from another file
     */
    public static ProcessingModule load(Path file) {
        Natives.load();
        Path path;
        try {
            path = file.toRealPath();
            if (!Files.isRegularFile(path)) {
                throw new MediaException(file + " is not a file");
            }
            // The native loader says only that it could not load a module, and nothing of one that makes no processor.
            exportedSymbols(path).ifPresent(exported -> ENTRY_POINTS.stream().filter(name -> !exported.contains(name))
                    .findFirst().ifPresent(missing -> {
                        throw new MediaException(file + " is no processing module: it does not export " + missing);
                    }));
        } catch (IOException unreadable) {
            throw new MediaException(file + (Files.exists(file) ? " cannot be read: " + unreadable.getMessage()
                    : ": no such file"), unreadable);
        }
        synchronized (LOADED) {
            for (ProcessingModule module : LOADED.values()) {
                if (module.file.equals(path)) {
                    return module;
                }
            }
            int guid = AVCProcessor.loadLibrary(path.toString());
            if (guid == 0) {
                throw new MediaException(file + " could not be loaded: a library that it needs may be missing, its GUID may be"
                        + " 0, or 256 modules are loaded");
            }
            ProcessingModule module = new ProcessingModule(path, guid);
            ProcessingModule other = LOADED.putIfAbsent(guid, module);
            if (other != null) {
                throw new MediaException(file + " has the GUID of " + other.file + ", " + Integer.toUnsignedString(guid)
                        + ", and pipelines know modules by it; give it another");
            }
            return module;
        }
    }

    /** {@return the file that the module was loaded from} */
    public Path file() {
        return file;
    }

    /** {@return the number that the module names itself by; all 32 bits count} */
    public int guid() {
        return guid;
    }

    @Override
    public String toString() {
        return file.toString();
    }

    /** The names that a library exports; nothing when it has no section headers to find them by. */
    private static Optional<Set<String>> exportedSymbols(Path file) throws IOException {
        try {
            // Read, not mapped: a mapped file that somebody cuts short ends the virtual machine.
            byte[] contents = Files.size(file) > LARGEST_FILE ? new byte[0] : Files.readAllBytes(file);
            ByteBuffer elf = ByteBuffer.wrap(contents).order(ByteOrder.LITTLE_ENDIAN);
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
            throw new MediaException(file + " is not a shared library for 64-bit x86 Linux", malformed);
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
