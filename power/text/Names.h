// SPDX-License-Identifier: Apache-2.0
//
// Names that can be shown and written anywhere.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "power/Reading.h"

namespace powerstats {

struct Utf8Character {
    uint32_t codePoint = 0;
    /// In bytes; 0 where the bytes are not UTF-8.
    size_t size = 0;
};

/// Decodes the character that starts at `position`, which must be below the size of `bytes`.
Utf8Character decodeUtf8(const std::string& bytes, size_t position);

/// Whether a character is of C0, DEL or C1.
bool isControlCharacter(uint32_t codePoint);

/// The size of a name in bytes is at most this.
constexpr size_t kMaxNameSize = 256;

/// Makes a name that every transport carries. Drivers and firmware write names as they like, and
/// one name that a transport refuses would make a whole answer fail.
///
/// Each byte that is not UTF-8 and each byte of a control character becomes `\xB5`. A noncharacter
/// such as U+FFFE, which D-Bus libraries refuse, becomes `\u{FFFE}`, and so does a separator of
/// lines, a control of the direction of writing or a character without width. The rest stays as it
/// is.
/// @param maxSize [in] in bytes. A longer name is cut before the character or escape that does not
///     fit.
std::string safeName(const std::string& bytes, size_t maxSize = kMaxNameSize);

/// Chooses one safe name for each thing so that no two are the same.
///
/// @param choices [in] per thing its possible names from the plainest to the most qualified, at
///     least one, of any bytes. Things whose safe names are the same all move on to their next
///     choice, until the names differ or the choices end. Names that are still the same get " #2",
///     " #3" and so on, within the greatest size of a name.
/// @return one name per thing, in the order of `choices`.
std::vector<std::string> distinctNames(const std::vector<std::vector<std::string>>& choices);

/// Makes lists whose names are safe, not empty and distinct: those of rails among the rails, those
/// of entities among the entities, those of states in their entity.
/// @param isFixed [in] whether the lists stay the same in every run: then namesakes are numbered.
///     Otherwise they are qualified by their subsystem and then by their id, "hwmon/in0 (id 7)",
///     which stays when another thing comes or goes.
std::shared_ptr<const Lists> nameLists(std::vector<Rail> rails, std::vector<Entity> entities,
                                       bool isFixed);

}  // namespace powerstats
