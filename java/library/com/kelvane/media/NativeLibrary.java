package com.kelvane.media;

import java.io.IOException;
import java.net.URISyntaxException;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Optional;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;

/**
 * Loads the native library, {@code libkelvane_media.so}, for the classes whose methods it holds. Those classes call
 * {@link #load()} when they are initialised; an application may call it earlier to learn at start-up whether the
 * library is there.
 *
 * <p>The places tried, in this order, up to the first that loads:
 * <ol>
 * <li>the file named by the system property {@code kelvane.library};
 * <li>{@code amd64-Linux-gpp/jni/libkelvane_media.so}, then {@code libkelvane_media.so}, in the folder of the jar that
 *     holds this class;
 * <li>the natives jar (classifier {@code linux-x86_64} or {@code linux-aarch64}) on the class path or module path. Its libraries are unpacked
 *     once for each user, to {@code $XDG_CACHE_HOME/kelvane-media} or {@code ~/.cache/kelvane-media}, and compared with
 *     the jar at every later start. Where that is impossible, or forbidden to hold programs, each process unpacks them
 *     to {@code java.io.tmpdir} and deletes the files as soon as they are loaded;
 * <li>{@code java.library.path}.
 * </ol>
 *
 * <p>Class loaders that each have this class, as those of web applications do, each get a native library of their own,
 * whatever the place: the second one loads a copy, which it makes in {@code java.io.tmpdir} or in the cache and deletes
 * at once.
 *
 * <p>The library is made for Linux with glibc on x86-64 and 64-bit Arm. On another platform only the system property is heeded.
 */
public final class NativeLibrary {
    private static final String NAME = "kelvane_media";
    private static final String FILE = "lib" + NAME + ".so";
    private static final String SUPPORTED = "Linux with glibc on x86-64 and 64-bit Arm";
    private static final String OWN_LIBRARY = "set -Dkelvane.library=/path/to/" + FILE;
    // As the dynamic loader says it of a library that was built on a newer system.
    private static final Pattern NEWER_VERSION = Pattern.compile("version `((?:GLIBC|CXXABI)\\w*_[\\d.]+)' not found");
    // As glibc has it of itself, in its file.
    private static final Pattern GLIBC_ITSELF = Pattern.compile("GNU C Library [^\n]*? version (\\d+\\.\\d+)");

    /** This machine as classifiers of artifacts name it. */
    static final String PLATFORM = "linux-" + platformArchitecture(System.getProperty("os.arch"));

    private static final String OPENH264_OF_TREE = "libopenh264-1.8.0-linux64.4.so";
    private static final List<String> OPENH264_NAMES =
            List.of("libopenh264.so.7", "libopenh264.so.8", "libopenh264.so.6", "libopenh264.so.5", "libopenh264.so.4");

    private interface Place {
        /** Loads the library and tells the folder it lies in, or null. */
        Path load() throws IOException;
    }

    private static Path directory; // set by tryPlaces: no initialiser may follow that one

    // Kept as a text, not thrown from the initialiser: each class that needs the library reports the reasons at its
    // first use, where the virtual machine would report them for the first class only.
    private static final String FAILURE = tryPlaces();

    private NativeLibrary() {
    }

    /**
     * Makes sure that the native library is loaded. The places are tried once in the life of this class, on the first
     * call; any thread may call it any number of times.
     *
     * @throws UnsatisfiedLinkError if no place gave a library that loads; the message lists each place with its reason
     */
    public static void load() {
        if (FAILURE != null) {
            throw new UnsatisfiedLinkError(FAILURE);
        }
    }

    /** The folder that holds the loaded library and those it needs; null when it is not known or is gone. */
    static Path directory() {
        return directory;
    }

    /**
     * Where OpenH264 may be, best place first: absolute paths of files, which need not exist, and names that the linker
     * looks up in its own places. The working directory is none: anybody may put files there.
     */
    static List<String> openH264Places() {
        List<String> places = new ArrayList<>();
        String property = System.getProperty("kelvane.openh264");
        if (property != null) {
            places.add(property.contains("/") ? Path.of(property).toAbsolutePath().toString() : property);
        }
        if (directory != null) {
            places.add(directory.resolve(OPENH264_OF_TREE).toString());
            places.add(directory.resolve(OPENH264_NAMES.get(0)).toString());
        }
        places.addAll(OPENH264_NAMES);
        return places;
    }

    /** Why the library cannot work on a platform; null when it can. */
    static String unsupported(String system, String architecture, Stream<String> memoryMap) {
        if (!"Linux".equals(system) || !List.of("x86_64", "aarch64").contains(platformArchitecture(architecture))) {
            return "it is made for " + SUPPORTED + ", and this is " + system + " on " + architecture;
        }
        if (memoryMap.anyMatch(line -> line.contains("/ld-musl-"))) {
            return "it is made for " + SUPPORTED + ", and the C library of this machine is musl";
        }
        return null;
    }

    private static String platformArchitecture(String architecture) {
        return "amd64".equals(architecture) ? "x86_64" : architecture;
    }

    private static String tryPlaces() {
        Map<String, Place> places = new LinkedHashMap<>();
        places.put("system property kelvane.library", NativeLibrary::loadFromProperty);
        String unsupported = unsupportedHere();
        if (unsupported == null) {
            places.put("installed tree", () -> loadFile(besideJar("amd64-Linux-gpp/jni/" + FILE)));
            places.put("folder of the jar", () -> loadFile(besideJar(FILE)));
            places.put("natives jar, unpacked in the cache", NativeLibrary::loadFromCache);
            places.put("natives jar, unpacked for this process", NativeLibrary::loadUnpacked);
            places.put("java.library.path", NativeLibrary::loadFromLibraryPath);
        }

        List<Throwable> failures = new ArrayList<>();
        StringBuilder failure = new StringBuilder(FILE + " could not be loaded");
        failure.append(unsupported == null ? "." : ": " + unsupported + ".").append(" Tried:");
        for (Map.Entry<String, Place> place : places.entrySet()) {
            try {
                directory = place.getValue().load();
                return null;
            } catch (UnsatisfiedLinkError | IOException | RuntimeException e) {
                failures.add(e);
                failure.append("\n  ").append(place.getKey()).append(": ").append(reason(e));
            }
        }
        return failure.append("\nTo fix it, ").append(unsupported == null ? remedy(failures)
                : "run it on " + SUPPORTED + ", or build it for this platform and " + OWN_LIBRARY).append('.').toString();
    }

    /** What helps against these failures, one for each place. */
    static String remedy(List<? extends Throwable> failures) {
        boolean there = false;
        for (Throwable failure : failures) {
            if (failure instanceof IllegalCallerException) { // from Java 24 on, where that was asked for
                Module module = NativeLibrary.class.getModule();
                return "start the virtual machine with --enable-native-access="
                        + (module.isNamed() ? module.getName() : "ALL-UNNAMED");
            }
            Matcher version = NEWER_VERSION.matcher(String.valueOf(failure.getMessage()));
            if (version.find()) {
                return "run it on a newer system" + (version.group(1).startsWith("GLIBC_")
                        ? " (it " + glibcNeeded(version.group(1).substring("GLIBC_".length())) + ")"
                        : ", which has " + version.group(1)) + ", or build it for this one and " + OWN_LIBRARY;
            }
            there |= !(failure instanceof NotThere || failure instanceof NoSuchFileException);
        }
        return there ? "see to what is told of the library that is there, or " + OWN_LIBRARY
                : "add the artifact com.kelvane:kelvane-media of classifier " + PLATFORM + " to the class path,"
                + " run from an installed tree (lib/kelvane-media.jar beside lib/amd64-Linux-gpp/jni/" + FILE + "), or "
                + OWN_LIBRARY;
    }

    // The loader names the first version that it misses; the jar knows the newest that is needed.
    private static String glibcNeeded(String missing) {
        String jar = NativesJar.neededGlibc();
        String needed = jar != null && Runtime.Version.parse(jar).compareTo(Runtime.Version.parse(missing)) > 0 ? jar : missing;
        String here = glibcHere();
        return "needs glibc " + needed + (here == null ? "" : ", this is " + here);
    }

    private static String glibcHere() {
        try (Stream<String> memoryMap = Files.lines(Path.of("/proc/self/maps"), StandardCharsets.ISO_8859_1)) {
            Optional<String> file = memoryMap.filter(line -> line.matches(".*/libc[.-][^/]*so[^/]*"))
                    .map(line -> line.substring(line.indexOf('/'))).findFirst();
            return file.isPresent() ? glibcVersion(Files.readString(Path.of(file.get()), StandardCharsets.ISO_8859_1)) : null;
        } catch (IOException | RuntimeException e) {
            return null; // then it is not told
        }
    }

    /** The version of the C library with this content of its file; null when it is not told. */
    static String glibcVersion(String file) {
        Matcher version = GLIBC_ITSELF.matcher(file);
        return version.find() ? version.group(1) : null;
    }

    private static String unsupportedHere() {
        try (Stream<String> memoryMap = Files.lines(Path.of("/proc/self/maps"), StandardCharsets.ISO_8859_1)) {
            return unsupported(System.getProperty("os.name"), System.getProperty("os.arch"), memoryMap);
        } catch (IOException | RuntimeException e) {
            return unsupported(System.getProperty("os.name"), System.getProperty("os.arch"), Stream.of());
        }
    }

    private static String reason(Throwable e) {
        return e instanceof UnsatisfiedLinkError || e instanceof NotThere || e.getClass() == IOException.class
                ? e.getMessage() : e.toString();
    }

    private static Path loadFromProperty() throws IOException {
        String file = System.getProperty("kelvane.library");
        if (file == null) {
            throw new NotThere("not set");
        }
        return loadFile(Path.of(file));
    }

    private static Path besideJar(String file) throws NotThere {
        try {
            return Path.of(NativeLibrary.class.getProtectionDomain().getCodeSource().getLocation().toURI())
                    .resolveSibling(file);
        } catch (RuntimeException | URISyntaxException e) {
            // A class loader may give no code source, or one that is no file (a jar inside a jar).
            throw new NotThere("the place of the jar is unknown (" + e + ")");
        }
    }

    private static Path loadFromCache() throws IOException {
        return loadFile(NativesJar.libraries().unpackInto(PrivateFolder.cache()).resolve(FILE));
    }

    private static Path loadUnpacked() throws IOException {
        PackedFiles jar = NativesJar.libraries();
        Path folder = PrivateFolder.temporary();
        try {
            jar.unpackAll(folder);
            System.load(folder.resolve(FILE).toString());
        } finally {
            PrivateFolder.delete(folder); // what is loaded stays, and nothing is left behind when the process is killed
        }
        return null;
    }

    private static Path loadFromLibraryPath() throws IOException {
        UnsatisfiedLinkError failure = null;
        for (String folder : System.getProperty("java.library.path", "").split(":")) {
            Path file = Path.of(folder, FILE);
            if (!folder.isEmpty() && Files.exists(file)) {
                try {
                    return loadFile(file);
                } catch (UnsatisfiedLinkError e) {
                    failure = e;
                }
            }
        }
        if (failure != null) {
            throw failure;
        }
        try {
            System.loadLibrary(NAME); // a class loader may know a place of its own
            return null;
        } catch (UnsatisfiedLinkError e) {
            if (String.valueOf(e.getMessage()).startsWith("no " + NAME + " in ")) {
                throw new NotThere(e.getMessage());
            }
            throw e;
        }
    }

    private static Path loadFile(Path file) throws IOException {
        Path library = file.toRealPath();
        try {
            System.load(library.toString());
        } catch (UnsatisfiedLinkError e) {
            if (!String.valueOf(e.getMessage()).toLowerCase(Locale.ROOT).contains("loaded in another classloader")) {
                throw e;
            }
            loadCopy(library);
        }
        return library.getParent();
    }

    // The virtual machine lets a file be loaded by one class loader, so that another one loads a copy, of this library
    // alone: those it needs are the process's in any case.
    private static void loadCopy(Path file) throws IOException {
        try {
            loadCopy(file, PrivateFolder.temporary());
        } catch (UnsatisfiedLinkError | IOException inTemporary) {
            try {
                loadCopy(file, PrivateFolder.temporary(PrivateFolder.cache()));
            } catch (UnsatisfiedLinkError | IOException inCache) {
                throw new UnsatisfiedLinkError("it is loaded by another class loader, and no copy of it could be:"
                        + " " + reason(inTemporary) + "; " + reason(inCache));
            }
        }
    }

    private static void loadCopy(Path file, Path folder) throws IOException {
        // FFmpeg's libraries of an installed tree look for the others in "../lib", too: a folder in java.io.tmpdir
        // itself would have that where anybody can put files.
        Path copies = folder.resolve("copy");
        try {
            Files.createDirectory(copies);
            Path copy = Files.copy(file, copies.resolve(FILE));
            try (DirectoryStream<Path> siblings = Files.newDirectoryStream(file.getParent(),
                    "lib{av,sw,opus,openh264}*.so*")) {
                for (Path sibling : siblings) {
                    Files.createSymbolicLink(copies.resolve(sibling.getFileName()), sibling);
                }
            }
            System.load(copy.toString());
        } finally {
            PrivateFolder.delete(copies);
            PrivateFolder.delete(folder);
        }
    }
}
