package com.kelvane.media;

import java.io.File;
import java.net.URISyntaxException;
import java.nio.file.Path;
import java.util.LinkedHashMap;
import java.util.Map;

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
 * <li>{@code java.library.path}.
 * </ol>
 */
public final class NativeLibrary {
    private static final String FILE = "libkelvane_media.so";

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

    static java.util.List<String> openH264Places() {
        return java.util.List.of("lib/amd64-Linux-gpp/jni/libopenh264-1.8.0-linux64.4.so", "libopenh264.so.7");
    }

    private static String tryPlaces() {
        Map<String, Runnable> places = new LinkedHashMap<>();
        places.put("system property kelvane.library", NativeLibrary::loadFromProperty);
        places.put("installed tree", () -> loadBesideJar("amd64-Linux-gpp/jni/" + FILE));
        places.put("folder of the jar", () -> loadBesideJar(FILE));
        places.put("java.library.path", () -> System.loadLibrary("kelvane_media"));

        StringBuilder failure = new StringBuilder(FILE + " could not be loaded. Tried:");
        for (Map.Entry<String, Runnable> place : places.entrySet()) {
            try {
                place.getValue().run();
                return null;
            } catch (UnsatisfiedLinkError e) {
                failure.append("\n  ").append(place.getKey()).append(": ").append(e.getMessage());
            }
        }
        return failure.append("\nTo fix it, set -Dkelvane.library=/path/to/" + FILE
                + " or run from an installed tree (lib/kelvane-media.jar beside lib/amd64-Linux-gpp/jni/" + FILE + ").")
                .toString();
    }

    private static void loadFromProperty() {
        String file = System.getProperty("kelvane.library");
        if (file == null) {
            throw new UnsatisfiedLinkError("not set");
        }
        System.load(new File(file).getAbsolutePath());
    }

    private static void loadBesideJar(String file) {
        Path jar;
        try {
            jar = Path.of(NativeLibrary.class.getProtectionDomain().getCodeSource().getLocation().toURI());
        } catch (RuntimeException | URISyntaxException e) {
            // A class loader may give no code source, or one that is no file (a jar inside a jar).
            throw new UnsatisfiedLinkError("the place of the jar is unknown (" + e + ")");
        }
        System.load(jar.resolveSibling(file).toString());
    }
}
