// SPDX-License-Identifier: Apache-2.0
//
// The processes behind services on the bus, and the thread that watches for their deaths. The
// thread has a connection of its own and calls no recipient, so it may be waited for.

#pragma once

#include <systemd/sd-id128.h>

#include <string>
#include <utility>

#include "Peer.h"

namespace host::dbus {

/// The process behind one connection to a bus.
class BusPeer : public Peer {
  public:
    /// @param busId [in] of the bus; one that was started again may give the same unique names.
    /// @param owner [in] the connection's unique name.
    BusPeer(const sd_id128_t& busId, std::string owner) : busId(busId), owner(std::move(owner)) {}
    ~BusPeer() override;

    const sd_id128_t busId;
    const std::string owner;

  protected:
    /// When this returns true the death will be noticed, and if the process is dead already it has
    /// been.
    bool startWatching() override;
    void stopWatching() override;

  private:
    bool mWatched = false;  // guarded by the caller's lock
};

}  // namespace host::dbus
