package com.kelvane.media;

import java.io.IOException;

/** A place that may have the native library has none. */
final class NotThere extends IOException {
    private static final long serialVersionUID = 1;

    NotThere(String message) {
        super(message);
    }
}
