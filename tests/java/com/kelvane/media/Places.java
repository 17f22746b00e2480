package com.kelvane.media;

import java.util.List;
import java.util.stream.Stream;

/** Shows what {@link NativeLibrary} tells the rest of its package. */
public final class Places {
    public static void main(String[] arguments) {
        String glibc = "7f0000000000-7f0000001000 r-xp 00000000 08:01 1 /lib/x86_64-linux-gnu/libc.so.6";
        String musl = "7f0000000000-7f0000001000 r-xp 00000000 08:01 1 /lib/ld-musl-x86_64.so.1";
        System.out.println(NativeLibrary.unsupported("Linux", "amd64", Stream.of(glibc)));
        System.out.println(NativeLibrary.unsupported("Linux", "amd64", Stream.of(glibc, musl)));
        System.out.println(NativeLibrary.unsupported("Mac OS X", "x86_64", Stream.of()));
        System.out.println(NativeLibrary.unsupported("Linux", "riscv64", Stream.of()));
        for (String banner : List.of("x\0GNU C Library (Debian GLIBC 2.36-9+deb12u10) stable release version 2.36.\nCopyright",
                "GNU C Library (GNU libc) stable release version 2.17, by Roland McGrath et al.\n", "musl libc")) {
            System.out.println(NativeLibrary.glibcVersion(banner));
        }
        System.out.println(NativeLibrary.directory());
        System.out.println(String.join("\n", NativeLibrary.openH264Places()));
        for (Throwable failure : List.of(new NotThere("not set"), new IllegalCallerException("Illegal native access"),
                new UnsatisfiedLinkError("/lib/x86_64-linux-gnu/libc.so.6: version `GLIBC_2.99' not found (required by it)"),
                new UnsatisfiedLinkError("it: failed to map segment from shared object"))) {
            System.out.println(NativeLibrary.remedy(List.of(new NotThere("not set"), failure)));
        }
        NativeLibrary.load();
    }
}
