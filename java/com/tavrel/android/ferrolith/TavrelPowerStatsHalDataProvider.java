// SPDX-License-Identifier: Apache-2.0

package com.tavrel.android.ferrolith;

/**
 * What the device's power stats service has measured since boot.
 *
 * <p>The methods are implemented by {@code libpowerstatshaldataprovider.so}, which the class loads
 * from {@code java.library.path}; an {@link UnsatisfiedLinkError} says that it is not there.
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
 * <p>Calls are serialised: they may come from any thread, and one that meets another waits until
 * that has returned. Each asks the service anew and takes as long as the service does.
 *
 * <p>A service that breaks its interface ends the process, rather than have a part of a result
 * taken for all of it: one that reports an id it never announced does so, and so does a HIDL
 * service that does not receive a request for data. Neither can be caught.
 */
public final class TavrelPowerStatsHalDataProvider {
    static {
        System.loadLibrary("powerstatshaldataprovider");
    }

    private TavrelPowerStatsHalDataProvider() {}

    /**
     * The time that each power entity spent in each of its states since boot.
     *
     * @return a serialized {@code PowerDataResult} with elements of kind
     *     {@code KIND_POWER_ENTITY}: {@code data.residency} has one element for each state, with
     *     the time in milliseconds and the number of entries. An empty array when the service
     *     reported no entity, null when nothing could be collected.
     */
    public static native byte[] getResidenciesNative();

    /**
     * The energy that each power rail used since boot.
     *
     * @return a serialized {@code PowerDataResult} with elements of kind {@code KIND_RAIL}:
     *     {@code data.scalar.value} is the energy in millijoules, in the precision of a 32-bit
     *     float and within 32 bits. An empty array when no rail has been measured since boot, null
     *     when nothing could be collected.
     */
    public static native byte[] getRailEnergyNative();
}
