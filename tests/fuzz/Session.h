// SPDX-License-Identifier: Apache-2.0
//
// What happens around one process that has the library: services come, change, fail and go, and
// Java calls. The harness acts it out; the model says what must come of it.

#pragma once

#include <host/ServiceControl.h>
#include <time.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/FakeServices.h"
#include "tests/support/Scenario.h"

namespace fuzz {

using support::Backend;
using support::Call;

/// How one method goes wrong during one call.
struct Trouble {
    enum class Kind {
        kStatus,     ///< the service answers with this status
        kTransport,  ///< the transaction fails on its way
        kDeath,      ///< the registered service dies while the called one serves the transaction
    };
    std::string method;  ///< or kLink
    Kind kind = Kind::kStatus;
    uint32_t status = 0;  ///< a HIDL status, or the bits of an AIDL exception code
    host::Failure failure;
};
inline constexpr char kLink[] = "link";

/// What a service has to tell.
struct Facts {
    support::Machine machine;
    std::optional<std::vector<support::Entity>> stateSpaces;  ///< HIDL: instead of the entities'
};

struct Step {
    enum class Action {
        kServe,       ///< a new service is registered, in place of an older one
        kChange,      ///< the service registered last tells something else from now on
        kUnregister,  ///< the registered service is no longer found, but lives
        kKill,        ///< the registered service dies
        kCall,
    };
    Action action = Action::kCall;
    Backend backend = Backend::kAidl;
    Facts facts;  ///< of kServe and kChange

    // Of a call.
    Call call = Call::kRails;
    std::vector<Trouble> troubles;  ///< of `backend`'s service
    std::optional<timespec> clock;
    bool heapIsFull = false;
};

using Session = std::vector<Step>;

/// Any bytes make a session, most of them one in which something is collected.
Session decodeSession(const uint8_t* data, size_t size);

}  // namespace fuzz
