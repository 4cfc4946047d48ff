// SPDX-License-Identifier: Apache-2.0

package com.tavrel.android.ferrolith;

import static com.tavrel.android.ferrolith.TavrelPowerStatsHalDataProvider.getRailEnergyNative;
import static com.tavrel.android.ferrolith.TavrelPowerStatsHalDataProvider.getResidenciesNative;

import com.google.protobuf.InvalidProtocolBufferException;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.KeyedPowerData;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.PowerDataResult;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.Residency;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.util.regex.Pattern;

/**
 * Prints the energy of all rails and the time of all power entities in their states.
 *
 * <p>Exit status: 0 something was collected, 1 nothing was or the output could not be written, 2 an
 * argument or no library.
 */
public final class PowerDataReader {
    // Control characters would break lines, and could steer a terminal.
    private static final Pattern CONTROL = Pattern.compile("\\p{Cc}");
    // Names are UTF-8 in every locale, as in the messages that they come from.
    private static final PrintStream OUT =
            new PrintStream(System.out, false, StandardCharsets.UTF_8);

    private PowerDataReader() {}

    public static void main(String[] arguments) {
        if (arguments.length > 0) fail("takes no arguments (java/README.md says more)", 2);
        try {
            // The second call may end the process, so the first result is printed before it.
            boolean rails = print("Rail energy", getRailEnergyNative());
            boolean entities = print("State residencies", getResidenciesNative());
            if (!rails && !entities) System.exit(1);
        } catch (UnsatisfiedLinkError e) {
            fail(e.getMessage() + " (run java with -Djava.library.path=FOLDER of the library)", 2);
        } catch (InvalidProtocolBufferException e) {
            fail("the library's result: " + e.getMessage() + " (build both from one schema)", 1);
        }
    }

    private static void fail(String message, int exitStatus) {
        System.err.println("powerstats-reader: " + message);
        System.exit(exitStatus);
    }

    /** Prints a result of the library and returns whether it has any element. */
    private static boolean print(String title, byte[] bytes)
            throws InvalidProtocolBufferException {
        OUT.print(text(title, bytes));
        if (OUT.checkError()) fail("standard output: cannot write (has its reader gone?)", 1);
        return bytes != null && bytes.length > 0;
    }

    /** Returns the lines that show a result of the library. */
    static String text(String title, byte[] bytes) throws InvalidProtocolBufferException {
        if (bytes == null) return title + ": not available (the log says why)\n";
        PowerDataResult result = PowerDataResult.parseFrom(bytes);
        if (result.getKeyedPowerDataCount() == 0) return title + ": none reported\n";
        long timestampMs = result.getKeyedPowerData(0).getId().getTimestampMs();
        StringBuilder text = new StringBuilder(title);
        text.append(timestampMs == 0 ? ", time unknown" : ", " + timestampMs + " ms after boot");
        for (KeyedPowerData element : result.getKeyedPowerDataList()) {
            String name = "\n  " + visible(element.getId().getName());
            if (element.getData().hasScalar()) {
                text.append(name + ": " + element.getData().getScalar().getValue() + " mJ");
            } else if (element.getData().getResidencyCount() == 0) {
                text.append(name + ": no states");
            }
            for (Residency state : element.getData().getResidencyList()) {
                text.append(name + ", " + visible(state.getName()) + ": ");
                text.append(state.getTotalTimeInStateMs() + " ms, ");
                text.append(state.getTotalStateEntryCount() + " entries");
            }
        }
        return text + "\n";
    }

    private static String visible(String name) {
        return CONTROL.matcher(name)
                .replaceAll(match -> String.format("\\\\u%04x", (int) match.group().charAt(0)));
    }
}
