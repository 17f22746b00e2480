package com.kelvane.media.tool.packager;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.util.stream.Stream;

/** What the files of a ladder are called: a folder for each rendition and for the sound, and a playlist of them all. */
public final class Names {
    public static final String MASTER = "master.m3u8";
    /** Folder of the sound. */
    public static final String SOUND = "sound";
    public static final String PLAYLIST = "media.m3u8";
    public static final String INITIALISATION = "init.mp4";

    private Names() {
    }

    /** A segment, from 0. */
    public static String segment(int number) {
        return number + ".m4s";
    }

    /** Whether a folder holds nothing but what a ladder has in it, so that another may replace it. */
    public static boolean isOurs(Path folder) throws IOException {
        if (!Files.isDirectory(folder, LinkOption.NOFOLLOW_LINKS)) {
            return false;
        }
        try (Stream<Path> files = Files.list(folder)) {
            return files.map(file -> file.getFileName().toString())
                    .allMatch(name -> name.matches("\\.?media\\.m3u8|\\.?init(-\\d+)?\\.mp4|\\d+\\.m4s|\\.segment-\\d+|\\.\\d+\\.m4s"));
        }
    }
}
