package com.kelvane.media;

import java.io.IOException;
import java.io.InputStream;
import java.lang.module.ModuleFinder;
import java.lang.module.ModuleReference;
import java.net.URI;
import java.net.URL;
import java.net.URLConnection;
import java.nio.file.Path;
import java.util.Optional;
import java.util.jar.Manifest;
import java.util.stream.Stream;

/** The jar with the native libraries for this machine, the artifact of classifier {@link NativeLibrary#PLATFORM}. */
final class NativesJar {
    // No package name, so that a module does not hide it.
    private static final String INDEX = "META-INF/natives/" + NativeLibrary.PLATFORM + "/SHA256SUMS";
    private static final String MODULE = "com.kelvane.media.natives." + NativeLibrary.PLATFORM.replace('-', '.');

    private NativesJar() {
    }

    /**
     * Finds the jar: on the class path or module path of this class.
     *
     * @throws IOException if it is not there, or cannot be read
     */
    static PackedFiles libraries() throws IOException {
        URL index = locate();
        if (index == null) {
            throw new NotThere("not on the class path or module path");
        }
        return new PackedFiles(index);
    }

    /** The version of glibc that the libraries in the jar need at least; null when the jar is not there or does not tell. */
    static String neededGlibc() {
        try {
            URL index = locate();
            if (index == null) {
                return null;
            }
            URLConnection manifest = new URL(index, "/META-INF/MANIFEST.MF").openConnection();
            manifest.setUseCaches(false);
            try (InputStream text = manifest.getInputStream()) {
                return new Manifest(text).getMainAttributes().getValue("Needs-Glibc");
            }
        } catch (IOException e) {
            return null;
        }
    }

    // As a module this class sees the jar on its class loader if that is the loader of all modules; in a layer with a
    // loader for each module; and, where no module requires the jar, on the module path alone.
    private static URL locate() throws IOException {
        URL found = resource(NativesJar.class.getClassLoader());
        ModuleLayer layer = NativesJar.class.getModule().getLayer();
        if (found == null && layer != null) {
            found = layer.findModule(MODULE).map(module -> resource(module.getClassLoader())).orElse(null);
        }
        String modulePath = System.getProperty("jdk.module.path");
        if (found == null && layer != null && modulePath != null) {
            Path[] places = Stream.of(modulePath.split(":")).map(Path::of).toArray(Path[]::new);
            Optional<URI> jar = ModuleFinder.of(places).find(MODULE).flatMap(ModuleReference::location);
            found = jar.isPresent() ? new URL("jar:" + jar.get() + "!/" + INDEX) : null;
        }
        return found;
    }

    private static URL resource(ClassLoader loader) {
        return loader == null ? ClassLoader.getSystemResource(INDEX) : loader.getResource(INDEX);
    }
}
