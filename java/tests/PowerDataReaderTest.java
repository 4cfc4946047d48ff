// SPDX-License-Identifier: Apache-2.0

package com.tavrel.android.ferrolith;

import com.tavrel.android.ferrolith.poweranomalyservice.proto.Id;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.KeyedPowerData;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.PowerData;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.PowerDataResult;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.Residency;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.Scalar;
import java.util.List;

/** Tests the output of the reader, without the library. Exits 1 on a failure. */
public final class PowerDataReaderTest {
    private static int failures;

    private PowerDataReaderTest() {}

    private static void expect(String subject, Object expected, Object actual) {
        if (expected.equals(actual)) return;
        System.err.println(subject + "\nexpected:\n" + expected + "\nactual:\n" + actual + "\n");
        ++failures;
    }

    private static KeyedPowerData element(String name, long timestampMs, PowerData.Builder data) {
        Id.Builder id = Id.newBuilder().setName(name).setTimestampMs(timestampMs);
        return KeyedPowerData.newBuilder().setId(id).setData(data).build();
    }

    private static String rail(Format format, String name, long timestampMs, long millijoules) {
        PowerData.Builder data =
                PowerData.newBuilder().setScalar(Scalar.newBuilder().setValue(millijoules));
        PowerDataResult.Builder result =
                PowerDataResult.newBuilder().addKeyedPowerData(element(name, timestampMs, data));
        return format.available(Section.RAILS, result.build());
    }

    private static void testFormats() {
        Residency.Builder state =
                Residency.newBuilder()
                        .setName("deep sleep")
                        .setTotalTimeInStateMs(123456)
                        .setTotalStateEntryCount(9);
        PowerDataResult entities =
                PowerDataResult.newBuilder()
                        .addKeyedPowerData(
                                element("CPU", 77, PowerData.newBuilder().addResidency(state)))
                        .addKeyedPowerData(element("GPU", 77, PowerData.newBuilder()))
                        .build();
        expect(
                "residencies",
                "residency\t77\tCPU\tdeep sleep\t123456\t9\nresidency\t77\tGPU\t\t\t\n"
                        + "State residencies, 77 ms after boot\n"
                        + "  entity  state           ms  entries\n"
                        + "  CPU     deep sleep  123456        9\n"
                        + "  GPU",
                Format.TSV.available(Section.RESIDENCIES, entities)
                        + "\n"
                        + Format.TABLE.available(Section.RESIDENCIES, entities));
        String unknown = "Rail energy, time unknown\n  rail  millijoules\n  A              -1";
        expect("time unknown", unknown, rail(Format.TABLE, "A", 0, -1));
        String escaped = "rail\t1\ta\\u0009b\\u000a\\u001b[2J\\\\u0085\t2";
        expect("hostile name", escaped, rail(Format.TSV, "a\tb\n\u001b[2J\\u0085", 1, 2));
        String longName = "a".repeat(50) + "b".repeat(50);
        String cut = rail(Format.TABLE, longName, 1, Long.MIN_VALUE).split("\n")[2];
        expect("width", 80, cut.length());
        expect("both ends of the name", true, cut.matches(" +a+\\.\\.\\.b+ +-\\d+"));
        for (Format format : Format.values()) {
            String none = format.available(Section.RAILS, PowerDataResult.getDefaultInstance());
            expect("an empty result", false, format.unavailable(Section.RAILS).equals(none));
        }
        String pair = "\ud83d\udd0b";
        for (String odd : List.of("", "a")) {
            String row = rail(Format.TABLE, odd + pair.repeat(100), 1, 2).split("\n")[2];
            expect("width in pairs", 80, row.codePointCount(0, row.length()));
            expect("no pair is split", false, row.replace(pair, "").matches(".*\\p{Cs}.*"));
        }
    }

    private static void testWithoutLibrary() throws Exception {
        String java = System.getProperty("java.home") + "/bin/java";
        String path = System.getProperty("java.class.path");
        String reader = PowerDataReader.class.getName();
        Process process =
                new ProcessBuilder(java, "-Djava.library.path=/x", "-cp", path, reader).start();
        String errors = new String(process.getErrorStream().readAllBytes());
        expect("remedy: " + errors, true, errors.contains("-Djava.library.path=FOLDER"));
        expect("exit status without library", 2, process.waitFor());
    }

    public static void main(String[] arguments) throws Exception {
        testWithoutLibrary();
        testFormats();
        if (failures > 0) System.exit(1);
    }
}
