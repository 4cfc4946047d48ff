// SPDX-License-Identifier: Apache-2.0
//
// A service in a process of its own, as a test wants it:
//   bus_peer serve aidl|hidl MACHINE [METHOD]   a good service, which kills itself in METHOD
//   bus_peer answer aidl|hidl error|signature|text|elements|never   one that answers calls badly
// MACHINE: see busMachine(). It writes "ready" when it can be called.

#include <host/BusServer.h>
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/dbus/BusNames.h"
#include "tests/bus/BusMachine.h"
#include "tests/support/FakeServices.h"

namespace support {
namespace {

int serve(const std::string& hal, const std::string& machine, const std::string& lastMethod) {
    const Hook hook = [&](const std::string& method) {
        if (method == lastMethod) raise(SIGKILL);
    };
    std::string error;
    const auto server = host::BusServer::connect(host::Bus::kSession, &error);
    bool added = false;
    if (server != nullptr && hal == "aidl") {
        auto service = ndk::SharedRefBase::make<FakeAidl>();
        service->machine = busMachine(machine);
        service->onCall = hook;
        added = server->add(service, &error);
    } else if (server != nullptr) {
        android::sp<FakeHidl> service = new FakeHidl;
        service->machine = busMachine(machine);
        service->onCall = hook;
        added = server->add(android::sp<stats_V1_0::IPowerStats>(service), &error);
    }
    if (added) {
        std::fputs("ready\n", stderr);
        int never[2];
        if (pipe(never) == 0) server->run(never[0], &error);
    }
    std::fprintf(stderr, "bus_peer: %s\n", error.c_str());
    return 1;
}

int answerBadly(sd_bus_message* call, void* userData, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) return 0;
    const std::string how = static_cast<const char*>(userData);
    if (how == "never") return 1;
    if (how == "error") {
        return sd_bus_reply_method_errorf(call, "com.example.Unwilling", "not today");
    }
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

int answer(const std::string& hal, char* how) {
    sd_bus* bus = nullptr;
    const char* name = hal == "aidl" ? host::dbus::kAidlBusName : host::dbus::kHidlBusName;
    if (sd_bus_open_user(&bus) < 0 || sd_bus_add_filter(bus, nullptr, answerBadly, how) < 0 ||
        sd_bus_request_name(bus, name, 0) < 0) {
        return 1;
    }
    std::fputs("ready\n", stderr);
    while (sd_bus_process(bus, nullptr) >= 0 && sd_bus_wait(bus, UINT64_MAX) >= 0) {
    }
    return 1;
}

}  // namespace
}  // namespace support

int main(int argc, char** argv) {
    if (argc >= 4 && std::strcmp(argv[1], "serve") == 0) {
        return support::serve(argv[2], argv[3], argc > 4 ? argv[4] : "");
    }
    if (argc == 4 && std::strcmp(argv[1], "answer") == 0) return support::answer(argv[2], argv[3]);
    std::fputs("bus_peer: see the head of BusPeer.cpp for its arguments\n", stderr);
    return 2;
}
