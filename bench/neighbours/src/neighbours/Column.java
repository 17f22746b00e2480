package neighbours;

import java.util.List;

/** One library in the comparison: each class in {@code neighbours.columns} is a column of the table. */
public interface Column {
    String title();

    /** Beginnings of the names of the jars on its class path, which are what a user depends on. */
    List<String> jars();

    /** Loads the natives and does the least work that shows they work; the text says what came out. */
    String smoke() throws Exception;

    /** Cases of the points that need this library's own calls: 3 to 9, 13 and what is particular in the others. */
    List<Case> cases();
}
