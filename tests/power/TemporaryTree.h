// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace powerstats {

/// A folder of its own in the form of `/sys`, removed with this object.
class TemporaryTree {
  public:
    TemporaryTree() {
        std::string name = (std::filesystem::temp_directory_path() / "sysfs-XXXXXX").string();
        mRoot = mkdtemp(name.data());
        std::filesystem::create_directory(mRoot / "root");
        // Tests may read as another user.
        std::filesystem::permissions(mRoot, std::filesystem::perms(0755));
    }
    ~TemporaryTree() { std::filesystem::remove_all(mRoot); }
    TemporaryTree(const TemporaryTree&) = delete;
    TemporaryTree& operator=(const TemporaryTree&) = delete;

    std::string root() const { return path("").parent_path().string(); }
    std::filesystem::path path(const std::string& file) const { return mRoot / "root" / file; }

    /// Puts a file in its place in one step: a reader sees the old contents or the new ones.
    void write(const std::string& file, const std::string& text) const {
        std::filesystem::create_directories(path(file).parent_path());
        std::ofstream(mRoot / "new") << text << '\n';
        std::filesystem::rename(mRoot / "new", path(file));
    }
    void write(const std::string& file, long long number) const {
        write(file, std::to_string(number));
    }
    void link(const std::string& target, const std::string& file) const {
        std::filesystem::create_directories(path(file).parent_path());
        std::filesystem::create_symlink(target, path(file));
    }
    void remove(const std::string& file) const { std::filesystem::remove_all(path(file)); }

    void writeZone(const std::string& zone, const std::string& name, long long energyUj,
                   long long rangeUj = 0) const {
        write("class/powercap/" + zone + "/name", name);
        write("class/powercap/" + zone + "/energy_uj", energyUj);
        write("class/powercap/" + zone + "/max_energy_range_uj", rangeUj);
    }
    void writeIdleState(int cpu, int state, const std::string& name, long long timeUs,
                        long long usage) const {
        const std::string folder = "devices/system/cpu/cpu" + std::to_string(cpu) +
                                   "/cpuidle/state" + std::to_string(state);
        write(folder + "/name", name);
        write(folder + "/time", timeUs);
        write(folder + "/usage", usage);
    }
    void writeDevice(const std::string& device, long long activeMs, long long suspendedMs) const {
        write("devices/" + device + "/power/runtime_active_time", activeMs);
        write("devices/" + device + "/power/runtime_suspended_time", suspendedMs);
    }

  private:
    std::filesystem::path mRoot;
};

}  // namespace powerstats
