package com.kelvane.media;

/** What builders check their settings with. */
final class Settings {
    private Settings() {
    }

    /** @throws IllegalArgumentException if the value is out of range; the message says what is allowed */
    static int check(String name, int value, int smallest, int largest, String unit) {
        if (value < smallest || value > largest) {
            throw new IllegalArgumentException(name + " is " + value + ", allowed are " + smallest + " to " + largest + " "
                    + unit);
        }
        return value;
    }
}
