package com.kelvane.media;

/** Runs callbacks to the end of a round, whatever they throw, and throws the first exception then. */
final class Failures {
    private Throwable first;

    void of(Runnable callback) {
        try {
            callback.run();
        } catch (Throwable thrown) { // a callback written in another language may throw checked exceptions
            add(thrown);
        }
    }

    /** Throws nothing itself; any thread may call it. */
    synchronized void add(Throwable thrown) {
        if (first == null) {
            first = thrown;
        } else if (first != thrown) {
            try {
                first.addSuppressed(thrown);
            } catch (Throwable noJavaMemory) {
                // The first one is told all the same.
            }
        }
    }

    void rethrow() {
        if (first != null) {
            Failures.<RuntimeException>raise(first);
        }
    }

    @SuppressWarnings("unchecked")
    private static <T extends Throwable> void raise(Throwable thrown) throws T {
        throw (T) thrown;
    }
}
