package com.kelvane.media;

/**
 * Thrown when an engine cannot be made or cannot go on: a library is missing, a codec refuses its settings, there is no
 * memory. The message says what was missing and what to do about it. What merely does not decode is never thrown.
 */
public class MediaException extends RuntimeException {
    private static final long serialVersionUID = 1;

    /**
     * An exception without a cause.
     *
     * @param message what went wrong and how to mend it
     */
    public MediaException(String message) {
        super(message);
    }

    /**
     * An exception with a cause.
     *
     * @param message what went wrong and how to mend it
     * @param cause what it came from
     */
    public MediaException(String message, Throwable cause) {
        super(message, cause);
    }
}
