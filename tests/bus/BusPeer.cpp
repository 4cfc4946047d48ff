// SPDX-License-Identifier: Apache-2.0
//
// A peer of the library or of the daemon in a process of its own:
//   bus_peer serve aidl|hidl MACHINE [METHOD]   a good service, which kills itself in METHOD
//   bus_peer answer error|long|signature|text|elements|once|never   an AIDL service that answers
//       badly; "once" answers its first call only
//   bus_peer attack forge|junk|repeat|flood|greedy|lazy   a hostile user of the bus: see kAttacks
// machineOf() describes MACHINE. The program writes "ready" when it can be called, or after its
// first attack. An attack goes on until the program is killed.

#include <host/BusServer.h>
#include <signal.h>
#include <sys/syscall.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/dbus/BusNames.h"
#include "tests/support/Scenario.h"

namespace support {
namespace {

/// @param variant [in] a number: the machine of that generation, which busResult() describes;
///     "late": smallMachine(), counted from 2 s after boot; "watts": smallMachine() with 2.5 W, and
///     in its state for a quarter of the time; "faults": the same with stamps in seconds, a count
///     of entries that falls, and a rail that is not announced; "many": smallMachine() with 2000
///     rails, of which each two share an id, and names with control characters.
Machine machineOf(const std::string& variant) {
    Machine machine = smallMachine();
    if (variant == "many") {
        for (int i = 0; i < 2000; ++i) {
            machine.rails.push_back({i / 2, "\a\n" + std::to_string(i), "\x1b[31m"});
            machine.energies.push_back({i / 2, -i, i, i});
        }
        return machine;
    }
    if (variant == "late") machine.energies[0].durationMs -= 2000;
    if (variant == "late" || variant == "watts" || variant == "faults") return machine;
    const int generation = std::stoi(variant);
    machine.rails[0].name += variant;
    machine.energies[0].energyUWs = generation * 1000L;
    machine.entities[0].name += variant;
    machine.entities[0].states[0].name += variant;
    machine.totals[0].stateResidencyData = {{0, generation, 2L * generation, 0}};
    return machine;
}

int serve(const std::string& hal, const std::string& variant, const std::string& lastMethod) {
    const auto aidl = ndk::SharedRefBase::make<FakeAidl>();
    const android::sp<FakeHidl> hidl = new FakeHidl;
    aidl->machine = machineOf(variant);
    aidl->answersIds = hidl->answersIds = true;
    const bool isFaulty = variant == "faults";
    hidl->tell(aidl->machine);
    aidl->onCall = hidl->onCall = [&](const std::string& method) {
        if (method == lastMethod) raise(SIGKILL);
        if (variant != "watts" && !isFaulty) return;
        // This program's CLOCK_BOOTTIME is its own.
        timespec now{};
        syscall(SYS_clock_gettime, CLOCK_BOOTTIME, &now);
        const int64_t ms = now.tv_sec * 1000 + now.tv_nsec / 1000000;
        const int64_t stamp = isFaulty ? ms / 1000 : ms;
        aidl->machine.energies = {{1, stamp, stamp, ms * 2500}};
        if (isFaulty) aidl->machine.energies.push_back({900, stamp, stamp, 0});
        const int64_t entries = isFaulty ? 1'000'000'000'000 - ms / 10 : ms / 10;
        aidl->machine.totals[0].stateResidencyData[0] = {0, ms / 4, entries, ms / 10 * 10};
        hidl->tell(aidl->machine);
    };
    std::string error;
    const auto server = host::BusServer::connect(host::Bus::kSession, &error);
    if (server != nullptr &&
        (hal == "aidl" ? server->add(aidl, &error)
                       : server->add(android::sp<stats_V1_0::IPowerStats>(hidl), &error))) {
        std::fputs("ready\n", stderr);
        server->run(&error);
    }
    std::fprintf(stderr, "bus_peer: %s\n", error.c_str());
    return 1;
}

int answerBadly(sd_bus_message* call, void* userData, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) return 0;
    const std::string how = static_cast<const char*>(userData);
    static bool isFirst = true;
    if (how == "never" || (how == "once" && !std::exchange(isFirst, false))) return 1;
    if (how == "long") {
        const std::string text = "\x1b[31m\u2028\u00e4" + std::string(2 << 20, 'x');
        return sd_bus_reply_method_errorf(call, "com.example.No", "%s", text.c_str());
    }
    if (how == "error") return sd_bus_reply_method_errorf(call, "com.example.No", "not today");
    if (how == "signature") return sd_bus_reply_method_return(call, "s", "all is well");

    sd_bus_message* reply = nullptr;
    int result = sd_bus_message_new_method_return(call, &reply);
    if (result >= 0) result = sd_bus_message_open_container(reply, 'a', "(iss)");
    const std::string text(how == "text" ? (1 << 20) + 1 : 0, 'x');
    const int elements = how == "elements" ? 1'000'001 : 1;
    for (int i = 0; result >= 0 && i < elements; ++i) {
        result = sd_bus_message_append(reply, "(iss)", i, text.c_str(), "");
    }
    if (result >= 0) result = sd_bus_message_close_container(reply);
    if (result >= 0) result = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return result;
}

int answer(char* how) {
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0 || sd_bus_add_filter(bus, nullptr, answerBadly, how) < 0 ||
        sd_bus_request_name(bus, host::dbus::kAidlBusName, 0) < 0) {
        return 1;
    }
    std::fputs("ready\n", stderr);
    while (sd_bus_process(bus, nullptr) >= 0 && sd_bus_wait(bus, UINT64_MAX) >= 0) {
    }
    return 1;
}

sd_bus* openAnyBus() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0 && sd_bus_open_system(&bus) < 0) std::abort();
    return bus;
}

/// Sends every other connection on the bus a signal that looks as if it had lost its service.
void signalAll(sd_bus* bus, const char* interface, const char* member) {
    char** names = nullptr;
    const char* self = nullptr;
    if (sd_bus_list_names(bus, &names, nullptr) < 0 || sd_bus_get_unique_name(bus, &self) < 0)
        return;
    for (char** name = names; *name != nullptr; ++name) {
        for (char** owner = names; **name == ':' && *owner != nullptr; ++owner) {
            sd_bus_message* signal = nullptr;
            sd_bus_message_new_signal(bus, &signal, "/org/freedesktop/DBus", interface, member);
            sd_bus_message_set_destination(signal, *name);
            sd_bus_message_append(signal, "sss", *owner, *owner, "");
            if (std::strcmp(*name, self) != 0) sd_bus_send(bus, signal, nullptr);
            sd_bus_message_unref(signal);
        }
        sd_bus_flush(bus);
    }
    for (char** name = names; *name != nullptr; ++name) free(*name);
    free(names);
}

/// Sends calls that pass an id several times. The answers are left unread.
void callWithIds(sd_bus* bus, bool hidl, int calls, size_t repeats, bool expectReply) {
    const std::vector<uint32_t> ids(repeats, 0);
    const char* const name = hidl ? host::dbus::kHidlBusName : host::dbus::kAidlBusName;
    for (int i = 0; i < calls; ++i) {
        sd_bus_message* call = nullptr;
        sd_bus_message_new_method_call(bus, &call, name, "/default", name,
                                       hidl ? "getEnergyData" : "getStateResidency");
        sd_bus_message_append_array(call, hidl ? 'u' : 'i', ids.data(), repeats * sizeof(ids[0]));
        sd_bus_message_set_expect_reply(call, expectReply);
        sd_bus_send(bus, call, nullptr);
        sd_bus_message_unref(call);
        sd_bus_flush(bus);
    }
}

/// The program repeats an attack without end.
const struct {
    const char* name;
    void (*attack)(sd_bus* bus);
} kAttacks[] = {
    {"forge", [](sd_bus* bus) { signalAll(bus, "org.freedesktop.DBus", "NameOwnerChanged"); }},
    {"junk",
     [](sd_bus* bus) {
         for (int i = 0; i < 1000; ++i) signalAll(bus, "com.example.Junk", "Junk");
     }},
    {"repeat",
     [](sd_bus* bus) {
         callWithIds(bus, false, 1, 500'000, true);
         callWithIds(bus, true, 1, 1'000'000, true);
     }},
    {"flood", [](sd_bus* bus) { callWithIds(bus, true, 10'000, 0, false); }},
    {"greedy", [](sd_bus* bus) { callWithIds(bus, false, 100, 0, true); }},
    {"lazy",
     [](sd_bus* /*bus*/) {
         // Nobody reads from these.
         static sd_bus* const buses[] = {openAnyBus(), openAnyBus(), openAnyBus(), openAnyBus()};
         for (sd_bus* bus : buses) callWithIds(bus, false, 30, 50'000, true);
     }},
};

[[noreturn]] void attack(const std::string& name) {
    sd_bus* const bus = openAnyBus();
    for (bool first = true;; first = false) {
        for (const auto& [known, attack] : kAttacks) {
            if (name == known) attack(bus);
        }
        // A call that returns shows that the bus has handled everything before it.
        if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId",
                               nullptr, nullptr, "") < 0) {
            std::abort();
        }
        if (first) std::fputs("ready\n", stderr);
    }
}

}  // namespace
}  // namespace support

int main(int argc, char** argv) {
    // The event loop of a served bus reads every clock, and this program's boot clock fails until
    // set.
    support::bootClock().now = timespec{1, 0};
    if (argc >= 4 && std::strcmp(argv[1], "serve") == 0) {
        return support::serve(argv[2], argv[3], argc > 4 ? argv[4] : "");
    }
    if (argc == 3 && std::strcmp(argv[1], "answer") == 0) return support::answer(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "attack") == 0) support::attack(argv[2]);
    std::fputs("bus_peer: see the head of BusPeer.cpp for its arguments\n", stderr);
    return 2;
}
