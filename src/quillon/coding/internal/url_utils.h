#pragma once

#include <optional>
#include <string>

#include "quillon/base/env.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"

namespace quillon {

// Questions about where a file URL lives: its volume, whether that volume is
// local, and whether the item's contents are present on this disk or only in
// a synchronisation service's cloud. Stateless and thread-safe; file-system
// access goes through `env`, volume facts come from platform/volumes.h.

// The user-defaults key that makes every location count as local.
inline constexpr std::string_view kQuillonIgnoreNetworkVolumesWarningAtMyOwnRisk =
    "QuillonIgnoreNetworkVolumesWarningAtMyOwnRisk";

// The root folder of the volume holding the URL, found from the nearest
// existing folder at or above its path; nullopt when no volume is known.
std::optional<Url> QuillonVolumeURL(const Url& url, Env* env = Env::Default());

// Whether the URL counts as local: always when the user default
// kQuillonIgnoreNetworkVolumesWarningAtMyOwnRisk is set, and whenever its
// volume is unknown or does not say; otherwise whether the volume is local.
bool QuillonIsLocalURL(const Url& url, Env* env = Env::Default());

// Whether the item's contents are present on this disk. A missing item and an
// empty file are; a file with a size but no allocated blocks is a placeholder
// and is not. A folder is not when one of the first 101 items of its
// recursive listing is not.
bool QuillonIsOnDisk(const Url& url, Env* env = Env::Default());
bool QuillonIsOnDisk(const std::string& path, Env* env = Env::Default());
// The same answer for an item already measured: false only for a regular
// file whose bytes are not stored locally (an online-only placeholder).
bool QuillonIsOnDisk(const FileAttributes& measuredFile);

// The device characteristics of the storage under the URL's volume; an empty
// dictionary when unknown.
Value QuillonVolumeProperties(const Url& url, Env* env = Env::Default());

// A dictionary describing the URL's volume: "URL" (the URL's absolute
// string), "MountURL", "Name", "Ejectable", "Local", "Internal", "Format" as
// texts (booleans "1"/"0", unknown values "(null)") and "Properties" (the
// device characteristics dictionary).
Value QuillonVolumeInformation(const Url& url, Env* env = Env::Default());

// QuillonVolumeInformation() of every mounted volume, in the system's order,
// each with the volume's own URL.
Value QuillonAllVolumeInformation();

}  // namespace quillon
