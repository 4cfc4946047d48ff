// SPDX-License-Identifier: Apache-2.0

#include "tools/LocalService.h"

#include <android/binder_manager.h>
#include <host/ServiceControl.h>

#include "power/service/Services.h"

namespace powerstats {

void addServiceOptions(CommandLine command, ServiceOptions* options) {
    addSourceOptions(command, &options->source);
    Value hal = choice(&options->hal, {"aidl", "hidl"});
    command.addOption("--hal", "Interface; the AIDL service first, when none is given", hal);
}

int openService(ServiceOptions* options, const RecordedSource::PlayingTime& playingTime,
                std::shared_ptr<Source>* own) {
    if (options->source.bus) return awaitService(&options->source, options->hal);
    // A service on a bus must not answer in its place.
    host::setBusLookups({});
    int status = 0;
    *own = openSource(&options->source, playingTime, &status);
    if (*own == nullptr) return status;
    bool isRegistered = false;
    if (options->hal == "hidl") {
        const android::sp<HidlService> hidl = new HidlService(*own);
        isRegistered = hidl->registerAsService() == android::OK;
    } else {
        // The register keeps the binder, and the binder keeps the service.
        const auto aidl = ndk::SharedRefBase::make<AidlService>(*own);
        isRegistered =
            AServiceManager_addService(aidl->asBinder().get(), host::kAidlPowerStats) == STATUS_OK;
    }
    if (isRegistered) return 0;
    say("the service could not be registered (this is a fault of this program)");
    return kFailed;
}

}  // namespace powerstats
