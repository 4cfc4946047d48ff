// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <memory>

#include "power/Source.h"
#include "power/service/Interfaces.h"

namespace powerstats {

/// A power stats service that is asked over AIDL, through the look-ups of this process. Finds the
/// service again after its death. For one thread.
///
/// Stamps are those of the service, in milliseconds. Residencies carry none; their time is that of
/// the middle of the call. A service that ended and one that took its place are not compared: all
/// their counters count as reset.
class ServiceSource : public Source {
  public:
    using Source::read;

    /// Reads the lists once, and again when an answer has an id that they lack, or when the service
    /// is another one. Figures that no counter can have, such as times above 292 years, are not
    /// read.
    Reading read(const Positions& rails, const Positions& entities) override;

  private:
    template <typename Record>
    using AskForList = ndk::ScopedAStatus (stats_aidl::IPowerStats::*)(std::vector<Record>*);

    Failure connect();
    template <typename Record, typename Thing>
    Failure readList(AskForList<Record> ask, std::vector<Thing>* things, bool* has);
    bool readRails(const Positions& positions, Reading* reading);
    bool readEntities(const Positions& positions, Reading* reading);

    std::shared_ptr<stats_aidl::IPowerStats> mService;
    /// As the service names them.
    std::vector<Rail> mRails;
    std::vector<Entity> mEntities;
    bool mHasRails = false;
    bool mHasEntities = false;
    std::shared_ptr<const Lists> mLists = std::make_shared<const Lists>();
    /// How often the service has been another one.
    uint32_t mRestarts = 0;
};

}  // namespace powerstats
