#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""An AIDL power stats service on the session bus: one rail of 2.5 W, and one power entity that is
active for the first 25 of every 100 ms since boot. docs/services.md explains the rules it follows.

Start from this file: replace the tables and the two functions that read the counters."""

import asyncio
import time

from dbus_next import BusType, DBusError, ErrorType, NameFlag, RequestNameReply
from dbus_next.aio import MessageBus
from dbus_next.service import ServiceInterface, method

NAME = 'android.hardware.power.stats.IPowerStats'
RAILS = {0: ('VDD_CPU', 'CPU')}  # by id: name, subsystem
ENTITIES = {0: ('CPU', [[0, 'ACTIVE'], [1, 'SLEEP']])}  # by id: name, states with their ids


def now_ms():
    """Returns milliseconds since boot, suspend included: the clock of every stamp and total."""
    return time.clock_gettime_ns(time.CLOCK_BOOTTIME) // 1_000_000


def energy(rail):
    """Returns id, timestampMs, durationMs and energyUWs. One watt is 1000 uWs in a millisecond."""
    now = now_ms()
    return [rail, now, now, now * 2500]  # equal times: the rail is measured since boot


def residency(entity):
    """Returns the id, and for each state id, total time in ms, entries and last entry in ms."""
    now = now_ms()
    cycle, phase = divmod(now, 100)
    active = cycle * 25 + min(phase, 25)
    sleeps = cycle + (phase >= 25)
    last_sleep = sleeps * 100 - 75 if sleeps else 0
    return [entity, [[0, active, cycle + 1, cycle * 100], [1, now - active, sleeps, last_sleep]]]


def selected(ids, known):
    """Returns the ids to answer: all of them for an empty list."""
    for wanted in ids:
        if wanted not in known:
            raise DBusError(ErrorType.INVALID_ARGS, f'the id {wanted} is unknown')
    return ids or known


class PowerStats(ServiceInterface):
    # The annotations are D-Bus signatures, and part of the interface.
    @method()
    def getEnergyMeterInfo(self) -> 'a(iss)':
        return [[rail, *names] for rail, names in RAILS.items()]

    @method()
    def readEnergyMeter(self, ids: 'ai') -> 'a(ixxx)':
        return [energy(rail) for rail in selected(ids, RAILS)]

    @method()
    def getPowerEntityInfo(self) -> 'a(isa(is))':
        return [[entity, *rest] for entity, rest in ENTITIES.items()]

    @method()
    def getStateResidency(self, ids: 'ai') -> 'a(ia(ixxx))':
        return [residency(entity) for entity in selected(ids, ENTITIES)]


async def main():
    bus = await MessageBus(bus_type=BusType.SESSION).connect()
    # Export first: a client that sees the name may call at once.
    bus.export('/default', PowerStats(NAME))
    reply = await bus.request_name(NAME, NameFlag.DO_NOT_QUEUE)
    if reply != RequestNameReply.PRIMARY_OWNER:
        raise SystemExit(f'{NAME}: the name is taken (end the other service first)')
    print('serving', flush=True)
    await bus.wait_for_disconnect()


asyncio.run(main())
