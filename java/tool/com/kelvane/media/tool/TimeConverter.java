package com.kelvane.media.tool;

import java.util.regex.Matcher;
import java.util.regex.Pattern;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.TypeConversionException;

/** Reads seconds, mm:ss or hh:mm:ss, each with a fraction if need be. */
final class TimeConverter implements ITypeConverter<Double> {
    private static final Pattern TIME = Pattern.compile("(?:(?:(\\d{1,4}):)?(\\d{1,5}):)?(\\d{1,8}(?:\\.\\d{1,9})?)");

    @Override
    public Double convert(String text) {
        Matcher parts = TIME.matcher(text);
        if (!parts.matches() || parts.group(2) != null && Double.parseDouble(parts.group(3)) >= 60
                || parts.group(1) != null && Integer.parseInt(parts.group(2)) >= 60) {
            throw new TypeConversionException(text + ": expected seconds, mm:ss or hh:mm:ss, like 90, 1:30 or 0:01:30.5");
        }
        return number(parts.group(1)) * 3600 + number(parts.group(2)) * 60 + number(parts.group(3));
    }

    private static double number(String text) {
        return text == null ? 0 : Double.parseDouble(text);
    }
}
