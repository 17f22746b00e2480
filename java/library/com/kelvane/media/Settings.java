package com.kelvane.media;

/** What builders check their settings with. */
final class Settings {
    private Settings() {
    }

    static int timescale(int ticksPerSecond) {
        return check("timescale", ticksPerSecond, 1, Times.NANOSECONDS, "ticks a second");
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
