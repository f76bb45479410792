// Lays out the folder that is the phone's root: what every phone has, then a profile, a folder of
// plain files that describes a phone.

#pragma once

#include <filesystem>

#include "handset/links/nodes.h"

namespace handset {

// Makes the folders, the links and the places of binds that every phone has, whatever its profile
// says. root is an empty folder, or one that is made.
void lay_root(const std::filesystem::path& root);

// Takes every file below profile/sys and profile/proc as a node (its content is the node's value),
// each "name=value" line of profile/properties as a system property, and copies every other file
// and link to its place below root. Files that are there already are replaced. The files "sensors",
// "about" and "script" of the profile stay where they are. Throws std::exception with one line that
// names the file that cannot be read or copied.
void lay_profile(const std::filesystem::path& profile, const std::filesystem::path& root,
                 Nodes* nodes);

}  // namespace handset
