package neighbours.columns;

import io.netty.buffer.UnpooledByteBufAllocator;
import io.netty.handler.ssl.OpenSsl;
import io.netty.handler.ssl.ReferenceCountedOpenSslEngine;
import io.netty.handler.ssl.SslContext;
import io.netty.handler.ssl.SslContextBuilder;
import io.netty.handler.ssl.SslProvider;
import io.netty.internal.tcnative.SSL;
import io.netty.internal.tcnative.SSLContext;
import io.netty.util.ReferenceCountUtil;
import java.io.IOException;
import java.net.Socket;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.cert.X509Certificate;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.atomic.AtomicReference;
import javax.net.ssl.KeyManagerFactory;
import javax.net.ssl.SSLEngine;
import javax.net.ssl.X509ExtendedTrustManager;
import neighbours.Case;
import neighbours.Column;

/** netty-tcnative (BoringSSL): its raw classes with long handles, and Netty's reference-counted engine above them. */
public final class Tcnative implements Column {
    private static final AtomicReference<ReferenceCountedOpenSslEngine> SHARED = new AtomicReference<>();

    @Override
    public String title() {
        return "netty-tcnative";
    }

    @Override
    public List<String> jars() {
        return List.of("netty-");
    }

    @Override
    public String smoke() throws Exception {
        OpenSsl.ensureAvailability();
        ReferenceCountedOpenSslEngine engine = engine();
        int bytes = hello(engine);
        engine.release();
        return OpenSsl.versionString() + ", a client hello of " + bytes + " bytes";
    }

    private static SslContext context(X509ExtendedTrustManager trust) throws Exception {
        OpenSsl.ensureAvailability();
        return SslContextBuilder.forClient().sslProvider(SslProvider.OPENSSL_REFCNT).trustManager(trust)
                .endpointIdentificationAlgorithm(null).build();
    }

    private static ReferenceCountedOpenSslEngine engine(SslContext context) {
        SHARED.set((ReferenceCountedOpenSslEngine) context.newEngine(UnpooledByteBufAllocator.DEFAULT));
        return SHARED.get();
    }

    private static ReferenceCountedOpenSslEngine engine() throws Exception {
        return engine(context(new Trust(() -> { })));
    }

    private static int hello(SSLEngine engine) throws Exception {
        return engine.wrap(ByteBuffer.allocate(0), ByteBuffer.allocate(20_000)).bytesProduced();
    }

    /** Calls back in the midst of a handshake. */
    private static final class Trust extends X509ExtendedTrustManager {
        private final Case.Action action;
        private String inside = "not reached";

        Trust(Case.Action action) {
            this.action = action;
        }

        private void call() {
            inside = "entered, not left";
            try {
                action.run();
                inside = "returned";
            } catch (Throwable t) {
                inside = Case.describe(t);
                if (t instanceof IllegalArgumentException own) {
                    throw own;
                }
            }
        }

        @Override
        public void checkClientTrusted(X509Certificate[] chain, String type, Socket socket) {
            call();
        }

        @Override
        public void checkServerTrusted(X509Certificate[] chain, String type, Socket socket) {
            call();
        }

        @Override
        public void checkClientTrusted(X509Certificate[] chain, String type, SSLEngine engine) {
            call();
        }

        @Override
        public void checkServerTrusted(X509Certificate[] chain, String type, SSLEngine engine) {
            call();
        }

        @Override
        public void checkClientTrusted(X509Certificate[] chain, String type) {
            call();
        }

        @Override
        public void checkServerTrusted(X509Certificate[] chain, String type) {
            call();
        }

        @Override
        public X509Certificate[] getAcceptedIssuers() {
            return new X509Certificate[0];
        }
    }

    private static SSLEngine server() throws Exception {
        Path store = Files.createTempDirectory("keys").resolve("server.p12");
        Process keytool = new ProcessBuilder("keytool", "-genkeypair", "-alias", "s", "-keyalg", "EC", "-dname", "CN=s",
                "-storetype", "PKCS12", "-keystore", store.toString(), "-storepass", "secret").inheritIO().start();
        if (keytool.waitFor() != 0) {
            throw new IOException("keytool failed");
        }
        KeyManagerFactory keys = KeyManagerFactory.getInstance(KeyManagerFactory.getDefaultAlgorithm());
        keys.init(KeyStore.getInstance(store.toFile(), "secret".toCharArray()), "secret".toCharArray());
        return SslContextBuilder.forServer(keys).sslProvider(SslProvider.JDK).build()
                .newEngine(UnpooledByteBufAllocator.DEFAULT);
    }

    /** A handshake in memory with the JDK's server; the client checks the certificate with the misuse in hand. */
    private static String handshake(Case.Action misuse) throws Exception {
        Trust trust = new Trust(misuse);
        SSLEngine client = engine(context(trust));
        SSLEngine server = server();
        ByteBuffer toServer = ByteBuffer.allocate(64_000);
        ByteBuffer toClient = ByteBuffer.allocate(64_000);
        ByteBuffer plain = ByteBuffer.allocate(64_000);
        String outside = Case.attempt(() -> {
            client.beginHandshake();
            for (int i = 0; i < 40; i++) {
                step(client, toClient, toServer, plain);
                step(server, toServer, toClient, plain);
            }
            return "client now " + client.getHandshakeStatus();
        });
        return "in the callback: " + trust.inside + "; the handshake: " + outside + "; engine afterwards: "
                + Case.attempt(() -> hello(client) + " bytes");
    }

    private static void step(SSLEngine engine, ByteBuffer in, ByteBuffer out, ByteBuffer plain) throws Exception {
        switch (engine.getHandshakeStatus()) {
            case NEED_WRAP -> engine.wrap(ByteBuffer.allocate(0), out);
            case NEED_TASK -> {
                Runnable task = engine.getDelegatedTask();
                if (task != null) {
                    task.run();
                }
            }
            default -> {
                in.flip();
                engine.unwrap(in, plain.clear());
                in.compact();
            }
        }
    }

    private static long rawContext() throws Exception {
        OpenSsl.ensureAvailability();
        return SSLContext.make(SSL.SSL_PROTOCOL_ALL, SSL.SSL_MODE_CLIENT);
    }

    private static long rawEngine() throws Exception {
        return SSL.newSSL(rawContext(), false);
    }

    private static String released(Case.Action use) throws Exception {
        ReferenceCountedOpenSslEngine engine = engine();
        engine.release();
        return Case.attemptOf(use);
    }

    private static String forgotten(SslProvider provider) throws Exception {
        OpenSsl.ensureAvailability();
        return Case.forget(3000, () -> hello(SslContextBuilder.forClient().sslProvider(provider).build()
                .newEngine(UnpooledByteBufAllocator.DEFAULT)));
    }

    @Override
    public List<Case> cases() {
        String direct = "-Dio.netty.handler.ssl.openssl.useTasks=false";
        return List.of(
                new Case(3, "engine: wrap", () -> released(() -> hello(SHARED.get()))),
                new Case(3, "engine: beginHandshake", () -> released(() -> SHARED.get().beginHandshake())),
                new Case(3, "engine: setEnabledProtocols", () ->
                    released(() -> SHARED.get().setEnabledProtocols(new String[] {"TLSv1.2"}))),
                new Case(3, "engine: getEnabledProtocols", () ->
                    released(() -> System.out.println(Arrays.toString(SHARED.get().getEnabledProtocols())))),
                new Case(3, "context: newEngine", () -> {
                    SslContext context = context(new Trust(() -> { }));
                    ReferenceCountUtil.release(context);
                    return "returned " + (engine(context) != null);
                }),
                new Case(3, "raw: SSL.doHandshake after freeSSL", () -> {
                    long ssl = rawEngine();
                    SSL.freeSSL(ssl);
                    return "returns " + SSL.doHandshake(ssl);
                }),
                new Case(3, "raw: SSL.getVersion after freeSSL", () -> {
                    long ssl = rawEngine();
                    SSL.freeSSL(ssl);
                    return "returns " + SSL.getVersion(ssl);
                }),
                new Case(4, "engine released twice", () -> {
                    ReferenceCountedOpenSslEngine engine = engine();
                    engine.release();
                    return "returns " + engine.release();
                }),
                new Case(4, "context released twice", () -> {
                    SslContext context = context(new Trust(() -> { }));
                    ReferenceCountUtil.release(context);
                    return "returns " + ReferenceCountUtil.release(context);
                }),
                new Case(4, "raw: SSL.freeSSL twice", () -> {
                    long ssl = rawEngine();
                    SSL.freeSSL(ssl);
                    SSL.freeSSL(ssl);
                    return "nothing happens";
                }),
                new Case(4, "raw: SSLContext.free twice", () -> {
                    long context = rawContext();
                    SSLContext.free(context);
                    SSLContext.free(context);
                    return "nothing happens";
                }),
                new Case(5, "one engine: wrap and setEnabledProtocols", () -> {
                    SSLEngine engine = engine();
                    return Case.hammer(() -> {
                        hello(engine);
                        engine.setEnabledProtocols(new String[] {"TLSv1.2", "TLSv1.3"});
                        return engine.getEnabledProtocols().length >= 2;
                    });
                }),
                new Case(5, "engine released while they wrap", () -> {
                    ReferenceCountedOpenSslEngine engine = engine();
                    return Case.hammer(() -> hello(engine) >= 0, engine::release);
                }),
                new Case(5, "raw: one SSL, cipher list and handshake", () -> {
                    long ssl = rawEngine();
                    SSL.bioNewByteBuffer(ssl, 2048);
                    return Case.hammer(() -> {
                        SSL.setCipherSuites(ssl, "ECDHE-RSA-AES128-GCM-SHA256:ECDHE-RSA-AES256-GCM-SHA384", false);
                        SSL.doHandshake(ssl);
                        return SSL.getCiphers(ssl).length == 2;
                    });
                }),
                new Case(6, "trust check does no harm", () -> handshake(() -> { })).with(direct),
                new Case(6, "trust check (task) releases the engine", () -> handshake(() -> SHARED.get().release())),
                new Case(6, "trust check in the native call releases the engine", () ->
                    handshake(() -> SHARED.get().release())).with(direct),
                new Case(6, "trust check in the native call unwraps", () ->
                    handshake(() -> SHARED.get().unwrap(ByteBuffer.allocate(10), ByteBuffer.allocate(20_000))))
                    .with(direct),
                new Case(6, "trust check in the native call throws", () -> handshake(() -> {
                    throw new IllegalArgumentException("from the trust manager");
                })).with(direct),
                new Case(6, "raw: trust check in the native call does SSL.freeSSL", () ->
                    handshake(() -> SSL.freeSSL(SHARED.get().sslPointer()))).with(direct),
                new Case(7, "raw: SSL.getVersion(0)", () -> "returns " + SSL.getVersion(rawEngine() * 0)),
                new Case(7, "raw: SSL.getVersion(42)", () -> "returns " + SSL.getVersion(rawEngine() * 0 + 42)),
                new Case(7, "raw: SSL.getVersion of a context", () -> "returns " + SSL.getVersion(rawContext())),
                new Case(7, "raw: SSLContext.setMode of an SSL", () ->
                    "returns " + SSLContext.setMode(rawEngine(), SSL.SSL_MODE_RELEASE_BUFFERS)),
                new Case(8, "protocols(TLSv9)", () -> "accepted " + SslContextBuilder.forClient()
                    .sslProvider(SslProvider.OPENSSL_REFCNT).protocols("TLSv9").build()
                    .newEngine(UnpooledByteBufAllocator.DEFAULT).getEnabledProtocols().length + " protocols enabled"),
                new Case(8, "engine.setEnabledProtocols(TLSv9)", () -> {
                    engine().setEnabledProtocols(new String[] {"TLSv9"});
                    return "accepted";
                }),
                new Case(8, "ciphers(banana)", () -> "accepted " + SslContextBuilder.forClient()
                    .sslProvider(SslProvider.OPENSSL_REFCNT).ciphers(List.of("banana")).build().cipherSuites()),
                new Case(8, "raw: SSLContext.make(999, 99)", () -> {
                    OpenSsl.ensureAvailability();
                    return "accepted " + (SSLContext.make(999, 99) != 0);
                }),
                new Case(8, "leakDetection.level=banana", this::smoke).with("-Dio.netty.leakDetection.level=banana"),
                new Case(9, "OPENSSL contexts and engines", () -> forgotten(SslProvider.OPENSSL)),
                new Case(9, "OPENSSL_REFCNT contexts and engines", () -> forgotten(SslProvider.OPENSSL_REFCNT)),
                new Case(9, "OPENSSL_REFCNT, leakDetection.level=paranoid", () -> forgotten(SslProvider.OPENSSL_REFCNT))
                    .with("-Dio.netty.leakDetection.level=paranoid"),
                new Case(13, "raw: SSL.isInInit(ssl)", () -> {
                    long ssl = rawEngine();
                    return Case.nanoseconds(calls -> {
                        for (int i = 0; i < calls; i++) {
                            SSL.isInInit(ssl);
                        }
                    });
                }),
                new Case(13, "raw: SSL.getOptions(ssl)", () -> {
                    long ssl = rawEngine();
                    return Case.nanoseconds(calls -> {
                        for (int i = 0; i < calls; i++) {
                            SSL.getOptions(ssl);
                        }
                    });
                }),
                new Case(13, "engine.getEnabledProtocols(): lock, check, getOptions, a list", () -> {
                    SSLEngine engine = engine();
                    return Case.nanoseconds(calls -> {
                        for (int i = 0; i < calls; i++) {
                            engine.getEnabledProtocols();
                        }
                    });
                }));
    }

}
