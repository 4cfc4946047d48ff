// SPDX-License-Identifier: Apache-2.0

#include "tests/fuzz/Model.h"

#include <hidl/Status.h>

#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include "tests/support/Encoder.h"

namespace fuzz {
namespace {

using TransportStatus = android::hardware::Status;
using Bytes = std::optional<std::string>;
using Names = std::map<uint32_t, std::string>;

constexpr uint32_t kSuccess = 0;
constexpr uint32_t kNotSupported = 1;

struct ProcessEnds {};

struct Service {
    Facts facts;
    bool alive = true;
};

/// One interface: its register, and the library's connection.
struct Side {
    std::shared_ptr<Service> registered;
    std::shared_ptr<Service> latest;
    std::shared_ptr<Service> connected;
    bool linked = false;  ///< the library will be told of the death of `connected`
    int64_t lookups = 0;
    int64_t links = 0;
    int64_t unlinks = 0;
    int64_t transactions = 0;
};

struct Reply {
    bool answered = false;      ///< HIDL: the callback is called
    TransportStatus transport;  ///< HIDL
    uint32_t status = kSuccess;
    bool isOk = true;               ///< AIDL
    support::Machine machine = {};  ///< what was answered
    std::vector<support::Entity> stateSpaces = {};
};

TransportStatus transportStatus(const host::Failure& failure) {
    return failure.exceptionCode == TransportStatus::EX_TRANSACTION_FAILED
               ? TransportStatus::fromStatusT(failure.transactionError, failure.message.c_str())
               : TransportStatus::fromExceptionCode(failure.exceptionCode, failure.message.c_str());
}

/// Microwatt-seconds, as a float, to whole millijoules within 32 bits.
int64_t millijoules(float microwattSeconds) {
    const double quotient = static_cast<double>(microwattSeconds / 1000.0F);
    if (quotient > 2147483647.0) return 2147483647;
    if (quotient < -2147483648.0) return -2147483648LL;
    return static_cast<int64_t>(quotient);
}

std::string upToNul(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

class Model {
  public:
    void step(const Step& step) {
        Side& side = of(step.backend);
        switch (step.action) {
            case Step::Action::kServe:
                side.registered = side.latest =
                    std::make_shared<Service>(Service{step.facts, true});
                break;
            case Step::Action::kChange:
                if (side.latest != nullptr) side.latest->facts = step.facts;
                break;
            case Step::Action::kUnregister:
                side.registered = nullptr;
                break;
            case Step::Action::kKill:
                kill(&side);
                break;
            case Step::Action::kCall:
                mStep = &step;
                events.push_back(returnedLine(call(step.call)));
                break;
        }
        deliverNotices();
        for (const Backend backend : support::kBackends) {
            const Side& one = of(backend);
            events.push_back(
                trafficLine(backend, one.lookups, one.links, one.unlinks, one.transactions));
        }
    }

    support::Lines events;

  private:
    Side& of(Backend backend) { return backend == Backend::kAidl ? mAidl : mHidl; }

    void log(char priority, const std::string& text) {
        events.push_back(std::string(1, priority) + ": " + text);
    }

    // The platform.

    static void kill(Side* side) {
        if (side->registered != nullptr) side->registered->alive = false;
        side->registered = nullptr;
    }

    void deliverNotices() {
        if (mAidl.linked && !mAidl.connected->alive) {
            mAidl.connected = nullptr;
            mAidl.linked = false;
            mEntityNames.clear();
            mStateNames.clear();
            mChannels.clear();
        }
        if (mHidl.linked && !mHidl.connected->alive) disconnectHidl();
    }

    const Trouble* troubleOf(Backend backend, const std::string& method) const {
        if (mStep->backend != backend) return nullptr;
        const auto& all = mStep->troubles;
        const auto found = std::find_if(all.begin(), all.end(),
                                        [&](const Trouble& it) { return it.method == method; });
        return found != all.end() ? &*found : nullptr;
    }

    /// Links to the death of what is connected.
    TransportStatus link(Backend backend) {
        Side& side = of(backend);
        ++side.links;
        const Trouble* trouble = troubleOf(backend, kLink);
        side.linked = trouble == nullptr;
        return trouble == nullptr ? TransportStatus() : transportStatus(trouble->failure);
    }

    Reply transact(Backend backend, const std::string& method) {
        Side& side = of(backend);
        ++side.transactions;
        Reply reply;
        const Trouble* trouble = troubleOf(backend, method);
        if (trouble != nullptr && trouble->kind == Trouble::Kind::kTransport) {
            reply.transport = transportStatus(trouble->failure);
            reply.isOk = !trouble->failure.withoutStatus && trouble->failure.exceptionCode == 0;
            return reply;
        }
        if (side.connected->alive) {
            events.push_back(method);
            if (trouble != nullptr && trouble->kind == Trouble::Kind::kDeath) kill(&side);
        }
        if (!side.connected->alive) {
            reply.transport = TransportStatus::fromStatusT(-32);
            reply.isOk = false;
            return reply;
        }
        if (trouble != nullptr && trouble->kind == Trouble::Kind::kStatus) {
            reply.status = trouble->status;
        }
        reply.answered = true;
        reply.isOk = reply.status == 0;
        const Facts& facts = side.connected->facts;
        reply.machine = facts.machine;
        reply.stateSpaces = facts.stateSpaces.value_or(facts.machine.entities);
        return reply;
    }

    // What a call does.

    Bytes call(Call call) {
        if (!mBackend.has_value()) {
            ++mAidl.lookups;
            mBackend = mAidl.registered != nullptr ? Backend::kAidl : Backend::kHidl;
            log('I',
                *mBackend == Backend::kAidl ? "Using power.stats AIDL" : "Using power.stats 1.0");
        }
        if (*mBackend == Backend::kAidl) {
            return call == Call::kRails ? railsAidl() : residenciesAidl();
        }
        return call == Call::kRails ? railsHidl() : residenciesHidl();
    }

    int64_t now() {
        events.emplace_back("clock");
        if (!mStep->clock.has_value()) return 0;
        return int64_t{mStep->clock->tv_sec} * 1000 + mStep->clock->tv_nsec / 1000000;
    }

    Bytes newArray(const std::string& bytes) {
        events.push_back("NewByteArray(" + std::to_string(bytes.size()) + ")");
        return mStep->heapIsFull ? std::nullopt : Bytes(bytes);
    }

    Bytes handOff(const std::string& bytes) {
        Bytes array = newArray(bytes);
        const std::string write = "SetByteArrayRegion(0, " + std::to_string(bytes.size()) + ")";
        events.push_back(write);
        if (!array.has_value()) {
            events.push_back("JNI: " + write + ": the array is null");
            throw ProcessEnds();
        }
        return array;
    }

    template <typename Value>
    const Value& strictly(const std::map<uint32_t, Value>& all, uint32_t id) {
        const auto found = all.find(id);
        if (found != all.end()) return found->second;
        const std::string message =
            "out_of_range was thrown in -fno-exceptions mode with message "
            "\"unordered_map::at: key not found\"";
        events.insert(events.end(), {message, "abort message: " + message});
        throw ProcessEnds();
    }

    /// A transport result goes that nobody has looked at.
    void release(const TransportStatus& unexamined) {
        if (unexamined.isOk()) return;
        events.push_back(
            "F/HidlStatus: " +
            cut("Failed HIDL return status not checked. Error is: " + unexamined.description()));
        throw ProcessEnds();
    }

    /// What the log takes of a text.
    static std::string cut(const std::string& text) { return text.substr(0, 1023); }

    static std::string elementOf(const std::string& name, int64_t timestamp, int64_t energy) {
        return support::railElement(upToNul(name), timestamp, energy);
    }

    std::string elementsOf(const std::vector<support::EntityTotals>& totals) {
        const int64_t timestamp = now();
        std::string bytes;
        for (const auto& entity : totals) {
            const std::string name = strictly(mEntityNames, entity.id);
            std::vector<std::string> residencies;
            for (const auto& state : entity.states) {
                residencies.push_back(support::residency(
                    strictly(strictly(mStateNames, entity.id), state.id),
                    static_cast<int64_t>(state.timeMs), static_cast<int64_t>(state.entries)));
            }
            bytes += support::entityElement(name, timestamp, residencies);
        }
        return bytes;
    }

    void learnEntities(const std::vector<support::Entity>& entities) {
        for (const auto& entity : entities) mEntityNames.insert({entity.id, entity.name});
    }

    /// The first listing of an entity stays as a whole.
    void learnStates(const std::vector<support::Entity>& entities) {
        for (const auto& entity : entities) {
            Names states;
            for (const auto& state : entity.states) states.insert({state.id, state.name});
            mStateNames.insert({entity.id, states});
        }
    }

    bool connectAidl() {
        if (mAidl.connected != nullptr) return true;
        ++mAidl.lookups;
        mAidl.connected = mAidl.registered;
        if (mAidl.connected == nullptr) {
            log('E', "Unable to get power stats AIDL service!");
            return false;
        }
        link(Backend::kAidl);
        return true;
    }

    bool learnChannels() {
        if (!mChannels.empty()) return true;
        if (!connectAidl()) return false;
        const Reply reply = transact(Backend::kAidl, "getEnergyMeterInfo");
        if (!reply.isOk) return false;
        for (const auto& rail : reply.machine.rails) mChannels.insert({rail.id, rail.name});
        return !mChannels.empty();
    }

    Bytes railsAidl() {
        if (!learnChannels()) {
            log('I', "Power stats rail energy init failed");
            return std::nullopt;
        }
        const Reply reply = transact(Backend::kAidl, "readEnergyMeter");
        if (!reply.isOk) {
            log('E', "Error reading energy meter");
            return std::nullopt;
        }
        const int64_t timestamp = now();
        std::string bytes;
        for (const auto& energy : reply.machine.energies) {
            if (energy.durationMs != energy.timestampMs) continue;
            bytes += elementOf(
                strictly(mChannels, energy.id), timestamp,
                millijoules(static_cast<float>(static_cast<int64_t>(energy.microwattSeconds))));
        }
        return handOff(bytes);
    }

    bool learnNamesAidl() {
        if (!mEntityNames.empty() && !mStateNames.empty()) return true;
        if (!connectAidl()) return false;
        const Reply reply = transact(Backend::kAidl, "getPowerEntityInfo");
        if (!reply.isOk) return false;
        learnEntities(reply.machine.entities);
        learnStates(reply.machine.entities);
        return !mEntityNames.empty() && !mStateNames.empty();
    }

    Bytes residenciesAidl() {
        if (!learnNamesAidl()) {
            log('I', "Power stats residencies init failed");
            return std::nullopt;
        }
        const Reply reply = transact(Backend::kAidl, "getStateResidency");
        if (!reply.isOk) {
            log('E', "Error reading getting state residency");
            return std::nullopt;
        }
        const std::string bytes = elementsOf(reply.machine.totals);
        if (!bytes.empty()) return handOff(bytes);
        log('E', "getResidenciesAidl failed: No residences were obtained from PowerStats AIDL.");
        return newArray("");
    }

    void disconnectHidl() {
        if (mHidl.connected == nullptr) return;
        ++mHidl.unlinks;
        mHidl.connected = nullptr;
        mHidl.linked = false;
    }

    /// Whether a name query reached its service; a dead one is let go at once.
    bool reached(const TransportStatus& transport) {
        if (transport.isOk()) return true;
        log('E', cut("Failed to init state info: requested HAL service not available. "
                     "Description: " +
                     transport.description()));
        if (transport.exceptionCode() == -129 && transport.transactionError() == -32) {
            disconnectHidl();
        }
        return false;
    }

    bool learnNamesHidl() {
        const Reply entities = transact(Backend::kHidl, "getPowerEntityInfo");
        if (entities.answered && entities.status == kSuccess) {
            learnEntities(entities.machine.entities);
        } else if (entities.answered) {
            log('E', "Failed to get power entity info.");
        }
        if (!reached(entities.transport) || mEntityNames.empty()) return false;
        const Reply states = transact(Backend::kHidl, "getPowerEntityStateInfo");
        if (states.answered && states.status == kSuccess) {
            learnStates(states.stateSpaces);
        } else if (states.answered) {
            log('E', "Failed to get state info.");
        }
        return reached(states.transport) && !mStateNames.empty();
    }

    bool connectHidl() {
        if (mHidl.connected != nullptr) return true;
        ++mHidl.lookups;
        mHidl.connected = mHidl.registered;
        if (mHidl.connected == nullptr) {
            log('E', "Unable to get power stats HAL service!");
            return false;
        }
        if (const TransportStatus linked = link(Backend::kHidl); !linked.isOk()) {
            log('E', cut("Transaction error in linking to PowerStatsHAL death: " +
                         linked.description()));
        }
        if (learnNamesHidl()) return true;
        disconnectHidl();
        return false;
    }

    Bytes railsHidl() {
        if (!connectHidl()) {
            log('E', "Power stats HAL not loaded!");
            return std::nullopt;
        }
        const Reply rails = transact(Backend::kHidl, "getRailInfo");
        Names names;
        if (rails.answered && rails.status == kNotSupported) {
            log('W', "getRailInfo() is not supported.");
        } else {
            for (const auto& rail : rails.machine.rails) names.insert({rail.id, rail.name});
        }
        release(rails.transport);
        if (names.empty()) {
            log('W', "Rail names are empty because rail energy is not supported.");
            return std::nullopt;
        }
        const Reply energies = transact(Backend::kHidl, "getEnergyData");
        release(energies.transport);
        if (energies.status != kSuccess) {
            log('E', "Error getting rail energy data.");
            return std::nullopt;
        }
        const int64_t timestamp = now();
        std::string bytes;
        for (const auto& energy : energies.machine.energies) {
            bytes += elementOf(strictly(names, energy.id), timestamp,
                               millijoules(static_cast<float>(energy.microwattSeconds)));
        }
        return handOff(bytes);
    }

    Bytes residenciesHidl() {
        if (!connectHidl()) {
            log('E', "Power stats HAL not loaded!");
            return std::nullopt;
        }
        const Reply reply = transact(Backend::kHidl, "getPowerEntityStateResidencyData");
        std::string bytes;
        if (reply.answered && reply.status == kNotSupported) {
            log('W', "getPowerEntityStateResidencyData is not supported.");
        } else if (reply.answered) {
            bytes = elementsOf(reply.machine.totals);
        }
        Bytes array;
        if (bytes.empty()) {
            log('E', "getResidenciesV1_0 failed: No residences were obtained from PowerStats HAL.");
            array = newArray("");
        } else {
            array = handOff(bytes);
        }
        release(reply.transport);
        return array;
    }

    Side mAidl;
    Side mHidl;
    const Step* mStep = nullptr;
    std::optional<Backend> mBackend;
    Names mEntityNames;
    std::map<uint32_t, Names> mStateNames;
    Names mChannels;
};

}  // namespace

Prediction predict(const Session& session) {
    Model model;
    Prediction prediction;
    try {
        for (const Step& step : session) {
            model.step(step);
            ++prediction.steps;
            prediction.eventsOfSteps = model.events.size();
        }
    } catch (const ProcessEnds&) {
    }
    prediction.events = std::move(model.events);
    return prediction;
}

std::string returnedLine(const std::optional<std::string>& bytes) {
    return "returned " + (bytes ? "[" + support::toHex(*bytes) + "]" : "null");
}

std::string trafficLine(Backend backend, int64_t lookups, int64_t links, int64_t unlinks,
                        int64_t transactions) {
    return std::string(backend == Backend::kAidl ? "AIDL" : "HIDL") + " look-ups " +
           std::to_string(lookups) + ", links " + std::to_string(links) + ", unlinks " +
           std::to_string(unlinks) + ", transactions " + std::to_string(transactions);
}

}  // namespace fuzz
