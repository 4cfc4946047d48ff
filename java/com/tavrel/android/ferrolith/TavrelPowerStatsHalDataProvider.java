// SPDX-License-Identifier: Apache-2.0

package com.tavrel.android.ferrolith;

/**
 * Reads the measurements of the device's power stats service since boot.
 *
 * <p>The methods are implemented by {@code libpowerstatshaldataprovider.so}, which the class loads
 * from {@code java.library.path}; it throws an {@link UnsatisfiedLinkError} when it finds none.
 *
 * <p>Each call returns the bytes of one {@code PowerDataResult} message
 * ({@code proto/power_data_result.proto}): one {@code keyed_power_data} for each rail or power
 * entity, in the service's order, all with the time of the call in {@code id.timestamp_ms}, in
 * milliseconds since boot including suspend (0 when the clock could not be read).
 *
 * <ul>
 *   <li>{@code null}: nothing could be collected; the log says why. A later call may succeed.
 *   <li>an empty array: the service answered, with nothing to report.
 * </ul>
 *
 * <p>Any thread may call. One call runs at a time; the others wait. Each call asks the service and
 * takes as long as the service does.
 *
 * <p>A service that breaks its interface ends the process, so that nobody takes a part of a result
 * for all of it: a service that reports an id it never announced, or a HIDL service that a request
 * for data does not reach. Java cannot catch this.
 */
public final class TavrelPowerStatsHalDataProvider {
    static {
        System.loadLibrary("powerstatshaldataprovider");
    }

    private TavrelPowerStatsHalDataProvider() {}

    /**
     * Returns the time that each power entity spent in each of its states since boot.
     *
     * @return a serialized {@code PowerDataResult} with elements of kind
     *     {@code KIND_POWER_ENTITY}: {@code data.residency} has one element for each state, with
     *     the time in milliseconds and the number of entries. An empty array when the service
     *     reported no entity, null when nothing could be collected.
     */
    public static native byte[] getResidenciesNative();

    /**
     * Returns the energy that each power rail used since boot.
     *
     * @return a serialized {@code PowerDataResult} with elements of kind {@code KIND_RAIL}:
     *     {@code data.scalar.value} is the energy in millijoules, in the precision of a 32-bit
     *     float and within 32 bits. An empty array when no rail has been measured since boot, null
     *     when nothing could be collected.
     */
    public static native byte[] getRailEnergyNative();
}
