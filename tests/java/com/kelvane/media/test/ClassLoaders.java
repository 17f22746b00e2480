package com.kelvane.media.test;

import java.io.File;
import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;
import java.util.concurrent.CountDownLatch;

/** Redeploys a web application: one class loader goes while another with the same jars goes on. */
public final class ClassLoaders {
    private static final int PICTURES = 20;
    private static final int PATIENCE = 500; // collections, 20 ms apart

    private static volatile boolean done;

    public static void main(String[] jars) throws Exception {
        URL[] urls = new URL[jars.length];
        for (int i = 0; i < jars.length; i++) {
            urls[i] = new File(jars[i]).toURI().toURL();
        }
        CountDownLatch bothLoaded = new CountDownLatch(2);
        Thread other = new Thread(() -> deploy(urls, bothLoaded, true));
        other.setUncaughtExceptionHandler((thread, e) -> {
            e.printStackTrace(System.out);
            System.exit(1);
        });
        other.setDaemon(true); // so that a failure of this thread ends the process, too
        other.start();
        WeakReference<ClassLoader> first = deploy(urls, bothLoaded, false);
        for (int i = 0; i < PATIENCE && first.get() != null; i++) {
            System.gc();
            Thread.sleep(20);
        }
        // With the end of the line in it: the other thread's codecs print, too.
        System.out.print(first.get() == null ? "first class loader collected\n" : "first class loader stays\n");
        deploy(urls, bothLoaded, false);
        done = true;
        other.join();
        System.out.println("other class loader went on");
    }

    private static WeakReference<ClassLoader> deploy(URL[] jars, CountDownLatch bothLoaded, boolean untilDone) {
        try (URLClassLoader loader = new URLClassLoader(jars, ClassLoader.getPlatformClassLoader())) {
            Runnable application = application(loader);
            application.run();
            bothLoaded.countDown();
            bothLoaded.await();
            for (int i = 0; i < PICTURES || untilDone && !done; i++) {
                application.run();
            }
            return new WeakReference<>(loader);
        } catch (Exception e) {
            throw new IllegalStateException(e);
        }
    }

    private static Runnable application(ClassLoader loader) throws ReflectiveOperationException {
        return (Runnable) loader.loadClass(Picture.class.getName()).getConstructor().newInstance();
    }
}
