// SPDX-License-Identifier: Apache-2.0

package com.tavrel.android.ferrolith;

import com.tavrel.android.ferrolith.poweranomalyservice.proto.KeyedPowerData;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.PowerDataResult;
import com.tavrel.android.ferrolith.poweranomalyservice.proto.Residency;
import java.util.ArrayList;
import java.util.List;

/** One kind of result: its names, the call that collects it, and its rows. */
enum Section {
    RAILS("rail", "Rail energy", List.of("rail", "millijoules"), 1) {
        @Override
        byte[] collect() {
            return TavrelPowerStatsHalDataProvider.getRailEnergyNative();
        }

        @Override
        void addRows(KeyedPowerData rail, List<List<String>> rows) {
            rows.add(
                    List.of(
                            rail.getId().getName(),
                            Long.toString(rail.getData().getScalar().getValue())));
        }
    },

    RESIDENCIES("residency", "State residencies", List.of("entity", "state", "ms", "entries"), 2) {
        @Override
        byte[] collect() {
            return TavrelPowerStatsHalDataProvider.getResidenciesNative();
        }

        @Override
        void addRows(KeyedPowerData entity, List<List<String>> rows) {
            String name = entity.getId().getName();
            // Print an entity without states too: the service reported it.
            if (entity.getData().getResidencyCount() == 0) rows.add(List.of(name, "", "", ""));
            for (Residency state : entity.getData().getResidencyList()) {
                rows.add(
                        List.of(
                                name,
                                state.getName(),
                                Long.toString(state.getTotalTimeInStateMs()),
                                Long.toString(state.getTotalStateEntryCount())));
            }
        }
    };

    /** The first field of its tab separated lines. */
    final String key;

    final String title;
    final List<String> columns;

    /** The number of columns with names; they come first, and the others have numbers. */
    final int nameColumns;

    Section(String key, String title, List<String> columns, int nameColumns) {
        this.key = key;
        this.title = title;
        this.columns = columns;
        this.nameColumns = nameColumns;
    }

    /** Calls the library and returns its result, which may be null. */
    abstract byte[] collect();

    abstract void addRows(KeyedPowerData element, List<List<String>> rows);

    /** Returns the facts of a result, one per row, with a field for every column. */
    List<List<String>> rows(PowerDataResult result) {
        List<List<String>> rows = new ArrayList<>();
        for (KeyedPowerData element : result.getKeyedPowerDataList()) addRows(element, rows);
        return rows;
    }
}
