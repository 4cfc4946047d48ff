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

    private static void expect(Object expected, Object actual) {
        if (expected.equals(actual)) return;
        System.err.println("expected:\n" + expected + "\nactual:\n" + actual + "\n");
        ++failures;
    }

    private static KeyedPowerData element(String name, long timestampMs, PowerData.Builder data) {
        Id.Builder id = Id.newBuilder().setName(name).setTimestampMs(timestampMs);
        return KeyedPowerData.newBuilder().setId(id).setData(data).build();
    }

    private static String text(KeyedPowerData... elements) throws Exception {
        PowerDataResult.Builder result = PowerDataResult.newBuilder();
        for (KeyedPowerData element : elements) result.addKeyedPowerData(element);
        return PowerDataReader.text("Title", result.build().toByteArray());
    }

    private static void testText() throws Exception {
        PowerData.Builder scalar =
                PowerData.newBuilder().setScalar(Scalar.newBuilder().setValue(Long.MIN_VALUE));
        PowerData.Builder none = PowerData.newBuilder();
        Residency.Builder state =
                Residency.newBuilder()
                        .setName("deep\u007fsleep")
                        .setTotalTimeInStateMs(123456)
                        .setTotalStateEntryCount(9);
        KeyedPowerData hostile = element("\ud83d\udd0ba\tb\n\u001b[2J$1\u0085", 1, none);
        PowerData.Builder states = PowerData.newBuilder().addResidency(state).addResidency(state);
        KeyedPowerData cpu = element("CPU", 77, states);
        String line = "  CPU, deep\\u007fsleep: 123456 ms, 9 entries\n";

        expect("Title: not available (the log says why)\n", PowerDataReader.text("Title", null));
        expect("Title: none reported\n", text());
        expect(
                "Title, time unknown\n  A: -9223372036854775808 mJ\n",
                text(element("A", 0, scalar)));
        expect(
                "Title, 1 ms after boot\n  \ud83d\udd0ba\\u0009b\\u000a\\u001b[2J$1\\u0085: no states\n",
                text(hostile));
        expect(
                "Title, 77 ms after boot\n" + line + line + "  GPU: no states\n",
                text(cpu, element("GPU", 77, none)));
    }

    /** Runs the reader and expects its exit status and a part of its message. */
    private static void testFailure(String message, String... arguments) throws Exception {
        String path = System.getProperty("java.class.path");
        String[] command = {
            System.getProperty("java.home") + "/bin/java", "-Djava.library.path=/x", "-cp", path
        };
        ProcessBuilder builder = new ProcessBuilder(command);
        builder.command().add(PowerDataReader.class.getName());
        builder.command().addAll(List.of(arguments));
        Process process = builder.start();
        String errors = new String(process.getErrorStream().readAllBytes());
        expect(message, errors.contains(message) ? message : errors);
        expect(2, process.waitFor());
    }

    public static void main(String[] arguments) throws Exception {
        testFailure("-Djava.library.path=FOLDER");
        testFailure("takes no arguments", "--rails");
        testText();
        if (failures > 0) System.exit(1);
    }
}
