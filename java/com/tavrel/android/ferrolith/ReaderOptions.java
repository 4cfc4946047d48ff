// SPDX-License-Identifier: Apache-2.0

package com.tavrel.android.ferrolith;

import java.util.EnumSet;
import java.util.Iterator;
import java.util.List;
import java.util.Locale;
import java.util.Set;

/** The arguments of the reader. */
final class ReaderOptions {
    static final String HELP =
            String.join(
                    "\n",
                    "Usage: powerstats-reader [options]",
                    "Prints the measurements of the power stats service since boot.",
                    "",
                    "  --rails         the energy of each rail, in millijoules",
                    "  --residencies   the time of each power entity in each state, in ms, and the",
                    "                  number of entries; without either option, both are printed",
                    "  --count N       collect N times (1)",
                    "  --pause-ms M    wait M milliseconds between collections (1000)",
                    "  --format F      table, or tsv for tab separated lines (table)",
                    "  --help          print this and exit",
                    "  --version       print the version and exit",
                    "",
                    "The times of the calls are milliseconds since boot.",
                    "Exit status: 0 something was collected, 1 nothing was or the output could not",
                    "be written, 2 bad argument or no library.",
                    "Example: java -Djava.library.path=build/lib -jar"
                            + " build/lib/powerstats-reader.jar --rails");

    /** A bad argument; the message names it and the remedy. */
    static final class BadArgument extends Exception {
        private static final long serialVersionUID = 1;

        BadArgument(String message) {
            super(message);
        }
    }

    final Set<Section> sections = EnumSet.noneOf(Section.class);
    int count = 1;
    int pauseMs = 1000;
    Format format = Format.TABLE;
    boolean help;
    boolean version;

    static ReaderOptions parse(List<String> arguments) throws BadArgument {
        ReaderOptions options = new ReaderOptions();
        Iterator<String> rest = arguments.iterator();
        while (rest.hasNext()) options.take(rest.next(), rest);
        if (options.sections.isEmpty()) options.sections.addAll(EnumSet.allOf(Section.class));
        return options;
    }

    private void take(String option, Iterator<String> rest) throws BadArgument {
        switch (option) {
            case "--rails":
                sections.add(Section.RAILS);
                break;
            case "--residencies":
                sections.add(Section.RESIDENCIES);
                break;
            case "--count":
                count = number(option, 1, rest);
                break;
            case "--pause-ms":
                pauseMs = number(option, 0, rest);
                break;
            case "--format":
                format = format(option, rest);
                break;
            case "--help":
                help = true;
                break;
            case "--version":
                version = true;
                break;
            default:
                throw new BadArgument(
                        quoted(option) + ": unknown argument (--help lists the options)");
        }
    }

    private static int number(String option, int smallest, Iterator<String> rest)
            throws BadArgument {
        String remedy = "give a whole number from " + smallest + " to " + Integer.MAX_VALUE;
        String value = value(option, remedy, rest);
        try {
            int number = Integer.parseInt(value);
            if (number >= smallest) return number;
        } catch (NumberFormatException e) {
            // Reported below, like a number that is too small.
        }
        throw new BadArgument(option + " " + quoted(value) + ": bad number (" + remedy + ")");
    }

    private static Format format(String option, Iterator<String> rest) throws BadArgument {
        String remedy = "give table or tsv";
        String value = value(option, remedy, rest);
        for (Format format : Format.values()) {
            if (format.name().toLowerCase(Locale.ROOT).equals(value)) return format;
        }
        throw new BadArgument(option + " " + quoted(value) + ": unknown format (" + remedy + ")");
    }

    private static String value(String option, String remedy, Iterator<String> rest)
            throws BadArgument {
        if (rest.hasNext()) return rest.next();
        throw new BadArgument(option + ": value missing (" + remedy + ")");
    }

    /** Quotes an argument so that the message stays on one line. */
    private static String quoted(String argument) {
        return "'" + argument.replaceAll("\\p{Cc}", "?") + "'";
    }
}
