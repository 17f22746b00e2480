package com.kelvane.media;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.function.LongConsumer;
import java.util.function.LongSupplier;

/**
 * The native engine behind one object of this package. Handles are raw addresses; every call to a native method goes
 * between {@link #enter} and {@link #exit}, which let one thread in at a time and nobody after {@link #close}. An engine
 * that nobody closed is freed when its object has become unreachable.
 */
final class Engine {
    private static final String TRACE = "kelvane.leak.trace";
    private static final Cleaner CLEANER = Cleaner.create();
    private static final FreedMemory MEMORY = new FreedMemory();
    private static final AtomicBoolean WARNED = new AtomicBoolean();
    private static final Object CLOSED = new Object();
    private static final VarHandle USER;

    static {
        try {
            USER = MethodHandles.lookup().findVarHandle(Engine.class, "user", Object.class);
        } catch (ReflectiveOperationException impossible) {
            throw new ExceptionInInitializerError(impossible);
        }
    }

    private final Lifetime lifetime;
    private final Cleaner.Cleanable cleanable;
    // The thread that is inside; null when none is; a Closing thread when another has called close meanwhile; then CLOSED.
    private Object user;

    private Engine(Lifetime lifetime) {
        this.lifetime = lifetime;
        cleanable = CLEANER.register(this, lifetime);
    }

    /**
     * @param name what messages call the engine
     * @param open makes it and returns its handle, or 0 or less
     * @param close frees it
     * @throws MediaException if there is no handle
     */
    static Engine open(String name, LongSupplier open, LongConsumer close) {
        EngineOpened event = new EngineOpened();
        event.begin();
        NativeLibrary.load();
        long handle = open.getAsLong();
        if (handle <= 0) {
            throw new MediaException("the native library could not make a " + name
                    + ": out of memory, or FFmpeg was built without the codec");
        }
        try {
            Engine engine = new Engine(new Lifetime(name, handle, close));
            event.engine = name;
            event.handle = handle;
            event.commit();
            return engine;
        } catch (Throwable noJavaMemory) {
            close.accept(handle);
            throw noJavaMemory;
        }
    }

    /**
     * Lets the calling thread in.
     *
     * @return the handle, valid until {@link #exit}
     * @throws IllegalStateException if the engine is closed or somebody is inside
     */
    long enter(String operation) {
        Object inside = USER.compareAndExchange(this, null, Thread.currentThread());
        if (inside != null) {
            throw refusal(operation, inside);
        }
        return lifetime.handle;
    }

    /**
     * For what any thread may ask for at any time, without coming in.
     *
     * @throws IllegalStateException if the engine is closed
     */
    void checkOpen(String operation) {
        Object inside = USER.getVolatile(this);
        if (inside != null && !(inside instanceof Thread)) {
            throw refusal(operation, inside);
        }
    }

    /** Lets the thread that is inside out. */
    void exit() {
        if (!USER.compareAndSet(this, Thread.currentThread(), null)) {
            USER.setVolatile(this, CLOSED);
            free();
        }
        // Otherwise this object may be unreachable, and its engine freed, while a native method still runs.
        Reference.reachabilityFence(this);
    }

    /**
     * Frees the engine; nothing when that was done before. When another thread is inside, which is how a server ends a
     * stream, that thread frees it on its way out.
     *
     * @throws IllegalStateException if the calling thread itself is inside
     */
    void close() {
        Object inside = USER.compareAndExchange(this, null, CLOSED);
        while (inside instanceof Thread) {
            if (inside == Thread.currentThread()) {
                throw refusal("close", inside);
            }
            Object found = USER.compareAndExchange(this, inside, new Closing((Thread) inside));
            if (found == inside) {
                return;
            }
            inside = found == null ? USER.compareAndExchange(this, null, CLOSED) : found;
        }
        if (inside == null) {
            free();
        }
    }

    private void free() {
        lifetime.closed = true;
        cleanable.clean();
    }

    private IllegalStateException refusal(String operation, Object inside) {
        String call = lifetime.name + "." + operation;
        if (!(inside instanceof Thread)) {
            return new IllegalStateException(call + ": this " + lifetime.name + " is closed");
        }
        if (inside == Thread.currentThread()) {
            return new IllegalStateException(call + ": called from a callback of the same " + lifetime.name
                    + ", which is still at work; do it when the call that makes the callbacks has returned");
        }
        return new IllegalStateException(call + ": this " + lifetime.name + " is in use by the thread "
                + nameOf((Thread) inside) + "; one thread may use it at a time");
    }

    // Virtual threads have no name unless they are given one.
    private static String nameOf(Thread thread) {
        return thread.getName().isEmpty() ? "with the id " + thread.getId() : '"' + thread.getName() + '"';
    }

    private record Closing(Thread inside) {
    }

    /** What outlives the engine's object: all that freeing it takes. */
    private static final class Lifetime implements Runnable {
        private final String name;
        private final long handle;
        private final LongConsumer close;
        private final Throwable opened = Boolean.getBoolean(TRACE) ? new Throwable("opened here") : null;
        private volatile boolean closed;

        private Lifetime(String name, long handle, LongConsumer close) {
            this.name = name;
            this.handle = handle;
            this.close = close;
            MEMORY.opened();
        }

        @Override
        public void run() {
            EngineClosed event = new EngineClosed();
            event.begin();
            close.accept(handle);
            if (MEMORY.closed()) {
                FreedMemory.giveBack();
            }
            event.engine = name;
            event.handle = handle;
            event.leaked = !closed;
            event.commit();
            if (!closed) {
                warn();
            }
        }

        // One warning a process is enough to start looking; with the traces each tells something new.
        private void warn() {
            if (opened != null) {
                System.getLogger("com.kelvane.media").log(System.Logger.Level.WARNING,
                        "a " + name + " was never closed; the garbage collector had to free it", opened);
            } else if (WARNED.compareAndSet(false, true)) {
                System.getLogger("com.kelvane.media").log(System.Logger.Level.WARNING, "a " + name
                        + " was never closed; the garbage collector had to free it. -D" + TRACE
                        + "=true tells where each one was opened; without it this is the only warning");
            }
        }
    }
}
