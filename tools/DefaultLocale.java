import java.io.ByteArrayInputStream;
import java.io.DataInputStream;
import java.io.IOException;
import java.nio.file.FileSystem;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.regex.Pattern;
import java.util.stream.Stream;

/**
 * {@code java tools/DefaultLocale.java JAR_OR_FOLDER...}: fails when compiled code formats in the machine's locale, where a
 * number has a comma, or Arabic digits, in the midst of a playlist, JSON or a command line. The builds of everything that is
 * written in Java call it. Prose is no exception: it is English, and so are its numbers.
 */
final class DefaultLocale {
    // The calls of the JDK that take the locale of the machine unless they are given one, as owner.name.
    private static final Pattern CALLS = Pattern.compile(
            "java/lang/String\\.(format|formatted|toLowerCase|toUpperCase)|java/io/\\w+\\.(printf|format)"
            + "|java/util/(Formatter|Scanner)\\.<init>|java/text/\\w+Format\\.(<init>|get\\w*Instance)|java/text/MessageFormat\\.format"
            + "|java/time/format/DateTimeFormatter\\w*\\.(ofPattern|ofLocalized\\w+|toFormatter)");
    // Constants of a class file by their tag: how many bytes follow it.
    private static final int UTF8 = 1;
    private static final int METHOD = 10;
    private static final int INTERFACE_METHOD = 11;
    private static final int[] BYTES = {0, 0, 0, 4, 4, 8, 8, 2, 2, 4, 4, 4, 4, 0, 0, 3, 2, 4, 4, 2, 2};

    private DefaultLocale() {
    }

    public static void main(String[] places) throws IOException {
        int classes = 0;
        int faults = 0;
        for (String place : places) {
            Path path = Path.of(place);
            try (FileSystem jar = Files.isDirectory(path) ? null : FileSystems.newFileSystem(path)) {
                try (Stream<Path> files = Files.walk(jar == null ? path : jar.getPath("/"))) {
                    for (Path file : (Iterable<Path>) files.filter(each -> each.toString().endsWith(".class"))::iterator) {
                        classes++;
                        for (String call : calls(Files.readAllBytes(file))) {
                            faults++;
                            System.err.println(file + " calls " + call + " in the machine's locale: give it Locale.ROOT");
                        }
                    }
                }
            }
        }
        if (classes == 0) {
            System.err.println("no classes in " + List.of(places));
        }
        System.exit(classes == 0 || faults > 0 ? 1 : 0);
    }

    private static List<String> calls(byte[] classFile) throws IOException {
        DataInputStream in = new DataInputStream(new ByteArrayInputStream(classFile));
        in.skipNBytes(8); // magic and version
        int count = in.readUnsignedShort();
        int[] tags = new int[count];
        int[] first = new int[count]; // the numbers of other constants
        int[] second = new int[count];
        String[] texts = new String[count];
        for (int i = 1; i < count; i++) {
            tags[i] = in.readUnsignedByte();
            if (tags[i] == UTF8) {
                texts[i] = in.readUTF();
            } else if (BYTES[tags[i]] == 2 || BYTES[tags[i]] == 4) {
                first[i] = in.readUnsignedShort();
                second[i] = BYTES[tags[i]] == 4 ? in.readUnsignedShort() : 0;
            } else {
                in.skipNBytes(BYTES[tags[i]]);
                i += BYTES[tags[i]] == 8 ? 1 : 0; // it counts twice
            }
        }
        return Stream.iterate(1, i -> i < count, i -> i + 1)
                .filter(i -> tags[i] == METHOD || tags[i] == INTERFACE_METHOD)
                .filter(i -> !texts[second[second[i]]].matches(".*(Ljava/util/Locale;|Ljava/text/DecimalFormatSymbols;).*"))
                .map(i -> texts[first[first[i]]] + "." + texts[first[second[i]]])
                .filter(call -> CALLS.matcher(call).matches()).distinct().toList();
    }
}
