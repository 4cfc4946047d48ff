// SPDX-License-Identifier: Apache-2.0

package com.tavrel.android.ferrolith;

import com.tavrel.android.ferrolith.poweranomalyservice.proto.Id;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.KeyedPowerData;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.PowerData;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.PowerDataResult;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.Residency;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.Scalar;
import java.io.IOException;
import java.util.EnumSet;
import java.util.List;

/** The reader's arguments and output; needs no library. Exits 1 when a case fails. */
public final class PowerDataReaderTest {
    private static int failures;

    private PowerDataReaderTest() {}

    private static void expect(String what, Object expected, Object actual) {
        if (expected.equals(actual)) return;
        System.err.println(what + "\nexpected:\n" + expected + "\nactual:\n" + actual + "\n");
        ++failures;
    }

    private static KeyedPowerData element(String name, long timestampMs, PowerData.Builder data) {
        Id.Builder id = Id.newBuilder().setName(name).setTimestampMs(timestampMs);
        return KeyedPowerData.newBuilder().setId(id).setData(data).build();
    }

    private static PowerDataResult rail(String name, long timestampMs, long millijoules) {
        PowerData.Builder data =
                PowerData.newBuilder().setScalar(Scalar.newBuilder().setValue(millijoules));
        return result(element(name, timestampMs, data));
    }

    private static Residency state(String name, long timeMs, long entries) {
        return Residency.newBuilder()
                .setName(name)
                .setTotalTimeInStateMs(timeMs)
                .setTotalStateEntryCount(entries)
                .build();
    }

    private static PowerDataResult result(KeyedPowerData... elements) {
        return PowerDataResult.newBuilder().addAllKeyedPowerData(List.of(elements)).build();
    }

    private static void testFormats() {
        PowerDataResult entities =
                result(
                        element(
                                "CPU",
                                77,
                                PowerData.newBuilder()
                                        .addResidency(state("idle", 123456, 9))
                                        .addResidency(state("deep sleep", 5, 1000))),
                        element("GPU", 77, PowerData.newBuilder()));
        expect(
                "residencies as tsv",
                "residency\t77\tCPU\tidle\t123456\t9\n"
                        + "residency\t77\tCPU\tdeep sleep\t5\t1000\n"
                        + "residency\t77\tGPU\t\t\t",
                Format.TSV.available(Section.RESIDENCIES, entities));
        expect(
                "residencies as table",
                "State residencies, 77 ms after boot\n"
                        + "  entity  state           ms  entries\n"
                        + "  CPU     idle        123456        9\n"
                        + "  CPU     deep sleep       5     1000\n"
                        + "  GPU",
                Format.TABLE.available(Section.RESIDENCIES, entities));
        expect(
                "time unknown",
                "Rail energy, time unknown\n  rail  millijoules\n  A              -1",
                Format.TABLE.available(Section.RAILS, rail("A", 0, -1)));
        expect(
                "hostile name",
                "rail\t1\ta\\u0009b\\u000a\\u001b[2J\\\\u0085\t2",
                Format.TSV.available(Section.RAILS, rail("a\tb\n\u001b[2J\\u0085", 1, 2)));
        for (Format format : Format.values()) {
            expect(
                    "nothing reported differs from nothing collected",
                    false,
                    format.unavailable(Section.RAILS)
                            .equals(format.available(Section.RAILS, result())));
        }
    }

    private static void testTableWidth() {
        String name = "a".repeat(50) + "b".repeat(50);
        PowerDataResult widest =
                result(
                        element(
                                name,
                                1,
                                PowerData.newBuilder()
                                        .addResidency(
                                                state(name, Long.MIN_VALUE, Long.MIN_VALUE))));
        String[] lines = Format.TABLE.available(Section.RESIDENCIES, widest).split("\n");
        expect("width", 80, lines[2].length());
        expect("both ends of the names", true, lines[2].matches(" +(a+\\.\\.\\.b+ +){2}-.*"));

        String pair = "\ud83d\udd0b";
        for (String odd : List.of("", "a")) {
            String[] rows =
                    Format.TABLE
                            .available(Section.RAILS, rail(odd + pair.repeat(100), 1, 2))
                            .split("\n");
            expect("width of pairs", 80, rows[2].codePointCount(0, rows[2].length()));
            expect("no pair is split", false, rows[2].replace(pair, "").matches(".*\\p{Cs}.*"));
        }
    }

    private static void testArguments() throws ReaderOptions.BadArgument {
        ReaderOptions defaults = ReaderOptions.parse(List.of());
        expect("default sections", EnumSet.allOf(Section.class), defaults.sections);
        ReaderOptions given =
                ReaderOptions.parse(
                        List.of("--residencies", "--count", "3", "--pause-ms", "0", "--format",
                                "tsv"));
        expect(
                "given",
                "[RESIDENCIES] 3 0 TSV",
                given.sections + " " + given.count + " " + given.pauseMs + " " + given.format);

        String[][] bad = {
            {"--count", "value missing"},
            {"--count 0", "'0': bad number (give a whole number from 1 "},
            {"--count 2147483648", "'2147483648': bad number"},
            {"--pause-ms -1", "'-1': bad number (give a whole number from 0 "},
            {"--format TSV", "'TSV': unknown format (give table or tsv)"},
            {"--rails=1", "'--rails=1': unknown argument (--help "},
            {"a\nb", "'a?b': unknown"},
        };
        for (String[] row : bad) {
            String message = "accepted";
            try {
                ReaderOptions.parse(List.of(row[0].split(" ")));
            } catch (ReaderOptions.BadArgument e) {
                message = e.getMessage();
            }
            if (!message.contains(row[1])) expect(row[0], row[1], message);
        }
    }

    private static void testWithoutLibrary() throws IOException, InterruptedException {
        Process reader =
                new ProcessBuilder(
                                System.getProperty("java.home") + "/bin/java",
                                "-Djava.library.path=/nonexistent",
                                "-classpath",
                                System.getProperty("java.class.path"),
                                PowerDataReader.class.getName())
                        .start();
        String errors = new String(reader.getErrorStream().readAllBytes());
        expect("remedy: " + errors, true, errors.contains("-Djava.library.path=FOLDER"));
        expect("exit status without library", 2, reader.waitFor());
    }

    public static void main(String[] arguments) throws Exception {
        testWithoutLibrary();
        testFormats();
        testTableWidth();
        testArguments();
        if (failures > 0) System.exit(1);
    }
}
