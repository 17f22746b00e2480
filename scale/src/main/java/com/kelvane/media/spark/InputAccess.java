package com.kelvane.media.spark;

import com.kelvane.media.tool.input.MediaFile;
import java.io.Closeable;
import java.io.IOException;
import java.nio.file.Path;
import org.apache.hadoop.conf.Configuration;
import org.apache.hadoop.fs.FileStatus;
import org.apache.hadoop.fs.FileSystem;

/** An input within reach of FFmpeg's programs on this machine: by its path, or by Hadoop through a {@link RangeServer}. */
final class InputAccess implements Closeable {
    private final Path path;
    private final RangeServer.Offer offer; // null for a file

    InputAccess(Source source, Configuration configuration) throws IOException {
        org.apache.hadoop.fs.Path place = new org.apache.hadoop.fs.Path(source.uri());
        FileSystem files = place.getFileSystem(configuration);
        FileStatus status = files.getFileStatus(place);
        if (status.getLen() != source.length() || status.getModificationTime() != source.modified()) {
            throw new IOException(source.uri() + " has changed since the job began");
        }
        path = Path.of(place.toUri().getPath());
        offer = "file".equals(files.getUri().getScheme()) ? null
                : RangeServer.shared().offer(files, place, source.length());
    }

    /** Its path in its file system. */
    Path path() {
        return path;
    }

    /** What FFmpeg's programs are to open. */
    String address() {
        return offer == null ? path.toString() : offer.address();
    }

    /** Reads its headers. */
    MediaFile probe() throws IOException {
        return offer == null ? MediaFile.open(path) : MediaFile.at(offer.address(), path);
    }

    /** Fails when any of it could not be read: then what FFmpeg made of the rest is no result. */
    void check() throws IOException {
        if (offer != null && offer.failure().get() != null) {
            throw new IOException(path + " could not be read", offer.failure().get());
        }
    }

    /** How much was read through Hadoop. */
    long bytesRead() {
        return offer == null ? 0 : offer.read().get();
    }

    @Override
    public void close() throws IOException {
        if (offer != null) {
            RangeServer.shared().withdraw(offer);
        }
    }
}
