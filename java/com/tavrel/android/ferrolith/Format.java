// SPDX-License-Identifier: Apache-2.0

package com.tavrel.android.ferrolith;

import com.tavrel.android.ferrolith.poweranomalyservice.proto.PowerDataResult;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Pattern;
import java.util.stream.Collectors;

/** An output format: turns results into lines of text, without the last line's end. */
enum Format {
    /** For people: aligned, at most 80 columns wide. Names that do not fit lose their middle. */
    TABLE {
        @Override
        String unavailable(Section section) {
            return section.title + ": not available";
        }

        @Override
        String available(Section section, PowerDataResult result) {
            List<List<String>> lines = new ArrayList<>();
            lines.add(section.columns);
            for (List<String> row : section.rows(result)) lines.add(visible(row));
            if (lines.size() == 1) return section.title + ": none reported";
            return heading(section, timestampMs(result)) + "\n" + aligned(section, lines);
        }
    },

    /** For programs: each line is one fact, with whole names and fields separated by tabs. */
    TSV {
        @Override
        String unavailable(Section section) {
            return section.key + "\tnot available";
        }

        @Override
        String available(Section section, PowerDataResult result) {
            List<List<String>> rows = section.rows(result);
            if (rows.isEmpty()) return section.key + "\tnone";
            String start = section.key + "\t" + timestampMs(result) + "\t";
            return rows.stream()
                    .map(row -> start + String.join("\t", visible(row)))
                    .collect(Collectors.joining("\n"));
        }
    };

    private static final int TABLE_WIDTH = 80;
    private static final String INDENT = "  ";
    private static final String GAP = "  ";
    // Control characters would break lines and fields, and could steer a terminal.
    private static final Pattern UNSAFE = Pattern.compile("[\\p{Cc}\\\\]");

    /** Returns the text for a result that could not be collected. */
    abstract String unavailable(Section section);

    /** Returns the text of a result, which may have no elements. */
    abstract String available(Section section, PowerDataResult result);

    /** Returns the time of the call from the first element; 0 when the clock could not be read. */
    private static long timestampMs(PowerDataResult result) {
        return result.getKeyedPowerData(0).getId().getTimestampMs();
    }

    private static List<String> visible(List<String> row) {
        return row.stream()
                .map(field -> UNSAFE.matcher(field).replaceAll(match -> escape(match.group())))
                .collect(Collectors.toList());
    }

    /** Escapes one character; backslashes are doubled for the replacement syntax. */
    private static String escape(String character) {
        return character.equals("\\")
                ? "\\\\\\\\"
                : String.format("\\\\u%04x", (int) character.charAt(0));
    }

    private static String heading(Section section, long timestampMs) {
        return section.title
                + (timestampMs == 0 ? ", time unknown" : ", " + timestampMs + " ms after boot");
    }

    private static String aligned(Section section, List<List<String>> lines) {
        int columns = section.columns.size();
        int[] widths = new int[columns];
        int room = TABLE_WIDTH - INDENT.length() - GAP.length() * (columns - 1);
        for (int column = columns - 1; column >= 0; --column) {
            for (List<String> line : lines) {
                widths[column] = Math.max(widths[column], length(line.get(column)));
            }
            // The numbers get the width that they need; the names share the rest.
            if (column < section.nameColumns) {
                widths[column] = Math.min(widths[column], room / (column + 1));
            }
            room -= widths[column];
        }
        return lines.stream()
                .map(line -> alignedLine(section, line, widths))
                .collect(Collectors.joining("\n"));
    }

    private static String alignedLine(Section section, List<String> line, int[] widths) {
        List<String> fields = new ArrayList<>();
        for (int column = 0; column < widths.length; ++column) {
            String field = shortened(line.get(column), widths[column]);
            String padding = " ".repeat(widths[column] - length(field));
            fields.add(column < section.nameColumns ? field + padding : padding + field);
        }
        return (INDENT + String.join(GAP, fields)).stripTrailing();
    }

    /** Shortens a name in its middle, because names differ more often at their ends. */
    private static String shortened(String name, int width) {
        if (length(name) <= width) return name;
        int tail = (width - 3) / 2;
        return name.substring(0, name.offsetByCodePoints(0, width - 3 - tail))
                + "..."
                + name.substring(name.offsetByCodePoints(name.length(), -tail));
    }

    /** Counts characters; a surrogate pair is one. */
    private static int length(String text) {
        return text.codePointCount(0, text.length());
    }
}
