package com.kelvane.media.tool.shell;

import java.util.Locale;

/** Texts with numbers in them as programs read them, and English prose has them, whatever the machine's locale. */
public final class Text {
    private Text() {
    }

    /** As {@link String#format(String, Object...)} in an English locale. */
    public static String format(String format, Object... values) {
        return String.format(Locale.ROOT, format, values);
    }
}
