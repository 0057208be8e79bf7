#pragma once

#include <string>

namespace ktr::cli {

/// Loads a plugin into this process as the host does, and tells each step to the descriptor
/// `report`, so that whoever reads there knows it however the step ends.
///
/// What is told are records "KEY=VALUE", each ended by a NUL:
///   step      what begins: "loading" or the entry point that is called
///   type, name, guid   what the plugin answered
///   null      the entry point that answered null
///   refused   why the dynamic linker did not load it
///   threw, threw-unknown   an exception, with its text if it has one; ends the loading
///   registers, empty   the guid under which a factory, or an empty one, was registered
///   unregisters        the guid that was taken back
///   done      nothing follows
void runTrial(const std::string& path, int report);

} // namespace ktr::cli
