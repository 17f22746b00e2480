package com.kelvane.media;

import com.kelvane.media.transform.codec.AVCProcessor;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashMap;
import java.util.Map;

/**
 * A processing module: a shared library that works on the pictures of {@linkplain Pipeline pipelines}. Once loaded it
 * stays loaded, for all pipelines and for the life of the process, which holds at most 256.
 *
 * <p>A module runs inside this process and on the threads that use its pipelines: what it does wrong ends the process.
 */
public final class ProcessingModule {
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
            String problem = AVCProcessor.problem(path.toString());
            if (problem != null) {
                throw new MediaException(file + " is no processing module: " + problem);
            }
            int guid = AVCProcessor.loadLibrary(path.toString());
            if (guid == 0) {
                throw new MediaException(file + " could not be loaded: its GUID is 0, it was built for another interface, or 256"
                        + " modules are loaded; kelvane-module-check tells which");
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
}
