// SPDX-License-Identifier: Apache-2.0

package com.tavrel.android.ferrolith;

import com.google.protobuf.InvalidProtocolBufferException;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.PowerDataResult;
import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.util.List;

/** Prints the power stats service's measurements; {@link ReaderOptions#HELP} is its manual. */
public final class PowerDataReader {
    private static final int EXIT_NOTHING_COLLECTED = 1;
    private static final int EXIT_BAD_ARGUMENT = 2;

    private final ReaderOptions options;
    // Names are UTF-8 in every locale, as in the messages they come from.
    private final PrintStream out =
            new PrintStream(
                    new FileOutputStream(FileDescriptor.out), false, StandardCharsets.UTF_8);
    private boolean collected;

    private PowerDataReader(ReaderOptions options) {
        this.options = options;
    }

    public static void main(String[] arguments) throws InterruptedException {
        try {
            ReaderOptions options = ReaderOptions.parse(List.of(arguments));
            if (options.help) {
                System.out.println(ReaderOptions.HELP);
                return;
            }
            if (options.version) {
                // The jar's manifest has it.
                String version = PowerDataReader.class.getPackage().getImplementationVersion();
                System.out.println("powerstats-reader " + version);
                return;
            }
            PowerDataReader reader = new PowerDataReader(options);
            reader.run();
            if (!reader.collected) System.exit(EXIT_NOTHING_COLLECTED);
        } catch (ReaderOptions.BadArgument e) {
            fail(e.getMessage(), EXIT_BAD_ARGUMENT);
        } catch (UnsatisfiedLinkError e) {
            fail(
                    e.getMessage() + " (run java with -Djava.library.path=FOLDER of the library)",
                    EXIT_BAD_ARGUMENT);
        } catch (InvalidProtocolBufferException e) {
            fail(
                    "result of the library: "
                            + e.getMessage()
                            + " (build the library and this program from the same schema)",
                    EXIT_NOTHING_COLLECTED);
        }
    }

    private static void fail(String message, int exitStatus) {
        System.err.println("powerstats-reader: " + message);
        System.exit(exitStatus);
    }

    private void run() throws InterruptedException, InvalidProtocolBufferException {
        for (int call = 0; call < options.count; ++call) {
            if (call > 0) Thread.sleep(options.pauseMs);
            for (Section section : options.sections) print(section);
        }
    }

    private void print(Section section) throws InvalidProtocolBufferException {
        byte[] bytes = section.collect();
        collected |= bytes != null && bytes.length > 0;
        out.println(
                bytes == null
                        ? options.format.unavailable(section)
                        : options.format.available(section, PowerDataResult.parseFrom(bytes)));
        // Flush now: the next call may end the process, and these lines must not be lost.
        if (out.checkError()) {
            fail("standard output: cannot write (has its reader gone?)", EXIT_NOTHING_COLLECTED);
        }
    }
}
